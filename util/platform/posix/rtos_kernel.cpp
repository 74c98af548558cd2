// Kernel objects on POSIX: semaphores, events and threads behind one handle
// type, each guarded by a mutex, so that one HandleWait serves all.
#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "rtos.h"

namespace rtos {
namespace {

// Waits on aCond until aReady() holds or aMsec pass; returns aReady().
template <class Ready>
bool WaitFor(std::unique_lock<std::mutex>& aLock, std::condition_variable& aCond, uint32_t aMsec,
             Ready aReady) {
    if (aMsec == kInfinite) {
        aCond.wait(aLock, aReady);
        return true;
    }
    return aCond.wait_for(aLock, std::chrono::milliseconds(aMsec), aReady);
}

class KernelObject {
public:
    enum Kind { kSemaphore, kEvent, kThread };

    explicit KernelObject(Kind aKind) : m_kind(aKind) {}
    virtual ~KernelObject() = default;

    virtual uint32_t Wait(uint32_t aMsec) = 0;
    // Threads are also referenced by the running thread itself.
    virtual void Close() { delete this; }

    const Kind m_kind;

protected:
    std::mutex m_mutex;
};

// Sleeps while *aWord holds aValue, at most aTimeout (null: without limit);
// returns early on a wake-up, a signal or a spurious return, so callers loop.
void FutexWait(std::atomic<int>* aWord, int aValue, const timespec* aTimeout) {
    ::syscall(SYS_futex, reinterpret_cast<int*>(aWord), FUTEX_WAIT_PRIVATE, aValue, aTimeout,
              nullptr, 0);
}

void FutexWakeOne(std::atomic<int>* aWord) {
    ::syscall(SYS_futex, reinterpret_cast<int*>(aWord), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

int64_t MonotonicNs() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The threads blocked in a semaphore or an event, oldest first, guarded by
// the object's mutex. A waiter is released individually: taken off the queue
// under the lock (with whatever it waited for already handed to it), but woken
// after the lock is let go. It then runs straight on instead of waking into a
// lock still held by its signaller and sleeping once more, and the object may
// be closed as soon as the waiter returns: waking touches only the waiter.
class WaitQueue {
public:
    // Lives on the waiting thread's stack until it has been woken.
    struct Waiter {
        std::atomic<int> woken{0};
        bool released = false;  // under the lock: taken off the queue by a signaller
        Waiter* next = nullptr;
    };

    bool Empty_l() const { return !m_head; }

    void Enqueue_l(Waiter* aWaiter) {
        if (m_tail) {
            m_tail->next = aWaiter;
        } else {
            m_head = aWaiter;
        }
        m_tail = aWaiter;
    }

    // The oldest waiter, off the queue; null when none waits.
    Waiter* TakeOne_l() {
        Waiter* w = m_head;
        if (!w) {
            return nullptr;
        }
        m_head = w->next;
        if (!m_head) {
            m_tail = nullptr;
        }
        w->released = true;
        w->next = nullptr;
        return w;
    }

    Waiter* TakeAll_l() {
        Waiter* all = m_head;
        for (Waiter* w = all; w; w = w->next) {
            w->released = true;
        }
        m_head = m_tail = nullptr;
        return all;
    }

    long Count_l() const {
        long n = 0;
        for (Waiter* w = m_head; w; w = w->next) {
            ++n;
        }
        return n;
    }

    // Blocks the waiter that aLock's owner has just queued; aLock is held on
    // entry and let go here. kWaitSignalled once released, kWaitTimeout after
    // aMsec (the waiter is then off the queue, with nothing handed to it).
    uint32_t Sleep(Waiter& aSelf, std::unique_lock<std::mutex>& aLock, uint32_t aMsec) {
        aLock.unlock();
        const int64_t deadline =
            aMsec == kInfinite ? 0 : MonotonicNs() + static_cast<int64_t>(aMsec) * 1000000;
        while (aSelf.woken.load(std::memory_order_acquire) == 0) {
            if (aMsec == kInfinite) {
                FutexWait(&aSelf.woken, 0, nullptr);
                continue;
            }
            const int64_t left = deadline - MonotonicNs();
            if (left <= 0) {
                aLock.lock();
                const bool released = aSelf.released;
                if (!released) {
                    Remove_l(&aSelf);
                }
                aLock.unlock();
                if (!released) {
                    return kWaitTimeout;
                }
                // Released just now: the signaller still touches this waiter
                // until its wake-up, which is on its way.
                while (aSelf.woken.load(std::memory_order_acquire) == 0) {
                    FutexWait(&aSelf.woken, 0, nullptr);
                }
                break;
            }
            const timespec rel = {static_cast<time_t>(left / 1000000000),
                                  static_cast<long>(left % 1000000000)};
            FutexWait(&aSelf.woken, 0, &rel);
        }
        return kWaitSignalled;
    }

    // After the lock: a waiter may return (and its stack frame go) as soon as
    // it sees its word set, so each link is read first. A wake-up that comes
    // after the frame went finds no sleeper at that address, or a later waiter
    // there, which takes it as a spurious return and sleeps on.
    static void Wake(Waiter* aList) {
        while (aList) {
            Waiter* next = aList->next;
            aList->woken.store(1, std::memory_order_release);
            FutexWakeOne(&aList->woken);
            aList = next;
        }
    }

private:
    // Only a waiter that timed out leaves out of order; queues are short.
    void Remove_l(Waiter* aWaiter) {
        Waiter* prev = nullptr;
        for (Waiter* w = m_head; w; prev = w, w = w->next) {
            if (w != aWaiter) {
                continue;
            }
            (prev ? prev->next : m_head) = w->next;
            if (m_tail == w) {
                m_tail = prev;
            }
            return;
        }
    }

    Waiter* m_head = nullptr;
    Waiter* m_tail = nullptr;
};

// Counts are handed to waiters in the order they came.
class Semaphore : public KernelObject {
public:
    Semaphore(long aInitial, long aMaximum)
        : KernelObject(kSemaphore), m_count(aInitial), m_maximum(aMaximum) {}

    uint32_t Wait(uint32_t aMsec) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_count > 0) {
            --m_count;
            return kWaitSignalled;
        }
        if (aMsec == 0) {
            return kWaitTimeout;
        }
        WaitQueue::Waiter self;
        m_waiters.Enqueue_l(&self);
        return m_waiters.Sleep(self, lock, aMsec);
    }

    bool Release(long aCount) {
        WaitQueue::Waiter* released = nullptr;
        WaitQueue::Waiter** tail = &released;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (aCount < 1 || aCount > m_maximum - m_count) {
                errno = EINVAL;
                return false;
            }
            m_count += aCount;
            while (m_count > 0 && !m_waiters.Empty_l()) {
                --m_count;
                *tail = m_waiters.TakeOne_l();
                tail = &(*tail)->next;
            }
        }
        WaitQueue::Wake(released);
        return true;
    }

private:
    WaitQueue m_waiters;
    long m_count;
    const long m_maximum;
};

// An auto-reset event releases one waiter per signal (two quick signals
// release two, as the kernel does, instead of folding into one flag); a pulse
// releases exactly the threads waiting at the time.
class Event : public KernelObject {
public:
    Event(bool aManual, bool aInitial)
        : KernelObject(kEvent), m_manual(aManual), m_signalled(aInitial) {}

