// The platform layer's stand-in for COM initialisation: a count per thread.
// The library's RtCoInitialize / RtCoUninitialize build on it; hosts never call
// it directly.
//
// Thread rules: every function acts on the calling thread's count only, so any
// thread may call them without a lock.
#ifndef RTOSCOM_H
#define RTOSCOM_H

#include "rtexport.h"

namespace rtos {

// 0 when this call initialised the thread; 1 when it was initialised already
// (the call still counts and needs its own CoUninitialize).
RT_API int CoInitialize();
// Balances one CoInitialize; does nothing on a thread that is not initialised.
RT_API void CoUninitialize();
// The calling thread's unbalanced CoInitialize calls (for checks and tests).
RT_API unsigned CoInitializeCount();

}  // namespace rtos

#endif  // RTOSCOM_H
