// CEchoClient: the demo's echo exchange. It sends messages of varying sizes to
// an echo server, some larger than 64 KiB so that both ends fill their socket
// buffers and finish their writes on writability, and checks every byte that
// comes back, in order. A timer on its thread watches for a stalled exchange.
//
// Thread rules: construct, Start, Stop, GetFailure and delete on the reactor's
// thread, where every callback runs too. GetProgress may be read from any
// thread, and aDone is signalled once, when the exchange ended either way.
#ifndef EXAMPLES_ECHO_CLIENT_H
#define EXAMPLES_ECHO_CLIENT_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>

#include "echo_handlers.h"
#include "rtframework.h"

class CEchoClient : public IRtEventHandler, public CRtTimerWrapperSink {
public:
    struct CProgress {
        std::atomic<unsigned long> messagesVerified{0};
        std::atomic<uint64_t> bytesVerified{0};
        std::atomic<unsigned long> timerTicks{0};
    };

    // aReactor and aDone are not owned and must outlive the client.
    CEchoClient(IRtReactor* aReactor, unsigned long aMessages, CRtEventThread* aDone);
    ~CEchoClient() override { Stop(); }

    // Connects to aServer. aRecvBuffer, when not 0, is the socket's SO_RCVBUF:
    // a small one makes the server meet would-block. RT_ERROR_NETWORK_SOCKET_ERROR
    // with errno set when a socket call failed.
    int Start(const CRtInetAddr& aServer, int aRecvBuffer = 0);
    // Removes the handler, cancels the timer and closes the socket.
    void Stop();

    // Empty once every byte came back as sent; otherwise what went wrong.
    // "running" until the exchange ended.
    std::string GetFailure() const { return m_Failure; }
    const CProgress& GetProgress() const { return m_Progress; }
    unsigned long GetMessageCount() const { return m_nMessages; }
    uint64_t GetTotalBytes() const { return m_nTotalBytes; }
    // The size of message aIndex: mostly up to 4 KiB, every 100th over 64 KiB.
    static unsigned long MessageSize(unsigned long aIndex);

    void* GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(void* aFd) override;
    // The connect completed or there is room to send again.
    int OnOutput(void* aFd) override;
    int OnClose(void* aFd, MASK aMask) override;
    void OnTimer(CRtTimerWrapper* aId) override;

private:
    // Queues messages while less than a window is unanswered, then sends.
    int Pump_i();
    void Finish_i(const std::string& aFailure);

    IRtReactor* m_pReactor;
    CRtEventThread* m_pDone;
    CRtSocketStream m_Socket;
    CSendQueue m_Out;
    CRtTimerWrapper m_Watchdog;
    bool m_bRegistered = false;
    bool m_bConnected = false;

    const unsigned long m_nMessages;
    uint64_t m_nTotalBytes = 0;
    unsigned long m_nNextMessage = 0;
    uint64_t m_nQueuedBytes = 0;
    uint64_t m_nVerifiedBytes = 0;
    std::deque<uint64_t> m_MessageEnds;  // stream offsets where queued messages end
    uint64_t m_nLastSeen = 0;            // for the watchdog
    unsigned long m_nIdleTicks = 0;
    std::string m_Failure = "running";
    CProgress m_Progress;
    char m_RecvBuf[64 * 1024];
};

#endif  // EXAMPLES_ECHO_CLIENT_H
