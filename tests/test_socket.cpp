// Socket wrappers against real loopback peers: opening and closing, address
// reuse and addresses in use, stream and datagram transfers with scatter and
// gather, half-closes, non-blocking reads and bad arguments.
#include <gtest/gtest.h>

#include <errno.h>
#ifndef _WIN32
#include <sys/ioctl.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cstring>
#include <string>

#include "fd_count.h"
#include "loopback_helpers.h"
#include "platform_errors.h"
#include "rtframework.h"
#include "rtosnet.h"
#include "rtossocket.h"
#include "trace_capture.h"

namespace {

void* const kInvalid = reinterpret_cast<void*>(static_cast<intptr_t>(RT_INVALID_HANDLE));

int Fd(const RT_IPC_SAP& aSock) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aSock.GetHandle()));
}

// Exposes the protected send-side shutdown.
class Stream : public CRtSocketStream {
public:
    using CRtSocketBase::CloseWriter;
};

// The errno of a failed call, 0 after a success.
int ErrorOf(int aResult) {
    return aResult == -1 ? errno : 0;
}
bool WouldBlock(int aResult) {
    return aResult == -1 && IsWouldBlock(errno);
}

// By field name: the order of the fields is the platform's.
iovec Iov(char* aBuf, unsigned long aLen) {
    iovec v{};
    v.iov_base = aBuf;
    v.iov_len = aLen;
    return v;
}

int ReuseOf(const CRtSocketBase& aSock) {
    int on = -1;
    int len = sizeof(on);
    EXPECT_EQ(0, aSock.GetOption(SOL_SOCKET, SO_REUSEADDR, &on, &len));
    return on;
}

// Every test must give back each descriptor it opened.
class Socket : public ::testing::Test {
protected:
    void SetUp() override { m_fds = OpenFdCount(); }
    void TearDown() override { EXPECT_EQ(m_fds, OpenFdCount()); }

    // A listener on loopback, a client connected to it, and the accepted end.
    void Connect(Stream& aClient, Stream& aServer) {
        CRtSocketStream listener;
        ASSERT_EQ(0, listener.Open(1, CRtInetAddr("127.0.0.1:0")));
        ASSERT_EQ(0, rtos::SocketListen(Fd(listener), 4));
        CRtInetAddr at;
        ASSERT_EQ(0, listener.GetLocalAddr(at));
        ASSERT_NE(0, at.GetPort());
        ASSERT_EQ(0, aClient.Open(0));
        ASSERT_EQ(0,
                  rtos::SocketConnect(Fd(aClient), reinterpret_cast<const sockaddr*>(at.GetPtr()),
                                      at.GetSize()));
        aServer.SetHandle(
            reinterpret_cast<void*>(rtos::SocketAccept(Fd(listener), nullptr, nullptr)));
        ASSERT_NE(kInvalid, aServer.GetHandle());
    }

    int m_fds = 0;
};

TEST_F(Socket, HandleRules) {
    TraceCapture capture;
    CRtSocketStream one, two;
    EXPECT_EQ(kInvalid, one.GetHandle());
    EXPECT_EQ(0, one.Close(0));
    ASSERT_EQ(0, one.Open(0));
    ASSERT_EQ(0, two.Open(0));

    errno = 1234;
    EXPECT_EQ(-1, one.Enable(5));
    EXPECT_EQ(-1, one.Disable(7));
    EXPECT_EQ(1234, errno);
    EXPECT_EQ(1u, TraceCapture::Count("RT_IPC_SAP::Enable, aValue=5"));
    EXPECT_EQ(1u, TraceCapture::Count("RT_IPC_SAP::Disable, aValue=7"));

    // A valid handle over another is traced and stored; the old one stays open.
    void* const old = one.GetHandle();
    one.SetHandle(two.GetHandle());
    EXPECT_EQ(two.GetHandle(), one.GetHandle());
    EXPECT_EQ(1u, TraceCapture::Count(
                      "Assert failed: m_Handle == RT_INVALID_HANDLE || aNew == RT_INVALID_HANDLE"));
    two.SetHandle(kInvalid);
    rtos::SocketClose(reinterpret_cast<intptr_t>(old));
}

TEST_F(Socket, OpenSetsAddressReuseOnlyWhenAskedOnInternetSockets) {
    CRtSocketStream stream;
    ASSERT_EQ(0, stream.Open(1));
    EXPECT_EQ(1, ReuseOf(stream));
    ASSERT_EQ(0, stream.Open(0));
    EXPECT_EQ(0, ReuseOf(stream));
#ifndef _WIN32  // AF_UNIX sockets are POSIX's
    ASSERT_EQ(0, stream.CRtSocketBase::Open(AF_UNIX, SOCK_STREAM, 0, 1));
    EXPECT_EQ(0, ReuseOf(stream));
#endif
    CRtSocketDgram dgram;
    ASSERT_EQ(0, dgram.Open(CRtInetAddr("127.0.0.1:0")));
    EXPECT_EQ(0, ReuseOf(dgram));
}

