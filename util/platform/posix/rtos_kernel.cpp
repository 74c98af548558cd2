// Kernel objects on POSIX: semaphores, events and threads behind one handle
// type, each a mutex + condition variable, so that one HandleWait serves all.
#include <errno.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "rtos.h"

namespace rtos {
namespace {

class KernelObject {
public:
    virtual ~KernelObject() = default;

    uint32_t Wait(uint32_t aMsec) {
        std::unique_lock<std::mutex> lock(m_mutex);
        uint64_t ticket = BeginWait_l();
        auto ready = [&] { return IsSignalled_l(ticket); };
        bool ok = true;
        if (aMsec == kInfinite) {
            m_cond.wait(lock, ready);
        } else {
            ok = m_cond.wait_for(lock, std::chrono::milliseconds(aMsec), ready);
        }
        EndWait_l(ok, ticket);
        return ok ? kWaitSignalled : kWaitTimeout;
    }

    // Threads are also referenced by the running thread itself.
    virtual void Close() { delete this; }

protected:
    virtual uint64_t BeginWait_l() { return 0; }
    virtual bool IsSignalled_l(uint64_t aTicket) = 0;
    // Called once the wait is over; aSignalled tells whether it succeeded.
    virtual void EndWait_l(bool aSignalled, uint64_t aTicket) = 0;

    std::mutex m_mutex;
    std::condition_variable m_cond;
};

class Semaphore : public KernelObject {
public:
    Semaphore(long aInitial, long aMaximum) : m_count(aInitial), m_maximum(aMaximum) {}

    bool Release(long aCount) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (aCount < 1 || aCount > m_maximum - m_count) {
            errno = EINVAL;
            return false;
        }
        m_count += aCount;
        if (aCount == 1) {
            m_cond.notify_one();
        } else {
            m_cond.notify_all();
        }
        return true;
    }

protected:
    bool IsSignalled_l(uint64_t) override { return m_count > 0; }
    void EndWait_l(bool aSignalled, uint64_t) override {
        if (aSignalled) {
            --m_count;
        }
    }

private:
    long m_count;
    const long m_maximum;
};

// A waiter takes a ticket (the pulse generation at the start of its wait); a
// pulse releases the waiters whose ticket is older than the pulse.
class Event : public KernelObject {
public:
    Event(bool aManual, bool aInitial) : m_manual(aManual), m_signalled(aInitial) {}

    void Set() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = true;
        if (m_manual) {
            m_cond.notify_all();
        } else {
            m_cond.notify_one();
        }
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = false;
    }

    void Pulse() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = false;
        if (m_waiters == 0) {
            return;
        }
        ++m_pulseGeneration;
        // An auto-reset pulse releases one waiter; a manual one all of them.
        m_pulseReleases = m_manual ? m_waiters : 1;
        m_cond.notify_all();
    }

protected:
    uint64_t BeginWait_l() override {
        ++m_waiters;
        return m_pulseGeneration;
    }
    bool IsSignalled_l(uint64_t aTicket) override {
        return m_signalled || (aTicket < m_pulseGeneration && m_pulseReleases > 0);
    }
    void EndWait_l(bool aSignalled, uint64_t aTicket) override {
        --m_waiters;
        if (!aSignalled) {
            return;
        }
        if (m_signalled) {
            if (!m_manual) {
                m_signalled = false;
            }
        } else if (aTicket < m_pulseGeneration && m_pulseReleases > 0) {
            --m_pulseReleases;
        }
    }

private:
    const bool m_manual;
    bool m_signalled;
    long m_waiters = 0;
    uint64_t m_pulseGeneration = 0;
    long m_pulseReleases = 0;
};

// Signalled once the thread's procedure has returned. Owned jointly by the
// handle and the running thread; the last of the two deletes it.
class Thread : public KernelObject {
public:
    Thread(ThreadProc aProc, void* aArg) : m_proc(aProc), m_arg(aArg) {}

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
        m_cond.wait(lock, [&] { return m_started; });
        return m_tid;
    }

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

protected:
    bool IsSignalled_l(uint64_t) override { return m_ended; }
    void EndWait_l(bool, uint64_t) override {}

private:
    void Unref() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    ThreadProc m_proc;
    void* m_arg;
    uint32_t m_tid = 0;
    bool m_started = false;
    bool m_ended = false;
    bool m_detached = false;  // touched by the handle's holder only
    std::atomic<int> m_refs{2};
};

KernelObject* Object(Handle aHandle) { return static_cast<KernelObject*>(aHandle); }

template <class T>
T* As(Handle aHandle) {
    return dynamic_cast<T*>(Object(aHandle));
}

}  // namespace

Handle SemaphoreCreate(long aInitial, long aMaximum, const char*) {
    if (aMaximum < 1 || aInitial < 0 || aInitial > aMaximum) {
        errno = EINVAL;
        return nullptr;
    }
    return new (std::nothrow) Semaphore(aInitial, aMaximum);
}

bool SemaphoreRelease(Handle aSem, long aCount) {
    Semaphore* sem = As<Semaphore>(aSem);
    if (!sem) {
        errno = EINVAL;
        return false;
    }
    return sem->Release(aCount);
}

Handle EventCreate(bool aManualReset, bool aInitialState, const char*) {
    return new (std::nothrow) Event(aManualReset, aInitialState);
}

template <class F>
static bool WithEvent(Handle aEvent, F aDo) {
    Event* ev = As<Event>(aEvent);
    if (!ev) {
        errno = EINVAL;
        return false;
    }
    aDo(*ev);
    return true;
}

bool EventSet(Handle aEvent) {
    return WithEvent(aEvent, [](Event& e) { e.Set(); });
}
bool EventReset(Handle aEvent) {
    return WithEvent(aEvent, [](Event& e) { e.Reset(); });
}
bool EventPulse(Handle aEvent) {
    return WithEvent(aEvent, [](Event& e) { e.Pulse(); });
}

uint32_t HandleWait(Handle aHandle, uint32_t aMsec) {
    if (!aHandle) {
        errno = EINVAL;
        return kWaitFailed;
    }
    return Object(aHandle)->Wait(aMsec);
}

bool HandleClose(Handle aHandle) {
    if (!aHandle) {
        errno = EINVAL;
        return false;
    }
    Object(aHandle)->Close();
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
    Thread* t = As<Thread>(aThread);
    if (t) {
        t->Abandon();
    }
    errno = EBUSY;
    return false;
}

}  // namespace rtos
