// Event handlers on the network thread's reactor: a listener that accepts, a
// receiver that reads until the peer closes, and a sender that registers
// before it connects and sends through the socket wrapper.
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "call_event.h"

namespace {

int FdOf(void* aHandle) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aHandle));
}
void* HandleOf(int aFd) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(aFd));
}

CRtEventThread g_done;  // signalled once the receiver saw the whole message

// Reads until the peer closes. Returning -1 has the reactor remove the handle
// and call OnClose once.
class CReceiver : public IRtEventHandler {
public:
    explicit CReceiver(int aFd) { m_Socket.SetHandle(HandleOf(aFd)); }  // owns it now
    void* GetHandle() const override { return m_Socket.GetHandle(); }

    int OnInput(void*) override {
        char buf[256];
        int n = m_Socket.Recv(buf, sizeof buf, 0);
        if (n > 0) {
            m_strData.append(buf, n);
            return 0;
        }
        if (n < 0 && (errno == EWOULDBLOCK || errno == EAGAIN)) {
            return 0;  // nothing after all; keep the registration
        }
        return -1;  // 0: the peer closed; else an error
    }
    int OnClose(void*, MASK) override {
        std::printf("received \"%s\"\n", m_strData.c_str());
        g_done.Signal();
        return 0;
    }

private:
    CRtSocketStream m_Socket;
    std::string m_strData;
};

class CListener : public IRtEventHandler {
public:
    explicit CListener(IRtReactor* aReactor) : m_pReactor(aReactor) {}
    // Removing handlers never calls OnClose; the sockets close with the objects.
    ~CListener() override {
        if (m_pReceiver) {
            m_pReactor->RemoveHandler(m_pReceiver);
            delete m_pReceiver;
        }
        m_pReactor->RemoveHandler(this);
    }

    int Start(CRtInetAddr& aAddr) {
        if (m_Socket.Open(1, aAddr) != 0 || m_Socket.Enable(RT_IPC_SAP::NON_BLOCK) != 0 ||
            ::listen(FdOf(m_Socket.GetHandle()), 16) != 0) {
            return RT_ERROR_NETWORK_SOCKET_ERROR;
        }
        m_Socket.GetLocalAddr(aAddr);  // the port the system picked
        return m_pReactor->RegisterHandler(this, ACCEPT_MASK);
    }
    void* GetHandle() const override { return m_Socket.GetHandle(); }

    int OnInput(void*) override {
        int fd = ::accept4(FdOf(m_Socket.GetHandle()), nullptr, nullptr, SOCK_NONBLOCK);
        if (fd >= 0 && !m_pReceiver) {
            m_pReceiver = new CReceiver(fd);
            m_pReactor->RegisterHandler(m_pReceiver, READ_MASK);
        }
        return 0;
    }

private:
    IRtReactor* m_pReactor;
    CRtSocketStream m_Socket;
    CReceiver* m_pReceiver = nullptr;  // owned
};

class CSender : public IRtEventHandler {
public:
    explicit CSender(IRtReactor* aReactor) : m_pReactor(aReactor) {}
    ~CSender() override { m_pReactor->RemoveHandler(this); }

    int Connect(const CRtInetAddr& aPeer) {
        if (m_Socket.Open(0) != 0 || m_Socket.Enable(RT_IPC_SAP::NON_BLOCK) != 0) {
            return RT_ERROR_NETWORK_SOCKET_ERROR;
        }
        // Registered first, so that a connection completing at once is seen.
        m_pReactor->RegisterHandler(this, CONNECT_MASK | WRITE_MASK);
        int rv = ::connect(FdOf(m_Socket.GetHandle()),
                           reinterpret_cast<const sockaddr*>(aPeer.GetPtr()), aPeer.GetSize());
        return rv == 0 || errno == EINPROGRESS ? RT_OK : RT_ERROR_NETWORK_SOCKET_ERROR;
    }
    void* GetHandle() const override { return m_Socket.GetHandle(); }

    // Connected, or writable again after a send that would block.
    int OnOutput(void*) override {
        while (m_nSent < m_strMessage.size()) {
            int n = m_Socket.Send(m_strMessage.data() + m_nSent, m_strMessage.size() - m_nSent, 0);
            if (n < 0) {
                // A would-block through the wrapper re-arms the writability
                // report; wait for it.
                return errno == EWOULDBLOCK || errno == EAGAIN ? 0 : -1;
            }
            m_nSent += n;
        }
        m_pReactor->RemoveHandler(this);  // done: no OnClose
        m_Socket.Close(0);                // graceful: the receiver reads to the end
        return 0;
    }
    // A failed connect or a reset ends here.
    int OnClose(void*, MASK) override {
        std::printf("the connection failed\n");
        g_done.Signal();
        return 0;
    }

private:
    IRtReactor* m_pReactor;
    CRtSocketStream m_Socket;
    std::string m_strMessage = "hello through the reactor";
    size_t m_nSent = 0;
};

}  // namespace

int main() {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    IRtReactor* network =
        manager ? manager->GetThreadReactor(CRtThreadManager::TT_NETWORK) : nullptr;
    if (!network) {
        return 1;
    }

    // Handlers are made, registered and deleted on the reactor's thread.
    CListener* listener = nullptr;
    CSender* sender = nullptr;
    int rv = RunOn(network, [&] {
        CRtInetAddr addr("127.0.0.1", 0);
        listener = new CListener(network);
        sender = new CSender(network);
        int result = listener->Start(addr);
        return RT_SUCCEEDED(result) ? sender->Connect(addr) : result;
    });
    CRtTimeValue limit(30L, 0L);
    if (RT_SUCCEEDED(rv)) {
        rv = g_done.Wait(&limit);
    }
    RunOn(network, [&] {
        delete sender;
        delete listener;
        return RT_OK;
    });
    return RT_SUCCEEDED(rv) ? 0 : 1;
}
