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

class Semaphore : public KernelObject {
public:
    Semaphore(long aInitial, long aMaximum)
        : KernelObject(kSemaphore), m_count(aInitial), m_maximum(aMaximum) {}

    uint32_t Wait(uint32_t aMsec) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!WaitFor(lock, m_cond, aMsec, [this] { return m_count > 0; })) {
            return kWaitTimeout;
        }
        --m_count;
        return kWaitSignalled;
    }

    bool Release(long aCount) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (aCount < 1 || aCount > m_maximum - m_count) {
            errno = EINVAL;
            return false;
        }
        m_count += aCount;
        // Each count is taken by one waiter; a signal per count wakes enough of
        // them without waking every waiter for a single count.
        if (aCount == 1) {
            m_cond.notify_one();
        } else {
            m_cond.notify_all();
        }
        return true;
    }

private:
    std::condition_variable m_cond;
    long m_count;
    const long m_maximum;
};

// A waiter is released individually, so that two quick signals of an
// auto-reset event release two waiters (as the kernel does) instead of folding
// into one flag, and a pulse releases exactly the threads waiting at the time.
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
        Waiter self;
        Enqueue_l(&self);
        if (!WaitFor(lock, self.cond, aMsec, [&self] { return self.released; })) {
            Remove_l(&self);
            return kWaitTimeout;
        }
        return kWaitSignalled;
    }

    void Set() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_manual) {
            m_signalled = true;
            while (ReleaseOne_l()) {
            }
        } else if (!ReleaseOne_l()) {
            m_signalled = true;
        }
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = false;
    }

    void Pulse() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_signalled = false;
        if (m_manual) {
            while (ReleaseOne_l()) {
            }
        } else {
            ReleaseOne_l();
        }
    }

    long WaiterCount() {
        std::lock_guard<std::mutex> lock(m_mutex);
        long n = 0;
        for (Waiter* w = m_head; w; w = w->next) {
            ++n;
        }
        return n;
    }

private:
    // Lives on the waiting thread's stack while it is queued.
    struct Waiter {
        std::condition_variable cond;
        bool released = false;
        Waiter* next = nullptr;
    };

    void Enqueue_l(Waiter* aWaiter) {
        if (m_tail) {
            m_tail->next = aWaiter;
        } else {
            m_head = aWaiter;
        }
        m_tail = aWaiter;
    }

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

    // Notifies under the lock: the waiter may return and destroy its condition
    // variable as soon as the lock is free.
    bool ReleaseOne_l() {
        Waiter* w = m_head;
        if (!w) {
            return false;
        }
        m_head = w->next;
        if (!m_head) {
            m_tail = nullptr;
        }
        w->released = true;
        w->cond.notify_one();
        return true;
    }

    const bool m_manual;
    bool m_signalled;
    Waiter* m_head = nullptr;  // oldest waiter first
    Waiter* m_tail = nullptr;
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
