// Re-entrant locks: recursive pthread mutexes, standing in for critical sections.
#include "rtos.h"

namespace rtos {

void LockInit(LockStorage& aLock) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&aLock.mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

void LockDestroy(LockStorage& aLock) {
    pthread_mutex_destroy(&aLock.mutex);
}
void LockEnter(LockStorage& aLock) {
    pthread_mutex_lock(&aLock.mutex);
}
bool LockTryEnter(LockStorage& aLock) {
    return pthread_mutex_trylock(&aLock.mutex) == 0;
}
void LockLeave(LockStorage& aLock) {
    pthread_mutex_unlock(&aLock.mutex);
}

}  // namespace rtos
