// Re-entrant locks: critical sections.
#include "rtos.h"

namespace rtos {

void LockInit(LockStorage& aLock) {
    ::InitializeCriticalSection(&aLock.section);
}
void LockDestroy(LockStorage& aLock) {
    ::DeleteCriticalSection(&aLock.section);
}
void LockEnter(LockStorage& aLock) {
    ::EnterCriticalSection(&aLock.section);
}
bool LockTryEnter(LockStorage& aLock) {
    return ::TryEnterCriticalSection(&aLock.section) != 0;
}
void LockLeave(LockStorage& aLock) {
    ::LeaveCriticalSection(&aLock.section);
}

}  // namespace rtos
