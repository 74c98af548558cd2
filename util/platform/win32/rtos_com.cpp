// COM initialisation on Windows: CoInitialize itself, with the count per thread
// that callers can observe kept beside it.
#include <objbase.h>

#include "rtoscom.h"

namespace rtos {
namespace {

thread_local unsigned t_comCount = 0;

}  // namespace

int CoInitialize() {
    HRESULT hr = ::CoInitialize(nullptr);
    if (FAILED(hr)) {
        return static_cast<int>(hr);
    }
    ++t_comCount;
    return hr == S_OK ? 0 : 1;  // S_FALSE: initialised already
}

void CoUninitialize() {
    if (t_comCount > 0) {
        --t_comCount;
        ::CoUninitialize();
    }
}

unsigned CoInitializeCount() {
    return t_comCount;
}

}  // namespace rtos
