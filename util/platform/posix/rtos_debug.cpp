// The debugger output on POSIX: nobody listens to OutputDebugString here, so a
// line goes only to the host's sink and, if asked for, to stderr.
#include <string.h>
#include <unistd.h>

#include "common/rtos_debug.h"

namespace rtos {

void DebuggerLine(const char*) {}

void StderrLine(const char* aLine) {
    size_t len = ::strlen(aLine);
    const char* p = aLine;
    while (len > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, len);
        if (n <= 0) {
            break;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
}

}  // namespace rtos
