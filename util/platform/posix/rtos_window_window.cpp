// Window classes and windows of the POSIX message pump: registration by name,
// hidden windows owned by their creating thread, their pointer slots and their
// destruction.
#include <errno.h>

#include <new>

#include "rtos_window_pump.h"

namespace rtos {
namespace pump {
namespace {

// Runs aDo on the window's slot for aIndex, found without a lock on the owner
// thread and under the registry's lock elsewhere.
template <class F>
intptr_t WithSlot(WindowHandle aWnd, int aIndex, F aDo) {
    if (aIndex < 0 || aIndex % static_cast<int>(sizeof(intptr_t)) != 0) {
        errno = EINVAL;
        return 0;
    }
    const int slot = aIndex / static_cast<int>(sizeof(intptr_t));
    auto use = [&](Window& aW) -> intptr_t {
        if (slot >= aW.slotCount) {
            errno = EINVAL;
            return 0;
        }
        return aDo(aW.slots[slot]);
    };
    Pump* pump = Pump::Current();
    if (Window* wnd = pump ? pump->FindWindow(IdOf(aWnd)) : nullptr) {
        return use(*wnd);
    }
    Registry& reg = Registry::Get();
    std::shared_lock<std::shared_mutex> lock(reg.lock);
    auto it = reg.windows.find(IdOf(aWnd));
    if (it == reg.windows.end()) {
        errno = EBADF;
        return 0;
    }
    return use(*it->second);
}

}  // namespace

Window* OwnWindow(WindowHandle aWnd) {
    Pump* pump = Pump::Current();
    Window* wnd = pump ? pump->FindWindow(IdOf(aWnd)) : nullptr;
    if (wnd) {
        return wnd;
    }
    Registry& reg = Registry::Get();
    std::shared_lock<std::shared_mutex> lock(reg.lock);
    errno = reg.windows.count(IdOf(aWnd)) ? EPERM : EBADF;
    return nullptr;
}

void ClassWindowGone(const std::string& aClass) {
    Registry& reg = Registry::Get();
    std::lock_guard<std::mutex> lock(reg.classLock);
    auto it = reg.classes.find(aClass);
    if (it != reg.classes.end()) {
        --it->second.windows;
    }
}

void Pump::AddWindow(std::unique_ptr<Window> aWnd) {
    const uintptr_t id = aWnd->id;
    m_windows.emplace(id, std::move(aWnd));
}

void Pump::DestroyWindow(Window& aWnd) {
    aWnd.destroying = true;
    const uintptr_t id = aWnd.id;
    Dispatch(aWnd, Message{HandleOf(id), kWmDestroy, 0, 0});
    {
        Registry& reg = Registry::Get();
        std::unique_lock<std::shared_mutex> lock(reg.lock);
        reg.windows.erase(id);
    }
    // Nothing can reach the window now; clear out what it left behind.
    DropTimers(id);
    DropSockets(id);
    PurgeWindow(id);
    ClassWindowGone(aWnd.className);
    m_windows.erase(id);
}

}  // namespace pump

using pump::Pump;
using pump::Registry;
using pump::Window;

uint16_t WindowClassRegister(const char* aName, WindowProc aProc, int aWndExtra) {
    if (!aName || !aProc || aWndExtra < 0) {
        errno = EINVAL;
        return 0;
    }
    Registry& reg = Registry::Get();
    std::lock_guard<std::mutex> lock(reg.classLock);
    pump::WindowClass cls;
    cls.proc = aProc;
    cls.slots = static_cast<int>((static_cast<size_t>(aWndExtra) + sizeof(intptr_t) - 1) /
                                 sizeof(intptr_t));
    if (reg.classes.count(aName) != 0) {
        errno = EEXIST;
        return 0;
    }
    // Atoms run from 0xC000 as on Windows; a freed atom is not reused.
    if (reg.nextAtom == 0) {
        errno = ENOSPC;
        return 0;
    }
    cls.atom = reg.nextAtom++;
    reg.classes.emplace(aName, cls);
    return cls.atom;
}

bool WindowClassUnregister(const char* aName) {
    if (!aName) {
        errno = EINVAL;
        return false;
    }
    Registry& reg = Registry::Get();
    std::lock_guard<std::mutex> lock(reg.classLock);
    auto it = reg.classes.find(aName);
    if (it == reg.classes.end()) {
        errno = ENOENT;
        return false;
    }
    if (it->second.windows > 0) {
        errno = EBUSY;
        return false;
    }
    reg.classes.erase(it);
    return true;
}

WindowHandle WindowCreate(const char* aClassName) {
    if (!aClassName) {
        errno = EINVAL;
        return nullptr;
    }
    Pump* pump = Pump::Ensure();
    if (!pump) {
        return nullptr;
    }
    std::unique_ptr<Window> wnd(new (std::nothrow) Window());
    if (!wnd) {
        errno = ENOMEM;
        return nullptr;
    }
    Registry& reg = Registry::Get();
    {
        std::lock_guard<std::mutex> lock(reg.classLock);
        auto it = reg.classes.find(aClassName);
        if (it == reg.classes.end()) {
            errno = ENOENT;
            return nullptr;
        }
        ++it->second.windows;
        wnd->proc = it->second.proc;
        wnd->slotCount = it->second.slots;
    }
    wnd->className = aClassName;
    wnd->pump = pump;
    wnd->slots.reset(new std::atomic<intptr_t>[wnd->slotCount > 0 ? wnd->slotCount : 1]);
    for (int i = 0; i < wnd->slotCount; ++i) {
        wnd->slots[i].store(0, std::memory_order_relaxed);
    }
    {
        std::unique_lock<std::shared_mutex> lock(reg.lock);
        wnd->id = reg.nextId++;
        reg.windows.emplace(wnd->id, wnd.get());
    }
    const WindowHandle handle = pump::HandleOf(wnd->id);
    pump->AddWindow(std::move(wnd));
    return handle;
}

bool WindowDestroy(WindowHandle aWnd) {
    Window* wnd = pump::OwnWindow(aWnd);
    if (!wnd) {
        return false;
    }
    if (wnd->destroying) {
        errno = EBADF;
        return false;
    }
    Pump::Current()->DestroyWindow(*wnd);
    return true;
}

intptr_t WindowSetLong(WindowHandle aWnd, int aIndex, intptr_t aValue) {
    return pump::WithSlot(aWnd, aIndex, [aValue](std::atomic<intptr_t>& aSlot) {
        return aSlot.exchange(aValue, std::memory_order_acq_rel);
    });
}

intptr_t WindowGetLong(WindowHandle aWnd, int aIndex) {
    return pump::WithSlot(aWnd, aIndex, [](std::atomic<intptr_t>& aSlot) {
        return aSlot.load(std::memory_order_acquire);
    });
}

intptr_t WindowDefProc(WindowHandle, uint32_t, uintptr_t, intptr_t) {
    return 0;
}

}  // namespace rtos
