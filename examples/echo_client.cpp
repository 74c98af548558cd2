#include "echo_client.h"

#include "host_sockets.h"

#include <errno.h>

#include <cstring>

namespace {

// Unanswered bytes the client lets into the pipe at a time.
const uint64_t kWindow = 256 * 1024;
const long kTickUsec = 20000;
// The watchdog's patience: generous, for sanitizer builds on a loaded machine.
const unsigned long kStallTicks = 30 * 1000000 / kTickUsec;

// The byte at stream offset aOffset: a lost, repeated or reordered stretch
// shows up as a wrong byte.
char Pattern(uint64_t aOffset) {
    return static_cast<char>(aOffset * 7 + (aOffset >> 8) * 13 + (aOffset >> 16) * 31);
}

int FdOf(void* aHandle) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aHandle));
}

}  // namespace

CEchoClient::CEchoClient(IRtReactor* aReactor, unsigned long aMessages, CRtEventThread* aDone)
    : m_pReactor(aReactor), m_pDone(aDone), m_nMessages(aMessages) {
    for (unsigned long i = 0; i < aMessages; ++i) {
        m_nTotalBytes += MessageSize(i);
    }
}

unsigned long CEchoClient::MessageSize(unsigned long aIndex) {
    uint64_t mix = (aIndex + 1) * 2654435761ULL;
    if (aIndex % 100 == 99) {
        return 64 * 1024 + 1 + static_cast<unsigned long>(mix % (128 * 1024));
    }
    return 1 + static_cast<unsigned long>(mix % 4096);
}

int CEchoClient::Start(const CRtInetAddr& aServer, int aRecvBuffer) {
    if (m_Socket.Open(0) != 0) {
        return RT_ERROR_NETWORK_SOCKET_ERROR;
    }
    int fd = FdOf(m_Socket.GetHandle());
    if (aRecvBuffer > 0) {
        host::SetIntOption(fd, SOL_SOCKET, SO_RCVBUF, aRecvBuffer);
    }
    // Registered before connecting, so that the completion is seen.
    int rv = m_pReactor->RegisterHandler(this, CONNECT_MASK | READ_MASK | WRITE_MASK);
    if (RT_FAILED(rv)) {
        m_Socket.Close(1);
        return rv;
    }
    m_bRegistered = true;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(aServer.GetPtr()), aServer.GetSize()) !=
            0 &&
        !host::ConnectPending(host::LastSocketError())) {
        int err = host::LastSocketError();
        Stop();
        errno = err;
        return RT_ERROR_NETWORK_SOCKET_ERROR;
    }
    m_Watchdog.Schedule(this, CRtTimeValue(0L, kTickUsec));
    return RT_OK;
}

void CEchoClient::Stop() {
    m_Watchdog.Cancel();
    if (m_bRegistered) {
        m_pReactor->RemoveHandler(this);
        m_bRegistered = false;
    }
    m_Socket.Close(1);
}

int CEchoClient::OnOutput(void*) {
    m_bConnected = true;
    return Pump_i();
}

int CEchoClient::Pump_i() {
    while (m_nNextMessage < m_nMessages && m_nQueuedBytes - m_nVerifiedBytes < kWindow) {
        unsigned long size = MessageSize(m_nNextMessage++);
        CRtMessageBlock mb(size);
        char* p = mb.GetTopLevelWritePtr();
        for (unsigned long i = 0; i < size; ++i) {
            p[i] = Pattern(m_nQueuedBytes + i);
        }
        mb.AdvanceTopLevelWritePtr(size);
        if (RT_FAILED(m_Out.Queue(mb))) {
            Finish_i("out of memory");
            return -1;
        }
        m_nQueuedBytes += size;
        m_MessageEnds.push_back(m_nQueuedBytes);
    }
    bool blocked = false;
    if (m_Out.Flush(m_Socket, &blocked) < 0) {
        Finish_i(std::string("send failed: ") + std::strerror(errno));
        return -1;
    }
    return 0;
}

int CEchoClient::OnInput(void*) {
    int n = m_Socket.Recv(m_RecvBuf, sizeof(m_RecvBuf), 0);
    if (n < 0 && (host::WouldBlock(errno) || host::Interrupted(errno))) {
        return 0;
    }
    if (n <= 0) {
        return -1;  // OnClose tells what is missing
    }
    if (m_nVerifiedBytes + static_cast<uint64_t>(n) > m_nQueuedBytes) {
        Finish_i("more bytes came back than were sent");
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        if (m_RecvBuf[i] != Pattern(m_nVerifiedBytes + i)) {
            Finish_i("byte " + std::to_string(m_nVerifiedBytes + i) + " came back changed");
            return -1;
        }
    }
    m_nVerifiedBytes += static_cast<uint64_t>(n);
    m_Progress.bytesVerified = m_nVerifiedBytes;
    while (!m_MessageEnds.empty() && m_MessageEnds.front() <= m_nVerifiedBytes) {
        m_MessageEnds.pop_front();
        ++m_Progress.messagesVerified;
    }
    if (m_nVerifiedBytes == m_nTotalBytes) {
        Finish_i("");
        return 0;
    }
    return m_bConnected ? Pump_i() : 0;
}

int CEchoClient::OnClose(void*, MASK) {
    m_bRegistered = false;
    Finish_i("the connection closed after " + std::to_string(m_nVerifiedBytes) + " of " +
             std::to_string(m_nTotalBytes) + " bytes");
    return 0;
}

void CEchoClient::OnTimer(CRtTimerWrapper*) {
    ++m_Progress.timerTicks;
    if (m_nVerifiedBytes != m_nLastSeen) {
        m_nLastSeen = m_nVerifiedBytes;
        m_nIdleTicks = 0;
    } else if (++m_nIdleTicks == kStallTicks) {
        Finish_i("no echo for 30 s");
    }
}

void CEchoClient::Finish_i(const std::string& aFailure) {
    if (m_Failure != "running") {
        return;
    }
    m_Failure = aFailure;
    m_Watchdog.Cancel();
    m_pDone->Signal();
}