    uint32_t Wait(uint32_t aMsec) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_signalled) {
            m_signalled = m_manual;
            return kWaitSignalled;
        }
        if (aMsec == 0) {
            return kWaitTimeout;
        }
        WaitQueue::Waiter self;
        m_waiters.Enqueue_l(&self);
        return m_waiters.Sleep(self, lock, aMsec);
    }

    void Set() {
        WaitQueue::Waiter* released;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_manual) {
                m_signalled = true;
                released = m_waiters.TakeAll_l();
            } else if (!(released = m_waiters.TakeOne_l())) {
                m_signalled = true;
            }
        }
        WaitQueue::Wake(released);
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = false;
    }

    void Pulse() {
        WaitQueue::Waiter* released;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_signalled = false;
            released = m_manual ? m_waiters.TakeAll_l() : m_waiters.TakeOne_l();
        }
        WaitQueue::Wake(released);
    }

    long WaiterCount() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_waiters.Count_l();
    }

private:
    WaitQueue m_waiters;
    const bool m_manual;
    bool m_signalled;
};

// Signalled once the thread's procedure has returned. Owned jointly by the
// handle and the running thread; the last of the two deletes it.
class Thread : public KernelObject {
public:
    Thread(ThreadProc aProc, void* aArg) : KernelObject(kThread), m_proc(aProc), m_arg(aArg) {}