TEST_F(Socket, FailedOpenOrBindKeepsTheErrorAndClosesTheSocket) {
    CRtSocketStream listener;
    ASSERT_EQ(0, listener.Open(1, CRtInetAddr("127.0.0.1:0")));
    ASSERT_EQ(0, rtos::SocketListen(Fd(listener), 1));
    CRtInetAddr taken;
    ASSERT_EQ(0, listener.GetLocalAddr(taken));
    for (int reuse : {0, 1}) {
        CRtSocketStream sock;
        const int err = ErrorOf(sock.Open(reuse, taken));
#ifdef _WIN32
        // With address reuse Winsock may call the taken address forbidden.
        EXPECT_TRUE(err == kErrAddressInUse || (reuse && err == WSAEACCES)) << err;
#else
        EXPECT_EQ(kErrAddressInUse, err);
#endif
        EXPECT_EQ(kInvalid, sock.GetHandle());
    }

    CRtSocketDgram first, second;
    ASSERT_EQ(0, first.Open(CRtInetAddr("127.0.0.1:0")));
    ASSERT_EQ(0, first.GetLocalAddr(taken));
    EXPECT_EQ(kErrAddressInUse, ErrorOf(second.Open(taken)));
    EXPECT_EQ(kInvalid, second.GetHandle());

    EXPECT_EQ(kErrFamilyUnsupported, ErrorOf(second.CRtSocketBase::Open(-7, SOCK_DGRAM, 0, 1)));
    EXPECT_EQ(kInvalid, second.GetHandle());
}

TEST_F(Socket, StreamTransfersNonBlockingReadsAndHalfCloses) {
    Stream client, server;
    Connect(client, server);
    CRtInetAddr clientLocal, serverRemote;
    ASSERT_EQ(0, client.GetLocalAddr(clientLocal));
    ASSERT_EQ(0, server.GetRemoteAddr(serverRemote));
    EXPECT_TRUE(clientLocal == serverRemote);

    EXPECT_EQ(5, client.Send("hello", 5, 0));
    char buf[16] = {};
    EXPECT_EQ(5, server.Recv(buf, sizeof(buf), 0));
    EXPECT_STREQ("hello", buf);

    char a[] = "gat", b[] = "her", c[] = "ed";
    const iovec out[] = {Iov(a, 3), Iov(b, 3), Iov(c, 2)};
    EXPECT_EQ(8, server.SendV(out, 3));
    char x[5] = {}, y[8] = {};
    iovec in[] = {Iov(x, 4), Iov(y, 7)};
    // Loopback delivers one send whole.
    EXPECT_EQ(8, client.RecvV(in, 2));
    EXPECT_STREQ("gath", x);
    EXPECT_STREQ("ered", y);

    // Nothing to read on a non-blocking socket; then data is counted and read.
    ASSERT_EQ(0, server.Enable(RT_IPC_SAP::NON_BLOCK));
    EXPECT_TRUE(WouldBlock(server.Recv(buf, sizeof(buf), 0)));
    ASSERT_EQ(3, client.Send("abc", 3, 0));
    int pending = 0;
    EXPECT_TRUE(WaitUntil([&] { return server.Control(FIONREAD, &pending) == 0 && pending == 3; }));
    ASSERT_EQ(0, server.Disable(RT_IPC_SAP::NON_BLOCK));
    EXPECT_EQ(3, server.Recv(buf, sizeof(buf), 0));

    // Half-closes leave the other direction working.
    ASSERT_EQ(0, client.CloseWriter());
    EXPECT_EQ(0, server.Recv(buf, sizeof(buf), 0));
    EXPECT_EQ(2, server.Send("ok", 2, 0));
    EXPECT_EQ(2, client.Recv(buf, sizeof(buf), 0));
    ASSERT_EQ(0, server.CloseReader());
#ifdef _WIN32
    EXPECT_EQ(WSAESHUTDOWN, ErrorOf(server.Recv(buf, sizeof(buf), 0)));  // Winsock refuses
#else
    EXPECT_EQ(0, server.Recv(buf, sizeof(buf), 0));
#endif
}

