// Socket readiness as window messages, with the Windows rules, on epoll.
//
// Level-triggered EPOLLIN/EPOLLRDHUP give the read, accept and close rules.
// EPOLLOUT stays in the set only while a writability is owed (after the
// selection, after a connect, after a would-block), or an idle writable socket
// would wake its thread on every pass. A stream socket that is not yet
// connecting or listening is watched edge-triggered and looked at again on each
// edge, since the kernel tells nothing when connect or listen starts.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <vector>

#include "rtos_window_pump.h"

namespace rtos {
namespace pump {
namespace {

constexpr long kAllEvents = kFdRead | kFdWrite | kFdOob | kFdAccept | kFdConnect | kFdClose;

// Reading SO_ERROR clears it.
int TakeSocketError(int aFd) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (::getsockopt(aFd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
        return errno;
    }
    return err;
}

int ReadableBytes(int aFd) {
    int n = 0;
    return ::ioctl(aFd, FIONREAD, &n) == 0 ? n : 0;
}

bool IsConnectFailure(int aErr) {
    return aErr == ECONNREFUSED || aErr == ETIMEDOUT || aErr == EHOSTUNREACH ||
           aErr == ENETUNREACH || aErr == EADDRNOTAVAIL;
}

struct Classified {
    Phase phase;
    int error;  // an error the socket held, read while classifying
};

Classified Classify(int aFd) {
    int value = 0;
    socklen_t len = sizeof(value);
    if (::getsockopt(aFd, SOL_SOCKET, SO_TYPE, &value, &len) == 0 && value != SOCK_STREAM) {
        return {Phase::kDatagram, 0};
    }
    len = sizeof(value);
    if (::getsockopt(aFd, SOL_SOCKET, SO_ACCEPTCONN, &value, &len) == 0 && value) {
        return {Phase::kListening, 0};
    }
    tcp_info info{};
    len = sizeof(info);
    if (::getsockopt(aFd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0) {
        switch (info.tcpi_state) {
            case TCP_SYN_SENT:
            case TCP_SYN_RECV:
                return {Phase::kConnecting, 0};
            case TCP_LISTEN:
                return {Phase::kListening, 0};
            case TCP_CLOSE: {
                // Never connected, a connect that failed, or a connection that broke.
                const int err = TakeSocketError(aFd);
                if (err == 0) {
                    return {Phase::kIdle, 0};
                }
                return {IsConnectFailure(err) ? Phase::kConnecting : Phase::kConnected, err};
            }
            default:
                return {Phase::kConnected, 0};
        }
    }
    // A stream socket that is not TCP (a local socket): connected once it has a peer.
    sockaddr_storage peer;
    len = sizeof(peer);
    if (::getpeername(aFd, reinterpret_cast<sockaddr*>(&peer), &len) == 0) {
        return {Phase::kConnected, 0};
    }
    return {Phase::kIdle, 0};
}

}  // namespace

void Pump::SetInterest_l(SocketEntry& aEntry) {
    // The epoll event bits, as unsigned values.
    constexpr uint32_t kIn = EPOLLIN, kOut = EPOLLOUT, kRdHup = EPOLLRDHUP, kEdge = EPOLLET;
    const long ev = aEntry.events;
    const uint32_t read = (ev & kFdRead) ? kIn : 0u;
    const uint32_t write = (aEntry.writeArmed && (ev & kFdWrite)) ? kOut : 0u;
    uint32_t want = 0;
    switch (aEntry.phase) {
        case Phase::kIdle:
            want = kIn | kOut | kRdHup | kEdge;
            break;
        case Phase::kConnecting:
            want = kOut;
            break;
        case Phase::kConnected:
            // RDHUP always: a peer's close ends the watch even when nobody asked
            // for kFdClose, or a readable end of file would wake us forever.
            want = kRdHup | read | write;
            break;
        case Phase::kListening:
            want = (ev & kFdAccept) ? kIn : 0u;
            break;
        case Phase::kDatagram:
            want = read | write;
            break;
        case Phase::kDead:
            break;
    }
    if (want == aEntry.interest) {
        return;
    }
    epoll_event e{};
    e.events = want;
    e.data.fd = aEntry.fd;
    const int epfd = aEntry.pump->m_epfd;
    if (want == 0) {
        // Out of the set: EPOLLHUP and EPOLLERR are reported whatever is asked.
        ::epoll_ctl(epfd, EPOLL_CTL_DEL, aEntry.fd, &e);
    } else if (aEntry.interest == 0) {
        if (::epoll_ctl(epfd, EPOLL_CTL_ADD, aEntry.fd, &e) != 0 && errno == EEXIST) {
            ::epoll_ctl(epfd, EPOLL_CTL_MOD, aEntry.fd, &e);
        }
    } else if (::epoll_ctl(epfd, EPOLL_CTL_MOD, aEntry.fd, &e) != 0 && errno == ENOENT) {
        ::epoll_ctl(epfd, EPOLL_CTL_ADD, aEntry.fd, &e);
    }
    aEntry.interest = want;
}

void Pump::PushSocketMessage(SocketEntry& aEntry, long aEvent, int aError) {
    if ((aEntry.events & aEvent) == 0) {
        return;
    }
    const Message msg{HandleOf(aEntry.wnd), aEntry.msg, static_cast<uintptr_t>(aEntry.fd),
                      SelectLParam(aEvent, aError)};
    m_batch.push_back(Item{msg, aEntry.fd, aEntry.serial});
    if (aEvent == kFdRead) {
        aEntry.pendingRead = true;
    } else if (aEvent == kFdAccept) {
        aEntry.pendingAccept = true;
    }
}

void Pump::OnSocketTaken(const Item& aItem) {
    auto it = m_sockets.find(aItem.sockFd);
    if (it == m_sockets.end() || it->second->serial != aItem.sockSerial) {
        return;
    }
    // Taken from the queue: the next readiness may be reported again.
    const long event = SelectEvent(aItem.msg.lParam);
    if (event == kFdRead) {
        it->second->pendingRead = false;
    } else if (event == kFdAccept) {
        it->second->pendingAccept = false;
    }
}

void Pump::Kill(SocketEntry& aEntry) {
    std::lock_guard<std::mutex> lock(aEntry.lock);
    aEntry.phase = Phase::kDead;
    aEntry.writeArmed = false;
    SetInterest_l(aEntry);
}

void Pump::OnWritable(SocketEntry& aEntry) {
    {
        std::lock_guard<std::mutex> lock(aEntry.lock);
        if (!aEntry.writeArmed) {
            return;
        }
        aEntry.writeArmed = false;
        SetInterest_l(aEntry);
    }
    PushSocketMessage(aEntry, kFdWrite, 0);
}

void Pump::OnSocketEvent(int aFd, uint32_t aEvents) {
    auto it = m_sockets.find(aFd);
    if (it == m_sockets.end()) {
        ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, aFd, nullptr);
        return;
    }
    SocketEntry& entry = *it->second;
    switch (entry.phase) {
        case Phase::kIdle:
            OnIdleEvent(entry);
            break;
        case Phase::kConnecting:
            if (aEvents & (EPOLLOUT | EPOLLERR | EPOLLHUP)) {
                int err = TakeSocketError(aFd);
                if (err == 0 && (aEvents & EPOLLHUP)) {
                    err = ENOTCONN;  // closed before it was told why
                }
                OnConnectDone(entry, err);
            }
            break;
        case Phase::kConnected:
            OnConnectedEvent(entry, aEvents);
            break;
        case Phase::kListening:
            if ((aEvents & EPOLLIN) && !entry.pendingAccept) {
                PushSocketMessage(entry, kFdAccept, 0);
            } else if ((aEvents & (EPOLLERR | EPOLLHUP)) && !(aEvents & EPOLLIN)) {
                Kill(entry);  // shut down: nothing will come
            }
            break;
        case Phase::kDatagram:
            OnDatagramEvent(entry, aEvents);
            break;
        case Phase::kDead:
            Kill(entry);
            break;
    }
}

void Pump::OnIdleEvent(SocketEntry& aEntry) {
    const Classified now = Classify(aEntry.fd);
    switch (now.phase) {
        case Phase::kIdle:
            return;
        case Phase::kConnected:
            // It was not connecting when we last looked: a connect has completed.
            OnConnectDone(aEntry, now.error);
            return;
        case Phase::kConnecting:
            if (now.error != 0) {
                OnConnectDone(aEntry, now.error);
                return;
            }
            break;
        default:
            break;
    }
    std::lock_guard<std::mutex> lock(aEntry.lock);
    aEntry.phase = now.phase;
    aEntry.writeArmed = (aEntry.events & kFdWrite) != 0;
    SetInterest_l(aEntry);
}

void Pump::OnConnectDone(SocketEntry& aEntry, int aError) {
    PushSocketMessage(aEntry, kFdConnect, aError);
    if (aError != 0) {
        Kill(aEntry);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(aEntry.lock);
        aEntry.phase = Phase::kConnected;
        aEntry.writeArmed = false;
        SetInterest_l(aEntry);
    }
    // A new connection is writable: that is its first kFdWrite.
    PushSocketMessage(aEntry, kFdWrite, 0);
}

void Pump::OnConnectedEvent(SocketEntry& aEntry, uint32_t aEvents) {
    if (aEvents & EPOLLERR) {
        int err = TakeSocketError(aEntry.fd);
        if (err == 0) {
            err = aEntry.savedError ? aEntry.savedError : ECONNRESET;
        }
        PushSocketMessage(aEntry, kFdClose, err);
        Kill(aEntry);
        return;
    }
    if ((aEvents & EPOLLOUT) && !(aEvents & EPOLLHUP)) {
        OnWritable(aEntry);
    }
    if (aEvents & (EPOLLRDHUP | EPOLLHUP)) {
        // The peer has closed: the data that is left is reported first.
        if ((aEntry.events & kFdRead) && ReadableBytes(aEntry.fd) > 0) {
            if (!aEntry.pendingRead) {
                PushSocketMessage(aEntry, kFdRead, 0);
            }
            return;
        }
        PushSocketMessage(aEntry, kFdClose, aEntry.savedError);
        Kill(aEntry);
        return;
    }
    if ((aEvents & EPOLLIN) && !aEntry.pendingRead) {
        PushSocketMessage(aEntry, kFdRead, 0);
    }
}

void Pump::OnDatagramEvent(SocketEntry& aEntry, uint32_t aEvents) {
    if (aEvents & EPOLLOUT) {
        OnWritable(aEntry);
    }
    if (aEvents & (EPOLLIN | EPOLLERR)) {
        if (aEntry.events & kFdRead) {
            // A receive reports a pending error (an ICMP answer) and clears it.
            if (!aEntry.pendingRead) {
                PushSocketMessage(aEntry, kFdRead, 0);
            }
        } else if (aEvents & EPOLLERR) {
            TakeSocketError(aEntry.fd);
        }
    }
    if ((aEvents & EPOLLHUP) && !(aEvents & EPOLLIN)) {
        Kill(aEntry);  // shut down in both directions
    }
}

void Pump::CancelSocket(int aFd) {
    auto it = m_sockets.find(aFd);
    if (it == m_sockets.end()) {
        return;
    }
    SocketEntry* entry = it->second.get();
    Kill(*entry);
    PurgeSocket(*entry, 0);
    {
        Registry& reg = Registry::Get();
        std::unique_lock<std::shared_mutex> lock(reg.lock);
        auto r = reg.sockets.find(aFd);
        if (r != reg.sockets.end() && r->second == entry) {
            reg.sockets.erase(r);
        }
    }
    m_sockets.erase(it);
}

void Pump::DropSockets(uintptr_t aWnd) {
    std::vector<int> fds;
    for (const auto& s : m_sockets) {
        if (s.second->wnd == aWnd) {
            fds.push_back(s.first);
        }
    }
    for (int fd : fds) {
        CancelSocket(fd);
    }
}

int Pump::AsyncSelect(int aSocket, Window& aWnd, uint32_t aMsg, long aEvents) {
    aEvents &= kAllEvents;
    struct stat st;
    int notSocket = 0;
    if (aSocket < 0 || ::fstat(aSocket, &st) != 0) {
        notSocket = EBADF;
    } else if (!S_ISSOCK(st.st_mode)) {
        notSocket = ENOTSOCK;
    }
    if (aEvents == 0) {
        // A cancel succeeds for a selection we hold even when the socket was
        // closed in the meantime.
        const bool held = m_sockets.count(aSocket) != 0;
        CancelSocket(aSocket);
        if (held || notSocket == 0) {
            return 0;
        }
    }
    if (notSocket != 0) {
        errno = notSocket;
        return -1;
    }
    auto own = m_sockets.find(aSocket);
    if (own != m_sockets.end() && own->second->inode != st.st_ino) {
        CancelSocket(aSocket);  // a closed socket's number, now another socket's
        own = m_sockets.end();
    }
    Registry& reg = Registry::Get();
    if (own == m_sockets.end()) {
        std::shared_lock<std::shared_mutex> lock(reg.lock);
        auto r = reg.sockets.find(aSocket);
        if (r != reg.sockets.end() && r->second->inode == st.st_ino) {
            errno = EBUSY;
            return -1;
        }
    }
    const int flags = ::fcntl(aSocket, F_GETFL);
    if (flags < 0 ||
        (!(flags & O_NONBLOCK) && ::fcntl(aSocket, F_SETFL, flags | O_NONBLOCK) != 0)) {
        return -1;
    }

    if (own != m_sockets.end()) {
        // A new selection of the same socket replaces the old one; a writable
        // socket is reported writable again, as on Windows.
        SocketEntry& entry = *own->second;
        const bool sameTarget = entry.wnd == aWnd.id && entry.msg == aMsg;
        PurgeSocket(entry, sameTarget ? aEvents : 0);
        if (!sameTarget || !(aEvents & kFdRead)) {
            entry.pendingRead = false;
        }
        if (!sameTarget || !(aEvents & kFdAccept)) {
            entry.pendingAccept = false;
        }
        entry.wnd = aWnd.id;
        entry.msg = aMsg;
        std::lock_guard<std::mutex> lock(entry.lock);
        entry.events = aEvents;
        entry.writeArmed = (aEvents & kFdWrite) != 0;
        SetInterest_l(entry);
        return 0;
    }

    std::unique_ptr<SocketEntry> created(new (std::nothrow) SocketEntry());
    if (!created) {
        errno = ENOMEM;
        return -1;
    }
    SocketEntry& entry = *created;
    entry.fd = aSocket;
    entry.inode = st.st_ino;
    entry.serial = m_nextSerial++;
    entry.pump = this;
    entry.wnd = aWnd.id;
    entry.msg = aMsg;
    const Classified now = Classify(aSocket);
    {
        std::unique_lock<std::shared_mutex> lock(reg.lock);
        reg.sockets[aSocket] = &entry;
    }
    m_sockets[aSocket] = std::move(created);
    {
        std::lock_guard<std::mutex> lock(entry.lock);
        entry.events = aEvents;
        entry.phase = now.phase;
        entry.writeArmed = (aEvents & kFdWrite) != 0;
        entry.savedError = now.phase == Phase::kConnected ? now.error : 0;
        if (!(now.phase == Phase::kConnecting && now.error != 0)) {
            SetInterest_l(entry);
        }
    }
    if (now.phase == Phase::kConnecting && now.error != 0) {
        OnConnectDone(entry, now.error);  // it failed before the selection
    }
    return 0;
}

void Pump::SendWouldBlock(SocketEntry& aEntry) {
    std::lock_guard<std::mutex> lock(aEntry.lock);
    if (aEntry.writeArmed || !(aEntry.events & kFdWrite) ||
        (aEntry.phase != Phase::kConnected && aEntry.phase != Phase::kDatagram)) {
        return;
    }
    aEntry.writeArmed = true;
    SetInterest_l(aEntry);
}

}  // namespace pump

int SocketAsyncSelect(int aSocket, WindowHandle aWnd, uint32_t aMsg, long aEvents) {
    pump::Window* wnd = pump::OwnWindow(aWnd);
    if (!wnd) {
        return -1;
    }
    return pump::Pump::Current()->AsyncSelect(aSocket, *wnd, aMsg, aEvents);
}

void SocketSendWouldBlock(int aSocket) {
    pump::Registry& reg = pump::Registry::Get();
    std::shared_lock<std::shared_mutex> lock(reg.lock);
    auto it = reg.sockets.find(aSocket);
    if (it != reg.sockets.end()) {
        it->second->pump->SendWouldBlock(*it->second);
    }
}

int SocketReadableBytes(int aSocket, unsigned long* aCount) {
    int n = 0;
    if (!aCount) {
        errno = EINVAL;
        return -1;
    }
    if (::ioctl(aSocket, FIONREAD, &n) != 0) {
        return -1;
    }
    *aCount = static_cast<unsigned long>(n);
    return 0;
}

}  // namespace rtos
