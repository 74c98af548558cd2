// Window timers of the POSIX message pump. A timer is not queued: a due timer
// becomes a WM_TIMER when the thread next takes a message between batches, so
// at most one waits per timer, as on Windows. The timerfd, set to the earliest
// due time, only wakes the thread (and makes its queue descriptor readable).
#include <errno.h>
#include <sys/timerfd.h>
#include <time.h>

#include <algorithm>

#include "rtos_window_pump.h"

namespace rtos {
namespace pump {
namespace {

// Shorter intervals are raised to this, as Windows does.
constexpr uint32_t kMinimumMsec = 10;

}  // namespace

int64_t MonotonicNs() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

uintptr_t Pump::SetTimer(Window& aWnd, uintptr_t aId, uint32_t aMsec) {
    auto sameWindow = [&aWnd](const Timer& aT) { return aT.wnd == aWnd.id; };
    uintptr_t id = aId;
    if (id == 0) {
        // The smallest id the window does not use yet.
        id = 1;
        while (std::any_of(m_timers.begin(), m_timers.end(),
                           [&](const Timer& aT) { return sameWindow(aT) && aT.id == id; })) {
            ++id;
        }
    }
    const int64_t interval = static_cast<int64_t>(std::max(aMsec, kMinimumMsec)) * 1000000LL;
    auto it = std::find_if(m_timers.begin(), m_timers.end(),
                           [&](const Timer& aT) { return sameWindow(aT) && aT.id == id; });
    if (it == m_timers.end()) {
        m_timers.push_back(Timer{aWnd.id, id, 0, 0});
        it = m_timers.end() - 1;
    }
    it->intervalNs = interval;
    it->dueNs = MonotonicNs() + interval;
    ArmTimer();
    return id;
}

bool Pump::KillTimer(uintptr_t aWnd, uintptr_t aId) {
    auto it = std::find_if(m_timers.begin(), m_timers.end(),
                           [&](const Timer& aT) { return aT.wnd == aWnd && aT.id == aId; });
    if (it == m_timers.end()) {
        errno = EINVAL;
        return false;
    }
    m_timers.erase(it);
    ArmTimer();
    return true;
}

void Pump::DropTimers(uintptr_t aWnd) {
    m_timers.erase(std::remove_if(m_timers.begin(), m_timers.end(),
                                  [aWnd](const Timer& aT) { return aT.wnd == aWnd; }),
                   m_timers.end());
    ArmTimer();
}

bool Pump::TakeDueTimer(Message* aMsg) {
    if (m_timers.empty()) {
        return false;
    }
    auto earliest =
        std::min_element(m_timers.begin(), m_timers.end(),
                         [](const Timer& aA, const Timer& aB) { return aA.dueNs < aB.dueNs; });
    const int64_t now = MonotonicNs();
    if (earliest->dueNs > now) {
        return false;
    }
    *aMsg = Message{HandleOf(earliest->wnd), kWmTimer, earliest->id, 0};
    // Ticks missed while the thread was busy are not made up.
    earliest->dueNs += earliest->intervalNs;
    if (earliest->dueNs <= now) {
        earliest->dueNs = now + earliest->intervalNs;
    }
    ArmTimer();
    return true;
}

void Pump::ArmTimer() {
    int64_t due = 0;
    for (const Timer& t : m_timers) {
        if (due == 0 || t.dueNs < due) {
            due = t.dueNs;
        }
    }
    if (due == m_armedNs) {
        return;
    }
    itimerspec when{};  // all zero disarms
    when.it_value.tv_sec = static_cast<time_t>(due / 1000000000LL);
    when.it_value.tv_nsec = static_cast<long>(due % 1000000000LL);
    if (::timerfd_settime(m_timerFd, TFD_TIMER_ABSTIME, &when, nullptr) == 0) {
        m_armedNs = due;
    }
}

}  // namespace pump

using pump::Pump;

uintptr_t WindowSetTimer(WindowHandle aWnd, uintptr_t aId, uint32_t aMsec) {
    pump::Window* wnd = pump::OwnWindow(aWnd);
    return wnd ? Pump::Current()->SetTimer(*wnd, aId, aMsec) : 0;
}

bool WindowKillTimer(WindowHandle aWnd, uintptr_t aId) {
    pump::Window* wnd = pump::OwnWindow(aWnd);
    return wnd && Pump::Current()->KillTimer(wnd->id, aId);
}

}  // namespace rtos
