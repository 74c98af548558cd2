// Socket handlers and the reactor interface. Hosts implement IRtEventHandler
// around their sockets and register it with a thread's reactor, which they get
// from CRtThreadManager::GetThreadReactor (usually TT_NETWORK).
//
// Thread rules of IRtReactor:
//   - any thread: PostEvent, SendEvent, GetPendingEventsCount, StopEventLoop,
//     and NotifyHandler with a null handler.
//   - the reactor's thread only: Open, RegisterHandler, RemoveHandler,
//     NotifyHandler with a handler, RunEventLoop, Close, ScheduleTimer and
//     CancelTimer. Every handler callback runs there too.
//
// Ownership: the reactor never owns or deletes a handler. A handler must be
// removed (or closed by the reactor, which tells it through OnClose) before it
// is destroyed; it may remove itself, or others, inside any of its callbacks.
#ifndef RTREACTORINTERFACE_H
#define RTREACTORINTERFACE_H

#include "rtdefines.h"
#include "rteventqueuebase.h"
#include "rttimerqueuebase.h"

// What a reactor calls back. Every default body traces an assertion and fails,
// so a handler overrides what it registers for.
class RT_API IRtEventHandler {
public:
    // Event masks. Registrations keep only the ALL_EVENTS_MASK bits; the rest
    // travel in removals, dispatches and notifications.
    enum {
        NULL_MASK = 0,
        ACCEPT_MASK = 0x01,       // a listening socket has a connection waiting
        CONNECT_MASK = 0x02,      // an outgoing connection completed
        READ_MASK = 0x04,         // data can be read
        WRITE_MASK = 0x08,        // data can be written
        ALL_EVENTS_MASK = 0x3F,   // 0x10 and 0x20 are accepted but never fire
        SHOULD_CALL = 0x40,       // a removal that calls OnClose
        CLOSE_MASK = 0x80,        // the handle closed or failed: remove it
        EVENTQUEUE_MASK = 0x100,  // the reactor's own event queue has events
    };
    typedef long MASK;

    virtual void* GetHandle() const;
    // OnInput and OnOutput: 0 keeps the registration, -2 means "would block",
    // anything else has the reactor remove the handle and call OnClose.
    // Readable, or a connection to accept.
    virtual int OnInput(void* aFd = RtInvalidHandle());
    // Writable, or the connection completed.
    virtual int OnOutput(void* aFd = RtInvalidHandle());
    // Never called by this library's reactors.
    virtual int OnException(void* aFd = RtInvalidHandle());
    // The handle has been removed after a close, an error or a failed callback;
    // aMask is the mask it was registered with. The result is ignored.
    virtual int OnClose(void* aFd, MASK aMask);

    virtual ~IRtEventHandler();
};

// A thread's event queue, timer queue and socket demultiplexer in one object.
class RT_API IRtReactor : public IRtEventQueue, public IRtTimerQueue {
public:
    virtual int Open() = 0;
    // aMask's event bits replace the handle's earlier ones. RT_OK for a new
    // handle, RT_ERROR_FOUND when a registration was replaced.
    virtual int RegisterHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) = 0;
    // Removes aMask's event bits; never calls OnClose. RT_ERROR_FOUND when the
    // handle stays registered with the bits that are left.
    virtual int RemoveHandler(IRtEventHandler* aEh,
                              IRtEventHandler::MASK aMask = IRtEventHandler::ALL_EVENTS_MASK) = 0;
    // Wakes the loop to dispatch aMask to aEh, or (aEh null, any thread) to
    // run the queued events.
    virtual int NotifyHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) = 0;
    virtual int RunEventLoop() = 0;
    // Any thread. Ends the loop and refuses every later post, for good.
    virtual int StopEventLoop() = 0;
    virtual int Close() = 0;
};

#endif  // RTREACTORINTERFACE_H
