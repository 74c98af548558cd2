#include "echo_handlers.h"

#include "host_sockets.h"

#include <errno.h>

#include <cstdint>

namespace {

class CFunctionEvent : public IRtEvent {
public:
    explicit CFunctionEvent(std::function<int()> aFn) : m_Fn(std::move(aFn)) {}
    int OnEventFire() override { return m_Fn(); }

private:
    std::function<int()> m_Fn;
};

int FdOf(void* aHandle) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aHandle));
}

void* HandleOf(int aFd) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(aFd));
}

// One recv per readiness report reads at most this much.
const unsigned long kRecvChunk = 64 * 1024;
// One gather send: enough entries for a backlog of small reads.
const unsigned long kIovMax = 64;
const unsigned long kSendMax = 1024 * 1024;
// Connections accepted per readiness report of the listener.
const int kAcceptsPerTurn = 64;

}  // namespace

int RunOnThread(IRtEventQueue* aQueue, std::function<int()> aFn) {
    if (!aQueue) {
        return RT_ERROR_NULL_POINTER;
    }
    return aQueue->SendEvent(new CFunctionEvent(std::move(aFn)));
}

// ---- CSendQueue ----------------------------------------------------------------

CSendQueue::~CSendQueue() {
    if (m_pHead) {
        m_pHead->DestroyChained();
    }
}

int CSendQueue::Queue(const CRtMessageBlock& aBlock) {
    unsigned long len = aBlock.GetTopLevelLength();
    if (len == 0) {
        return RT_OK;
    }
    CRtMessageBlock* dup = aBlock.DuplicateTopLevel();
    if (!dup) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    if (m_pTail) {
        m_pTail->Append(dup);
    } else {
        m_pHead = dup;
    }
    m_pTail = dup;
    m_nLength += len;
    return RT_OK;
}

long CSendQueue::Flush(const CRtSocketStream& aSocket, bool* aShort) {
    *aShort = false;
    long total = 0;
    iovec iov[kIovMax];
    while (m_pHead) {
        unsigned long count = m_pHead->FillIov(iov, kIovMax, kSendMax);
        int sent = aSocket.SendV(iov, count);
        if (sent < 0) {
            // Only a would-block re-arms the writability report, so a short
            // send is followed by another try rather than by waiting.
            if (host::WouldBlock(errno)) {
                *aShort = true;
                break;
            }
            if (host::Interrupted(errno)) {
                continue;
            }
            return -1;
        }
        m_pHead->AdvanceChainedReadPtr(static_cast<unsigned long>(sent));
        m_pHead = m_pHead->ReclaimGarbage();
        if (!m_pHead) {
            m_pTail = nullptr;
        }
        m_nLength -= static_cast<unsigned long>(sent);
        total += sent;
    }
    return total;
}

// ---- CEchoConnection -----------------------------------------------------------

CEchoConnection::CEchoConnection(CEchoServer* aServer, void* aFd) : m_pServer(aServer) {
    m_Socket.SetHandle(aFd);
}

CEchoConnection::~CEchoConnection() {
    delete m_pRecv;
}

int CEchoConnection::OnInput(void*) {
    if (!m_pRecv || m_pRecv->GetTopLevelSpace() == 0) {
        // The old buffer lives on in the duplicates still queued.
        delete m_pRecv;
        m_pRecv = new CRtMessageBlock(kRecvChunk);
    }
    int n = m_Socket.Recv(m_pRecv->GetTopLevelWritePtr(), m_pRecv->GetTopLevelSpace(), 0);
    if (n == 0) {
        return -1;  // the peer closed
    }
    if (n < 0) {
        return host::WouldBlock(errno) || host::Interrupted(errno) ? 0 : -1;
    }
    m_pRecv->AdvanceTopLevelWritePtr(static_cast<unsigned long>(n));
    if (RT_FAILED(m_Out.Queue(*m_pRecv))) {
        return -1;
    }
    m_pRecv->AdvanceTopLevelReadPtr(static_cast<unsigned long>(n));
    if (m_Out.GetLength() > CEchoServer::kMaxBacklog) {
        RT_WARNING_TRACE("CEchoConnection::OnInput, peer does not read its echo, dropped. backlog="
                         << m_Out.GetLength() << " this=" << this);
        ++m_pServer->m_Stats.dropped;
        return -1;
    }
    return Flush_i();
}

