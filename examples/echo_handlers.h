// Echo handlers for a reactor thread: CEchoServer accepts TCP connections and
// each CEchoConnection sends back every byte it receives. CSendQueue is the
// piece both ends of an echo use to write to a non-blocking socket.
//
// Thread rules: a server, its connections and a send queue live on the thread
// whose reactor the server was given (the network thread): construct, Start,
// Stop and delete them there, for instance from an event sent to that thread.
// Only CEchoStats may be read from any thread.
//
// Ownership: the server owns its listening socket and its connections. A
// connection is deleted when the reactor closes it (OnClose) or when the server
// stops; the reactor never deletes a handler itself.
#ifndef EXAMPLES_ECHO_HANDLERS_H
#define EXAMPLES_ECHO_HANDLERS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <unordered_set>

#include "rtframework.h"

// Runs aFn on aQueue's thread and returns its result (SendEvent blocks).
int RunOnThread(IRtEventQueue* aQueue, std::function<int()> aFn);

// Bytes waiting for a non-blocking socket, in a chain of duplicated message
// blocks: queuing shares the buffer the bytes are in rather than copying them.
class CSendQueue {
public:
    CSendQueue() = default;
    ~CSendQueue();

    // Queues aBlock's readable bytes; aBlock stays its owner's and may be
    // reused or deleted at once.
    int Queue(const CRtMessageBlock& aBlock);
    // Sends what the socket takes. The number of bytes sent, or -1 when the
    // connection failed. *aShort is set when the socket took less than all:
    // the rest stays queued and the reactor reports writability once there
    // is room again.
    long Flush(const CRtSocketStream& aSocket, bool* aShort);
    unsigned long GetLength() const { return m_nLength; }

private:
    CSendQueue(const CSendQueue&) = delete;
    CSendQueue& operator=(const CSendQueue&) = delete;

    CRtMessageBlock* m_pHead = nullptr;  // DUPLICATED blocks only: the queue's
    CRtMessageBlock* m_pTail = nullptr;  // so that queuing does not walk the chain
    unsigned long m_nLength = 0;
};

// Counters of a server; any thread may read them.
struct CEchoStats {
    std::atomic<unsigned long> accepted{0};
    std::atomic<unsigned long> open{0};
    std::atomic<uint64_t> bytesEchoed{0};
    // Sends the socket took only part of (or none of) and finished later.
    std::atomic<unsigned long> shortWrites{0};
    std::atomic<unsigned long> dropped{0};  // over kMaxBacklog
};

class CEchoServer;

// One accepted connection. Reads at most one buffer per readiness report, so
// a busy peer cannot starve the others on the thread.
class CEchoConnection : public IRtEventHandler {
public:
    // Takes over the accepted socket aFd.
    CEchoConnection(CEchoServer* aServer, void* aFd);
    ~CEchoConnection() override;

    void* GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(void* aFd) override;
    int OnOutput(void* aFd) override;
    // Deletes the connection.
    int OnClose(void* aFd, MASK aMask) override;

private:
    int Flush_i();

    CEchoServer* m_pServer;
    CRtSocketStream m_Socket;
    CRtMessageBlock* m_pRecv = nullptr;  // ours; its bytes go to m_Out by duplicates
    CSendQueue m_Out;
};

class CEchoServer : public IRtEventHandler {
public:
    // A peer that sends this much more than it reads back is dropped: the
    // reactor reports readability for as long as data waits, so reading
    // cannot be paused, and memory must stay bounded.
    static const unsigned long kMaxBacklog = 8UL << 20;

    // aReactor: the thread's reactor, not owned.
    explicit CEchoServer(IRtReactor* aReactor) : m_pReactor(aReactor) {}
    ~CEchoServer() override { Stop(); }

    // Binds aAddr (port 0 picks a free one), listens and registers for
    // connections. aSendBuffer, when not 0, is the SO_SNDBUF of each accepted
    // socket. RT_ERROR_NETWORK_SOCKET_ERROR with errno set when a socket call
    // failed; RT_ERROR_ALREADY_INITIALIZED when started.
    int Start(const CRtInetAddr& aAddr, int aSendBuffer = 0);
    // Removes the listener and every connection from the reactor and closes
    // their sockets. Idempotent.
    void Stop();
    CRtInetAddr GetLocalAddr() const;
    const CEchoStats& GetStats() const { return m_Stats; }

    void* GetHandle() const override { return m_Socket.GetHandle(); }
    // Accepts the connections that wait.
    int OnInput(void* aFd) override;
    int OnClose(void* aFd, MASK aMask) override;

private:
    friend class CEchoConnection;
    void Accept_i(int aFd);
    void Remove_i(CEchoConnection* aConn);

    IRtReactor* m_pReactor;
    CRtSocketStream m_Socket;
    bool m_bListening = false;
    int m_nSendBuffer = 0;
    std::unordered_set<CEchoConnection*> m_Connections;  // owned
    CEchoStats m_Stats;
};

#endif  // EXAMPLES_ECHO_HANDLERS_H
