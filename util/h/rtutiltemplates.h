// Small building blocks shared across the library. Hosts may use
// CRtEnsureSingleThread to check an object's thread rules the way the library
// checks its own.
#ifndef RTUTILTEMPLATES_H
#define RTUTILTEMPLATES_H

#include <cstdint>

#include "rtdefines.h"

// Records the thread that owns an object and traces an assertion when another
// thread uses it. It never blocks or fails: a violation is reported, and the
// call goes on.
class RT_API CRtEnsureSingleThread {
public:
    CRtEnsureSingleThread();

    void EnsureSingleThread() const;
    void Reset2CurrentThreadId();
    void Reset2ThreadId(unsigned long aTid);

private:
    uint32_t m_ThreadIdOpen;
};

#endif  // RTUTILTEMPLATES_H
