// The library's cheap wall clock, for the checks that run on every post and
// every event: the queue-length report (every 3 s) and the slow-event reports
// (above 100 ms). It is the clock CRtTimeValue::GetTimeOfDay reads, to within
// the scheduler's tick (a few milliseconds), in plain microseconds so that the
// checks are integer compares; a CRtTimeValue is built only for a report.
// Timers keep the full clock: their due times are kept to the microsecond.
//
// Any thread. Internal to the library.
#ifndef RTCLOCK_H
#define RTCLOCK_H

#include <cstdint>

#include "rtos.h"
#include "rttimevalue.h"

// Microseconds since 1970-01-01 UTC, to within a tick.
inline int64_t RtCoarseClockUsec() {
    return rtos::SystemTimeUsecCoarse();
}

inline int64_t RtToUsec(const CRtTimeValue& aTv) {
    return static_cast<int64_t>(aTv.GetSec()) * 1000000 + aTv.GetUsec();
}

inline CRtTimeValue RtFromUsec(int64_t aUsec) {
    return CRtTimeValue(static_cast<long>(aUsec / 1000000), static_cast<long>(aUsec % 1000000));
}

#endif  // RTCLOCK_H
