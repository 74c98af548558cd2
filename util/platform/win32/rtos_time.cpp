// Identity, clocks and sleeping on Windows.
#include <time.h>
#include <windows.h>

#include "rtos.h"

namespace rtos {

uint32_t CurrentThreadId() {
    return ::GetCurrentThreadId();
}

uint32_t CurrentProcessId() {
    return ::GetCurrentProcessId();
}

uint32_t TickCount() {
    return ::GetTickCount();
}

uint64_t SystemTimeAsFileTime() {
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    return static_cast<uint64_t>(ft.dwHighDateTime) << 32 | ft.dwLowDateTime;
}

int64_t SystemTimeUsecCoarse() {
    const uint64_t kEpochDelta = 116444736000000000ull;  // 1601-01-01 to 1970-01-01
    return static_cast<int64_t>((SystemTimeAsFileTime() - kEpochDelta) / 10u);
}

void SleepMs(uint32_t aMsec) {
    ::Sleep(aMsec);
}

void LocalCalendarTime(int64_t aSeconds, CalendarTime& aOut) {
    __time64_t t = aSeconds;
    struct tm tmv;
    if (::_localtime64_s(&tmv, &t) != 0) {
        aOut = CalendarTime{1970, 1, 1, 0, 0, 0};
        return;
    }
    aOut.year = tmv.tm_year + 1900;
    aOut.month = tmv.tm_mon + 1;
    aOut.day = tmv.tm_mday;
    aOut.hour = tmv.tm_hour;
    aOut.minute = tmv.tm_min;
    aOut.second = tmv.tm_sec;
}

bool GetOsVersion(OsVersion& aOut) {
    aOut = OsVersion{kPlatformNt, 0, 0};
    OSVERSIONINFOA info;
    info.dwOSVersionInfoSize = sizeof(info);
    // Deprecated for its lies about newer systems, but those lies never say
    // Windows 95 or 98, which is all the answer decides.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (!::GetVersionExA(&info)) {
        return false;
    }
#pragma GCC diagnostic pop
    aOut.platformId =
        info.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS ? kPlatformWin9x : kPlatformNt;
    aOut.major = info.dwMajorVersion;
    aOut.minor = info.dwMinorVersion;
    return true;
}

int LastError() {
    return static_cast<int>(::GetLastError());
}
void SetLastError(int aErr) {
    ::SetLastError(static_cast<DWORD>(aErr));
}

}  // namespace rtos
