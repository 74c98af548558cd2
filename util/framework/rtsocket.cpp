#include "rtsocket.h"

#include <errno.h>

#include "rtdebug.h"
#include "rtos.h"
#include "rtossocket.h"
#include "rtoswindow.h"

namespace {

rtos::SocketHandle Sock(void* aHandle) {
    return reinterpret_cast<intptr_t>(aHandle);
}

const sockaddr* SockAddr(const CRtInetAddr& aAddr) {
    return reinterpret_cast<const sockaddr*>(aAddr.GetPtr());
}

// Runs a clean-up step without letting it replace the error being reported:
// the platform's last error and errno (one variable on POSIX, two on Windows).
template <class Step>
void KeepingLastError(Step aStep) {
    const int err = rtos::LastError();
    const int errnoValue = errno;
    aStep();
    errno = errnoValue;
    rtos::SetLastError(err);
}

}  // namespace

// ---- RT_IPC_SAP ---------------------------------------------------------------

void RT_IPC_SAP::SetHandle(void* aNew) {
    // Spelled out: the handle is a pointer, the invalid value an integer.
    if (m_Handle != RtInvalidHandle() && aNew != RtInvalidHandle()) {
        RT_ASSERT_TRACE_I("m_Handle == RT_INVALID_HANDLE || aNew == RT_INVALID_HANDLE");
    }
    m_Handle = aNew;
}

int RT_IPC_SAP::Enable(int aValue) const {
    if (aValue != NON_BLOCK) {
        RT_ERROR_TRACE("RT_IPC_SAP::Enable, aValue=" << aValue);
        return -1;
    }
    return rtos::SocketSetNonBlocking(Sock(m_Handle), true);
}

int RT_IPC_SAP::Disable(int aValue) const {
    if (aValue != NON_BLOCK) {
        RT_ERROR_TRACE("RT_IPC_SAP::Disable, aValue=" << aValue);
        return -1;
    }
    return rtos::SocketSetNonBlocking(Sock(m_Handle), false);
}

int RT_IPC_SAP::Control(int aCmd, void* aArg) const {
    return rtos::SocketIoctl(Sock(m_Handle), aCmd, aArg);
}

// ---- CRtSocketBase ------------------------------------------------------------

