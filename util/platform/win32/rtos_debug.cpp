// The debugger output on Windows: every line goes to OutputDebugStringA as
// well as to the host's sink and, if asked for, to standard error.
#include <io.h>
#include <string.h>
#include <windows.h>

#include "common/rtos_debug.h"

namespace rtos {

void DebuggerLine(const char* aLine) {
    ::OutputDebugStringA(aLine);
}

void StderrLine(const char* aLine) {
    ::_write(2, aLine, static_cast<unsigned>(::strlen(aLine)));
}

}  // namespace rtos
