// The default bodies of IRtEventHandler: each reports that a handler was called
// for something it does not handle.
#include "rtreactorinterface.h"

#include "rtdebug.h"

void* IRtEventHandler::GetHandle() const {
    RT_ASSERTE(!"IRtEventHandler::GetHandle()");
    return RtInvalidHandle();
}

int IRtEventHandler::OnInput(void* aFd) {
    (void)aFd;
    RT_ASSERTE(!"IRtEventHandler::OnInput()");
    return -1;
}

int IRtEventHandler::OnOutput(void* aFd) {
    (void)aFd;
    RT_ASSERTE(!"IRtEventHandler::OnOutput()");
    return -1;
}

int IRtEventHandler::OnException(void* aFd) {
    (void)aFd;
    RT_ASSERTE(!"IRtEventHandler::OnException()");
    return -1;
}

int IRtEventHandler::OnClose(void* aFd, MASK aMask) {
    (void)aFd;
    (void)aMask;
    RT_ASSERTE(!"IRtEventHandler::OnClose()");
    return -1;
}

IRtEventHandler::~IRtEventHandler() = default;