int CRtSocketBase::Open(int aFamily, int aType, int aProtocol, int aReuse) {
    int rv = -1;
    Close(0);
    m_Handle = reinterpret_cast<void*>(rtos::SocketCreate(aFamily, aType, aProtocol));
    if (m_Handle != RtInvalidHandle()) {
        rv = 0;
        if (aFamily != AF_UNIX && aReuse) {
            const int one = 1;
            rv = SetOption(SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        }
    }
    if (rv == -1) {
        KeepingLastError([this] { Close(0); });
    }
    return rv;
}

int CRtSocketBase::Close(int aReason) {
    if (m_Handle == RtInvalidHandle()) {
        return 0;
    }
    if (aReason == 0) {
        CloseWriter();
    }
    const int rv = rtos::SocketClose(Sock(m_Handle)) == 0 ? 0 : -1;
    m_Handle = RtInvalidHandle();
    return rv;
}

int CRtSocketBase::CloseWriter() {
    return rtos::SocketShutdown(Sock(m_Handle), rtos::kShutWrite);
}

int CRtSocketBase::SetOption(int aLevel, int aOption, const void* aOptVal, int aOptLen) const {
    return rtos::SocketSetOption(Sock(m_Handle), aLevel, aOption, aOptVal, aOptLen);
}

int CRtSocketBase::GetOption(int aLevel, int aOption, void* aOptVal, int* aOptLen) const {
    return rtos::SocketGetOption(Sock(m_Handle), aLevel, aOption, aOptVal, aOptLen);
}

int CRtSocketBase::Recv(char* aBuf, unsigned long aLen, int aFlag) const {
    RT_ASSERTE(aBuf);
    return rtos::SocketRecv(Sock(m_Handle), aBuf, aLen, aFlag);
}

int CRtSocketBase::Send(const char* aBuf, unsigned long aLen, int aFlag) const {
    RT_ASSERTE(aBuf);
    return SendResult_i(rtos::SocketSend(Sock(m_Handle), aBuf, aLen, aFlag));
}

int CRtSocketBase::RecvV(iovec* aIov, unsigned long aCount) const {
    RT_ASSERTE(aIov);
    return rtos::SocketRecvV(Sock(m_Handle), aIov, aCount);
}

int CRtSocketBase::SendV(const iovec* aIov, unsigned long aCount) const {
    RT_ASSERTE(aIov);
    return SendResult_i(rtos::SocketSendV(Sock(m_Handle), aIov, aCount));
}

int CRtSocketBase::GetLocalAddr(CRtInetAddr& aAddr) const {
    unsigned long len = aAddr.GetSize();
    return rtos::SocketGetName(Sock(m_Handle), SockAddrOf_i(aAddr), &len);
}

int CRtSocketBase::GetRemoteAddr(CRtInetAddr& aAddr) const {
    unsigned long len = aAddr.GetSize();
    return rtos::SocketGetPeerName(Sock(m_Handle), SockAddrOf_i(aAddr), &len);
}

sockaddr* CRtSocketBase::SockAddrOf_i(CRtInetAddr& aAddr) {
    return reinterpret_cast<sockaddr*>(&aAddr.m_SockAddr);
}

int CRtSocketBase::Bind_i(const CRtInetAddr& aLocal) {
    if (rtos::SocketBind(Sock(m_Handle), SockAddr(aLocal), aLocal.GetSize()) == -1) {
        KeepingLastError([this] { Close(0); });
        return -1;
    }
    return 0;
}

int CRtSocketBase::SendResult_i(int aResult) const {
    if (aResult == -1 && rtos::SocketErrorIsWouldBlock(rtos::LastError())) {
        KeepingLastError([this] { rtos::SocketSendWouldBlock(static_cast<int>(Sock(m_Handle))); });
    }
    return aResult;
}

// ---- CRtSocketStream ----------------------------------------------------------

int CRtSocketStream::Open(int aReuse) {
    return CRtSocketBase::Open(AF_INET, SOCK_STREAM, 0, aReuse);
}

int CRtSocketStream::Open(int aReuse, const CRtInetAddr& aLocal) {
    if (Open(aReuse) == -1) {
        return -1;
    }
    return Bind_i(aLocal);
}

int CRtSocketStream::CloseReader() {
    return rtos::SocketShutdown(Sock(m_Handle), rtos::kShutRead);
}

// ---- CRtSocketDgram -----------------------------------------------------------

int CRtSocketDgram::Open(const CRtInetAddr& aLocal) {
    if (CRtSocketBase::Open(AF_INET, SOCK_DGRAM, 0, 0) == -1) {
        return -1;
    }
    return Bind_i(aLocal);
}

int CRtSocketDgram::RecvFrom(char* aBuf, unsigned long aLen, CRtInetAddr& aAddr, int aFlag) const {
    RT_ASSERTE(aBuf);
    unsigned long len = aAddr.GetSize();
    return rtos::SocketRecvFrom(Sock(m_Handle), aBuf, aLen, aFlag, SockAddrOf_i(aAddr), &len);
}

int CRtSocketDgram::SendTo(const char* aBuf, unsigned long aLen, const CRtInetAddr& aAddr,
                           int aFlag) const {
    RT_ASSERTE(aBuf);
    return SendResult_i(
        rtos::SocketSendTo(Sock(m_Handle), aBuf, aLen, aFlag, SockAddr(aAddr), aAddr.GetSize()));
}

int CRtSocketDgram::SendVTo(const iovec* aIov, unsigned long aCount,
                            const CRtInetAddr& aAddr) const {
    RT_ASSERTE(aIov);
    return SendResult_i(
        rtos::SocketSendVTo(Sock(m_Handle), aIov, aCount, SockAddr(aAddr), aAddr.GetSize()));
}
