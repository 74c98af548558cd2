// Object creation that never throws. new (std::nothrow) covers only the
// object's own memory: a member that allocates in its constructor (an event
// queue's deque, a long string) still throws std::bad_alloc, and no exception
// may reach a host. Library-internal.
#ifndef RTNOTHROW_H
#define RTNOTHROW_H

#include <new>
#include <utility>

// The new object, or null when memory ran out.
template <class T, class... Args>
T* RtNewNoThrow(Args&&... aArgs) {
    try {
        return new T(std::forward<Args>(aArgs)...);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

#endif  // RTNOTHROW_H
