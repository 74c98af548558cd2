// Time values.
#include "rttimevalue.h"

#include "rtos.h"

// Constant-initialised: usable by other libraries' static initialisers.
const CRtTimeValue CRtTimeValue::s_tvZero;
const CRtTimeValue CRtTimeValue::s_tvMax(0x7FFFFFFFL, 999999L);

void CRtTimeValue::Set(double aSec) {
    m_lSec = static_cast<int32_t>(aSec);
    m_lUsec = static_cast<int32_t>((aSec - m_lSec) * 1000000.0);
    Normalize();
}

CRtTimeValue CRtTimeValue::GetTimeOfDay() {
    const uint64_t kFileTimeTo1970 = 0x019DB1DED53E8000ull;  // 100 ns units, 1601 to 1970
    uint64_t units = rtos::SystemTimeAsFileTime() - kFileTimeTo1970;
    return CRtTimeValue(static_cast<long>(static_cast<int32_t>(units / 10000000u)),
                        static_cast<long>((units % 10000000u) / 10u));
}

uint64_t GetTickCountEx() {
    return rtos::TickCount();
}