    static void* Run(void* aSelf) {
        Thread* self = static_cast<Thread*>(aSelf);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_tid = CurrentThreadId();
            self->m_started = true;
            self->m_cond.notify_all();
        }
        self->m_proc(self->m_arg);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_ended = true;
            self->m_cond.notify_all();
        }
        self->Unref();
        return nullptr;
    }

    uint32_t WaitStarted() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return m_started; });
        return m_tid;
    }

    uint32_t Wait(uint32_t aMsec) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        return WaitFor(lock, m_cond, aMsec, [this] { return m_ended; }) ? kWaitSignalled
                                                                        : kWaitTimeout;
    }

    // A thread that has ended is joined; one still running is detached and
    // deletes this object itself when it ends.
    void Close() override {
        bool ended;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ended = m_ended;
        }
        if (!m_detached) {
            if (ended) {
                pthread_join(m_thread, nullptr);
            } else {
                pthread_detach(m_thread);
            }
        }
        Unref();
    }

    void Abandon() {
        if (!m_detached) {
            m_detached = true;
            pthread_detach(m_thread);
        }
    }

    pthread_t m_thread{};

private:
    void Unref() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    std::condition_variable m_cond;
    ThreadProc m_proc;
    void* m_arg;
    uint32_t m_tid = 0;
    bool m_started = false;
    bool m_ended = false;
    bool m_detached = false;  // touched by the handle's holder only
    std::atomic<int> m_refs{2};
};

// The object behind aHandle if it is of kind T, else null with EINVAL.
template <class T>
T* As(Handle aHandle, KernelObject::Kind aKind) {
    KernelObject* obj = static_cast<KernelObject*>(aHandle);
    if (!obj || obj->m_kind != aKind) {
        errno = EINVAL;
        return nullptr;
    }
    return static_cast<T*>(obj);
}

}  // namespace

Handle SemaphoreCreate(long aInitial, long aMaximum, const char*) {
    if (aMaximum < 1 || aInitial < 0 || aInitial > aMaximum) {
        errno = EINVAL;
        return nullptr;
    }
    KernelObject* sem = new (std::nothrow) Semaphore(aInitial, aMaximum);
    if (!sem) {
        errno = ENOMEM;
    }
    return sem;
}

bool SemaphoreRelease(Handle aSem, long aCount) {
    Semaphore* sem = As<Semaphore>(aSem, KernelObject::kSemaphore);
    return sem && sem->Release(aCount);
}

Handle EventCreate(bool aManualReset, bool aInitialState, const char*) {
    KernelObject* ev = new (std::nothrow) Event(aManualReset, aInitialState);
    if (!ev) {
        errno = ENOMEM;
    }
    return ev;
}

bool EventSet(Handle aEvent) {
    Event* ev = As<Event>(aEvent, KernelObject::kEvent);
    if (ev) {
        ev->Set();
    }
    return ev != nullptr;
}

bool EventReset(Handle aEvent) {
    Event* ev = As<Event>(aEvent, KernelObject::kEvent);
    if (ev) {
        ev->Reset();
    }
    return ev != nullptr;
}

bool EventPulse(Handle aEvent) {
    Event* ev = As<Event>(aEvent, KernelObject::kEvent);
    if (ev) {
        ev->Pulse();
    }
    return ev != nullptr;
}

long EventWaiterCount(Handle aEvent) {
    Event* ev = As<Event>(aEvent, KernelObject::kEvent);
    return ev ? ev->WaiterCount() : -1;
}

uint32_t HandleWait(Handle aHandle, uint32_t aMsec) {
    if (!aHandle) {
        errno = EINVAL;
        return kWaitFailed;
    }
    return static_cast<KernelObject*>(aHandle)->Wait(aMsec);
}

bool HandleClose(Handle aHandle) {
    if (!aHandle) {
        errno = EINVAL;
        return false;
    }
    static_cast<KernelObject*>(aHandle)->Close();
    return true;
}

Handle ThreadCreate(ThreadProc aProc, void* aArg, uint32_t* aTid) {
    Thread* t = new (std::nothrow) Thread(aProc, aArg);
    if (!t) {
        errno = ENOMEM;
        return nullptr;
    }
    int err = pthread_create(&t->m_thread, nullptr, &Thread::Run, t);
    if (err != 0) {
        delete t;
        errno = err;
        return nullptr;
    }
    uint32_t tid = t->WaitStarted();
    if (aTid) {
        *aTid = tid;
    }
    return t;
}

bool ThreadAbandon(Handle aThread) {
    if (Thread* t = As<Thread>(aThread, KernelObject::kThread)) {
        t->Abandon();
        errno = EBUSY;
    }
    return false;
}

}  // namespace rtos
