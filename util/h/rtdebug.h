// The trace macros and assertions used throughout the library and by hosts.
//
//   RT_INFO_TRACE("CRtFoo::Bar, opened. fd=" << fd << " this=" << this);
//   RT_ASSERTE_RETURN(aEvent, RT_ERROR_INVALID_ARG);
//
// Each macro is one statement. The message is a chain of operands joined by
// "<<", built on the caller's stack; a trace never allocates and never fails.
// An assertion traces "<file>:<line> Assert failed: <expr>" at level 0 and
// then continues (RT_ASSERTE) or returns the given result (RT_ASSERTE_RETURN);
// no assertion stops the process.
//
// Thread rules: any thread, at any time, also before the framework starts.
#ifndef RTDEBUG_H
#define RTDEBUG_H

#include "rterror.h"
#include "rttrace.h"

#define RT_TRACE_LEVEL_ERROR 0
#define RT_TRACE_LEVEL_WARNING 10
#define RT_TRACE_LEVEL_INFO 20

#define RT_TRACE_WITH(writer, level, str)                                             \
    do {                                                                              \
        char rt_trace_buf_[RTTRACE_MAX_TRACE_LEN];                                    \
        CRtTrace::CRtLogRecorder rt_trace_rec_(rt_trace_buf_, RTTRACE_MAX_TRACE_LEN); \
        (writer)->trace_string((level), static_cast<char*>(rt_trace_rec_ << str));    \
    } while (0)

// Traces at any level of the main writer's table (0 to 25).
#define RT_TRACE_AT(level, str) RT_TRACE_WITH(CRtTrace::instance(), level, str)

#define RT_ERROR_TRACE(str) RT_TRACE_AT(RT_TRACE_LEVEL_ERROR, str)
#define RT_WARNING_TRACE(str) RT_TRACE_AT(RT_TRACE_LEVEL_WARNING, str)
#define RT_INFO_TRACE(str) RT_TRACE_AT(RT_TRACE_LEVEL_INFO, str)

// Traces to the diagnose writer (its one level, 0).
#define RT_DIAGNOSE_TRACE(str) RT_TRACE_WITH(CRtTrace::DiagonseInstance(), 0, str)

#define RT_ASSERT_TRACE_I(expr_text) \
    RT_ERROR_TRACE(__FILE__ << ":" << __LINE__ << " Assert failed: " << expr_text)

#define RT_ASSERTE(expr)              \
    do {                              \
        if (!(expr)) {                \
            RT_ASSERT_TRACE_I(#expr); \
        }                             \
    } while (0)

#define RT_ASSERTE_RETURN(expr, rv)   \
    do {                              \
        if (!(expr)) {                \
            RT_ASSERT_TRACE_I(#expr); \
            return rv;                \
        }                             \
    } while (0)

// For operations that return nothing.
#define RT_ASSERTE_RETURN_VOID(expr)  \
    do {                              \
        if (!(expr)) {                \
            RT_ASSERT_TRACE_I(#expr); \
            return;                   \
        }                             \
    } while (0)

#endif  // RTDEBUG_H
