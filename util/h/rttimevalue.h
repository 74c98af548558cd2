// CRtTimeValue: the library's one representation of time, used both as an
// interval (delays, periods, wait limits) and as an absolute wall-clock time.
// A plain value: any thread may use its own copies freely.
#ifndef RTTIMEVALUE_H
#define RTTIMEVALUE_H

#include <cstdint>

#include "rtdefines.h"
#include "rtosdefs.h"  // timeval

// Signed seconds and microseconds, kept normalised: both parts have one sign,
// and the microseconds lie within -999,999 .. 999,999.
class RT_API CRtTimeValue {
public:
    constexpr CRtTimeValue() : m_lSec(0), m_lUsec(0) {}
    constexpr explicit CRtTimeValue(long aSec) : m_lSec(static_cast<int32_t>(aSec)), m_lUsec(0) {}
    // So that CRtTimeValue(3) is not ambiguous between the long and double forms.
    constexpr explicit CRtTimeValue(int aSec) : m_lSec(aSec), m_lUsec(0) {}
    constexpr CRtTimeValue(long aSec, long aUsec) : m_lSec(0), m_lUsec(0) { Set(aSec, aUsec); }
    explicit CRtTimeValue(const timeval& aTv) { Set(aTv); }
    explicit CRtTimeValue(double aSec) { Set(aSec); }

    constexpr void Set(long aSec, long aUsec) {
        m_lSec = static_cast<int32_t>(aSec);
        m_lUsec = static_cast<int32_t>(aUsec);
        Normalize();
    }
    void Set(const timeval& aTv) {
        Set(static_cast<long>(aTv.tv_sec), static_cast<long>(aTv.tv_usec));
    }
    void Set(double aSec);
    // No normalisation is needed: the quotient and remainder share the sign.
    void SetByTotalMsec(long aMsec) {
        m_lSec = static_cast<int32_t>(aMsec / 1000);
        m_lUsec = static_cast<int32_t>((aMsec - static_cast<long>(m_lSec) * 1000) * 1000);
    }

    constexpr long GetSec() const { return m_lSec; }
    constexpr long GetUsec() const { return m_lUsec; }
    constexpr int64_t GetTotalInMsec() const {
        return static_cast<int64_t>(m_lSec) * 1000 + m_lUsec / 1000;
    }

    CRtTimeValue& operator+=(const CRtTimeValue& aRight) {
        Set(static_cast<long>(m_lSec) + aRight.m_lSec, static_cast<long>(m_lUsec) + aRight.m_lUsec);
        return *this;
    }
    CRtTimeValue& operator-=(const CRtTimeValue& aRight) {
        Set(static_cast<long>(m_lSec) - aRight.m_lSec, static_cast<long>(m_lUsec) - aRight.m_lUsec);
        return *this;
    }

    // The wall-clock time since 1970-01-01 00:00:00 UTC.
    static CRtTimeValue GetTimeOfDay();

    static const CRtTimeValue s_tvZero;
    static const CRtTimeValue s_tvMax;  // 0x7FFFFFFF s 999,999 us: "never", "no limit"

private:
    // One second per pass, as the value's users expect small carries only.
    constexpr void Normalize() {
        if (m_lUsec >= 1000000) {
            do {
                ++m_lSec;
                m_lUsec -= 1000000;
            } while (m_lUsec >= 1000000);
        } else if (m_lUsec <= -1000000) {
            do {
                --m_lSec;
                m_lUsec += 1000000;
            } while (m_lUsec <= -1000000);
        }
        if (m_lSec >= 1 && m_lUsec < 0) {
            --m_lSec;
            m_lUsec += 1000000;
        } else if (m_lSec < 0 && m_lUsec > 0) {
            ++m_lSec;
            m_lUsec -= 1000000;
        }
    }

    int32_t m_lSec;
    int32_t m_lUsec;
};

constexpr CRtTimeValue operator+(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return CRtTimeValue(aLeft.GetSec() + aRight.GetSec(), aLeft.GetUsec() + aRight.GetUsec());
}
constexpr CRtTimeValue operator-(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return CRtTimeValue(aLeft.GetSec() - aRight.GetSec(), aLeft.GetUsec() - aRight.GetUsec());
}

constexpr int operator>(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return aLeft.GetSec() > aRight.GetSec() ||
           (aLeft.GetSec() == aRight.GetSec() && aLeft.GetUsec() > aRight.GetUsec());
}
constexpr int operator>=(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return aLeft.GetSec() > aRight.GetSec() ||
           (aLeft.GetSec() == aRight.GetSec() && aLeft.GetUsec() >= aRight.GetUsec());
}
constexpr int operator<(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return aRight > aLeft;
}
constexpr int operator<=(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return aRight >= aLeft;
}
constexpr int operator==(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return aLeft.GetSec() == aRight.GetSec() && aLeft.GetUsec() == aRight.GetUsec();
}
constexpr int operator!=(const CRtTimeValue& aLeft, const CRtTimeValue& aRight) {
    return !(aLeft == aRight);
}

// The system's millisecond tick count in the low 32 bits; the high 32 bits are
// 0 (the count wraps about every 49.7 days and is not carried).
RT_API uint64_t GetTickCountEx();

#endif  // RTTIMEVALUE_H
