// Driving the main thread where the host has no message loop of its own.
//
// The main thread's reactor (TT_MAIN) is a window-message reactor: the events,
// timers and notifications of the main thread wait in that thread's message
// queue until someone dispatches them. On Windows the host's own message loop
// does; elsewhere the host calls one of these, on its main thread:
//   - RtRunMainLoop: dispatch until RtStopMainLoop (or the main reactor's
//     StopEventLoop) ends it;
//   - RtProcessMainLoopPending: dispatch what is waiting, without blocking;
//   - RtGetMainLoopFd: a descriptor that becomes readable when the main
//     thread has messages, to wait on inside another event loop (then call
//     RtProcessMainLoopPending).
// Each creates the thread manager if there is none, adopting the caller as the
// main thread. RtStopMainLoop may be called from any thread (it never creates
// the framework); like every reactor stop it is for good: the main thread's
// queue refuses later posts.
#ifndef RTMAINLOOP_H
#define RTMAINLOOP_H

#include "rtdefines.h"

// RT_ERROR_FAILURE off the main thread, RT_ERROR_NOT_INITIALIZED without a
// framework.
RT_API int RtRunMainLoop();
// Dispatches at most kRtMainLoopBatch messages, so that events that keep
// posting to the main thread cannot hold the caller; aDispatched (optional)
// receives how many ran.
RT_API int RtProcessMainLoopPending(unsigned long* aDispatched = nullptr);
constexpr unsigned long kRtMainLoopBatch = 1024;
// -1 off the main thread or without a framework. Owned by the library.
RT_API int RtGetMainLoopFd();
RT_API int RtStopMainLoop();

#endif  // RTMAINLOOP_H
