// COM initialisation on POSIX: there is no COM, so only the per-thread count
// that callers can observe is kept.
#include "rtoscom.h"

namespace rtos {
namespace {

thread_local unsigned t_comCount = 0;

}  // namespace

int CoInitialize() {
    return t_comCount++ == 0 ? 0 : 1;
}

void CoUninitialize() {
    if (t_comCount > 0) {
        --t_comCount;
    }
}

unsigned CoInitializeCount() {
    return t_comCount;
}

}  // namespace rtos