int CEchoConnection::OnOutput(void*) {
    return Flush_i();
}

int CEchoConnection::Flush_i() {
    bool blocked = false;
    long sent = m_Out.Flush(m_Socket, &blocked);
    if (sent < 0) {
        return -1;
    }
    m_pServer->m_Stats.bytesEchoed += static_cast<uint64_t>(sent);
    if (blocked) {
        ++m_pServer->m_Stats.shortWrites;
    }
    return 0;
}

int CEchoConnection::OnClose(void*, MASK) {
    m_pServer->Remove_i(this);
    return 0;
}

// ---- CEchoServer ---------------------------------------------------------------

int CEchoServer::Start(const CRtInetAddr& aAddr, int aSendBuffer) {
    if (m_bListening) {
        return RT_ERROR_ALREADY_INITIALIZED;
    }
    m_nSendBuffer = aSendBuffer;
    if (m_Socket.Open(1, aAddr) != 0) {
        return RT_ERROR_NETWORK_SOCKET_ERROR;  // Open closed it and kept its errno
    }
    if (::listen(FdOf(m_Socket.GetHandle()), SOMAXCONN) != 0) {
        int err = host::LastSocketError();
        m_Socket.Close(1);
        errno = err;
        return RT_ERROR_NETWORK_SOCKET_ERROR;
    }
    int rv = m_pReactor->RegisterHandler(this, ACCEPT_MASK);
    if (RT_FAILED(rv)) {
        m_Socket.Close(1);
        return rv;
    }
    m_bListening = true;
    RT_INFO_TRACE("CEchoServer::Start, listening. addr=" << GetLocalAddr().GetIpDisplayName() << ":"
                                                         << GetLocalAddr().GetPort());
    return RT_OK;
}

void CEchoServer::Stop() {
    if (m_bListening) {
        m_pReactor->RemoveHandler(this);
        m_bListening = false;
    }
    m_Socket.Close(1);
    for (CEchoConnection* conn : m_Connections) {
        m_pReactor->RemoveHandler(conn);
        delete conn;
    }
    m_Connections.clear();
    m_Stats.open = 0;
}

CRtInetAddr CEchoServer::GetLocalAddr() const {
    CRtInetAddr addr;
    m_Socket.GetLocalAddr(addr);
    return addr;
}

int CEchoServer::OnInput(void* aFd) {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        int fd = host::AcceptNonBlocking(FdOf(aFd));
        if (fd >= 0) {
            Accept_i(fd);
            continue;
        }
        const int err = host::LastSocketError();
        if (host::Interrupted(err) || host::AcceptAborted(err)) {
            continue;
        }
        if (!host::WouldBlock(err)) {
            // Out of descriptors, most likely: the listener stays, and the
            // connection waits until a descriptor is free again.
            RT_WARNING_TRACE("CEchoServer::OnInput, accept() failed. errno=" << err);
        }
        break;
    }
    return 0;
}

void CEchoServer::Accept_i(int aFd) {
    host::SetIntOption(aFd, IPPROTO_TCP, TCP_NODELAY, 1);
    if (m_nSendBuffer > 0) {
        host::SetIntOption(aFd, SOL_SOCKET, SO_SNDBUF, m_nSendBuffer);
    }
    auto* conn = new CEchoConnection(this, HandleOf(aFd));  // closes aFd when deleted
    if (RT_FAILED(m_pReactor->RegisterHandler(conn, READ_MASK | WRITE_MASK))) {
        delete conn;
        return;
    }
    m_Connections.insert(conn);
    ++m_Stats.accepted;
    ++m_Stats.open;
}

void CEchoServer::Remove_i(CEchoConnection* aConn) {
    if (m_Connections.erase(aConn) == 1) {
        --m_Stats.open;
        delete aConn;
    }
}

int CEchoServer::OnClose(void*, MASK) {
    RT_ERROR_TRACE("CEchoServer::OnClose, the listening socket failed. this=" << this);
    m_bListening = false;
    return 0;
}