TEST_F(Socket, GracefulCloseAndReopenShutTheSendingSideFirst) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: dup keeps a socket open past its close";
#else
    struct Case {
        const char* name;
        int (*close)(Stream&);
        bool graceful;
    } cases[] = {
        {"Close(0)", [](Stream& aSock) { return aSock.Close(0); }, true},
        {"Close(1)", [](Stream& aSock) { return aSock.Close(1); }, false},
        {"Open over an open socket", [](Stream& aSock) { return aSock.Open(0); }, true},
    };
    // A duplicate keeps the socket alive past close, so only a shutdown shows.
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Stream client, server;
        Connect(client, server);
        ASSERT_EQ(0, server.Enable(RT_IPC_SAP::NON_BLOCK));
        const int dup = ::dup(Fd(client));
        EXPECT_EQ(0, c.close(client));
        char buf[1];
        if (c.graceful) {
            EXPECT_TRUE(WaitUntil([&] { return server.Recv(buf, 1, 0) == 0; }));
        } else {
            EXPECT_EQ(kInvalid, client.GetHandle());
            EXPECT_TRUE(WouldBlock(server.Recv(buf, 1, 0)));
        }
        ::close(dup);
    }
#endif
}

TEST_F(Socket, DatagramsNameTheirPeer) {
    CRtSocketDgram one, two;
    ASSERT_EQ(0, one.Open(CRtInetAddr("127.0.0.1:0")));
    ASSERT_EQ(0, two.Open(CRtInetAddr("127.0.0.1:0")));
    CRtInetAddr oneAt, twoAt, from;
    ASSERT_EQ(0, one.GetLocalAddr(oneAt));
    ASSERT_EQ(0, two.GetLocalAddr(twoAt));

    EXPECT_EQ(4, one.SendTo("ping", 4, twoAt, 0));
    char buf[16] = {};
    EXPECT_EQ(4, two.RecvFrom(buf, sizeof(buf), from, 0));
    EXPECT_STREQ("ping", buf);
    EXPECT_TRUE(from == oneAt);

    char a[] = "po", b[] = "ng";
    const iovec out[] = {Iov(a, 2), Iov(b, 2)};
    EXPECT_EQ(4, two.SendVTo(out, 2, oneAt));
    std::memset(buf, 0, sizeof(buf));
    EXPECT_EQ(4, one.RecvFrom(buf, sizeof(buf), from, 0));
    EXPECT_STREQ("pong", buf);
    EXPECT_TRUE(from == twoAt);

    ASSERT_EQ(0, one.Enable(RT_IPC_SAP::NON_BLOCK));
    EXPECT_TRUE(WouldBlock(one.RecvFrom(buf, sizeof(buf), from, 0)));
}

TEST_F(Socket, BadArgumentsAreTracedAndFailInTheSystem) {
    // The address given by name below starts the library's threads (through
    // the DNS manager), whose descriptors live as long as the process.
    CRtDnsManager::Instance();
    m_fds = OpenFdCount();
    TraceCapture capture;
    Stream client, server;
    Connect(client, server);
    ASSERT_EQ(1, client.Send("x", 1, 0));
    ASSERT_TRUE(WaitUntil([&] {
        int n = 0;
        return server.Control(FIONREAD, &n) == 0 && n == 1;
    }));
    EXPECT_EQ(kErrBadAddress, ErrorOf(server.Recv(nullptr, 1, 0)));
    EXPECT_EQ(kErrBadAddress, ErrorOf(server.RecvV(nullptr, 1)));
    EXPECT_EQ(kErrBadAddress, ErrorOf(client.Send(nullptr, 1, 0)));
    EXPECT_EQ(kErrBadAddress, ErrorOf(client.SendV(nullptr, 1)));
    EXPECT_EQ(2u, TraceCapture::Count("Assert failed: aBuf"));
    EXPECT_EQ(2u, TraceCapture::TakeCount("Assert failed: aIov"));

    // An unresolved address goes to the system as 0.0.0.0, traced. The name
    // is refused at once: a real lookup could still hold a socket to the name
    // server when the descriptors are counted.
    static std::atomic<int> lookups{0};
    rtos::SetHostLookup([](const char*, rtos::HostInfo&) {
        ++lookups;
        return rtos::kHostNotFound;
    });
    CRtSocketDgram dgram;
    EXPECT_EQ(0, dgram.Open(CRtInetAddr("no-such-host.invalid", 0)));
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: IsResolved()"));
    EXPECT_TRUE(WaitUntil([&] { return lookups.load() > 0; }));
    rtos::SetHostLookup(nullptr);

    // A closed object fails with the system's error; a send to a closed peer
    // fails too, without a signal.
    client.Close(0);
    EXPECT_EQ(kErrClosedSocket, ErrorOf(client.Send("x", 1, 0)));
    int sent;
    EXPECT_TRUE(WaitUntil([&] { return (sent = server.Send("x", 1, 0)) == -1; }));
    EXPECT_TRUE(IsBrokenConnection(ErrorOf(sent))) << ErrorOf(sent);
}

}  // namespace
