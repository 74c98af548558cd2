// Socket wrappers: RT_IPC_SAP holds a handle, CRtSocketBase opens, closes,
// configures and moves data, CRtSocketStream (TCP) and CRtSocketDgram (UDP)
// add the typed openings. Hosts use the two concrete classes directly.
//
// Results are system-style, not the library's result codes: 0 or a byte count
// on success; -1 on failure with the system's socket error, unchanged, in the
// calling thread's errno (a would-block reads EWOULDBLOCK/EAGAIN here, 10035
// on Windows). The wrappers never block or poll by themselves; blocking is the
// caller's choice through Enable/Disable(NON_BLOCK).
//
// Send through these wrappers rather than on the raw handle: a send that fails
// with would-block tells the reactor to report writability again, which it
// otherwise does only once.
//
// Ownership: an object owns the socket it opened or was given by SetHandle and
// closes it gracefully when destroyed. Copies share the handle value, not the
// socket: at most one copy may close it.
//
// Thread rules: no locks. Any thread may move data on an open socket (as
// safely as the system calls allow); the handle is changed (Open, Close,
// SetHandle) by one thread at a time, with no other call in flight.
#ifndef RTSOCKET_H
#define RTSOCKET_H

#include "rtdefines.h"
#include "rtinetaddr.h"
#include "rtosdefs.h"  // iovec

// A socket handle and its modes.
class RT_API RT_IPC_SAP {
public:
    // Values of Enable/Disable.
    enum { NON_BLOCK = 0 };

    RT_IPC_SAP() : m_Handle(RtInvalidHandle()) {}

    void* GetHandle() const { return m_Handle; }
    // Places a handle (an accepted socket, for instance) in an object that
    // holds none, or clears it with RT_INVALID_HANDLE without closing. A valid
    // handle over another is traced and stored all the same; the old one
    // stays open.
    void SetHandle(void* aNew);

    // NON_BLOCK switches non-blocking mode on or off; other values trace and
    // return -1 with errno untouched.
    int Enable(int aValue) const;
    int Disable(int aValue) const;
    // ioctlsocket: aCmd and aArg go to the system unchanged (on POSIX, FIONREAD
    // writes an int).
    int Control(int aCmd, void* aArg) const;

protected:
    void* m_Handle;
};

// Opening, closing, options and transfers of any socket; only its two
// subclasses are made.
class RT_API CRtSocketBase : public RT_IPC_SAP {
public:
    // Closes a socket already held, then opens a new one; aReuse sets
    // SO_REUSEADDR (never on AF_UNIX). On failure the new socket is closed and
    // errno is the error of the step that failed.
    int Open(int aFamily, int aType, int aProtocol, int aReuse);
    // aReason 0 shuts the sending side down first (graceful); any other value
    // closes at once. The handle is invalid afterwards, whatever the result.
    // Closing a closed object returns 0.
    int Close(int aReason);

    int SetOption(int aLevel, int aOption, const void* aOptVal, int aOptLen) const;
    int GetOption(int aLevel, int aOption, void* aOptVal, int* aOptLen) const;

    // 0 from Recv means the peer has closed.
    int Recv(char* aBuf, unsigned long aLen, int aFlag) const;
    int Send(const char* aBuf, unsigned long aLen, int aFlag) const;
    // One scatter receive or gather send over aCount buffers.
    int RecvV(iovec* aIov, unsigned long aCount) const;
    int SendV(const iovec* aIov, unsigned long aCount) const;

    // Overwrite aAddr's socket address (not its host name): pass a resolved one.
    int GetLocalAddr(CRtInetAddr& aAddr) const;
    int GetRemoteAddr(CRtInetAddr& aAddr) const;

protected:
    CRtSocketBase() = default;
    ~CRtSocketBase() { Close(0); }

    // Shuts the sending side down.
    int CloseWriter();
    // Binds to aLocal; on failure closes the socket and keeps bind's errno.
    int Bind_i(const CRtInetAddr& aLocal);
    // aAddr's socket address, for the calls that report one.
    static sockaddr* SockAddrOf_i(CRtInetAddr& aAddr);
    // The result of a send: a would-block re-arms the reactor's write report.
    int SendResult_i(int aResult) const;
};

// A TCP socket.
class RT_API CRtSocketStream : public CRtSocketBase {
public:
    ~CRtSocketStream() { Close(0); }

    int Open(int aReuse);
    // Opens and binds to aLocal; -1 and the socket closed when binding fails
    // (errno EADDRINUSE for an address in use).
    int Open(int aReuse, const CRtInetAddr& aLocal);
    // Shuts the receiving side down.
    int CloseReader();
};

// A UDP socket; transfers name their peer.
class RT_API CRtSocketDgram : public CRtSocketBase {
public:
    ~CRtSocketDgram() { Close(0); }

    // Opens (never with address reuse) and binds to aLocal.
    int Open(const CRtInetAddr& aLocal);

    // aAddr receives the sender's socket address (not its host name).
    int RecvFrom(char* aBuf, unsigned long aLen, CRtInetAddr& aAddr, int aFlag) const;
    int SendTo(const char* aBuf, unsigned long aLen, const CRtInetAddr& aAddr, int aFlag) const;
    int SendVTo(const iovec* aIov, unsigned long aCount, const CRtInetAddr& aAddr) const;
};

#endif  // RTSOCKET_H
