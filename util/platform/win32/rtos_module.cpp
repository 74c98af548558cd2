// Loaded modules on Windows: the tool-help module snapshot, and DllMain as the
// library's entry point.
#include <windows.h>
// tlhelp32.h needs windows.h first.
#include <tlhelp32.h>

#include "rtos.h"

namespace rtos {

bool ModuleForEach(ModuleVisitor aVisit, void* aArg) {
    if (!aVisit) {
        return false;
    }
    HANDLE snap = ::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, ::GetCurrentProcessId());
    if (snap == INVALID_HANDLE_VALUE) {
        return false;
    }
    MODULEENTRY32 entry;
    entry.dwSize = sizeof(entry);
    // The snapshot lists the executable first.
    for (BOOL more = ::Module32First(snap, &entry); more; more = ::Module32Next(snap, &entry)) {
        ModuleInfo module = {entry.szModule, reinterpret_cast<uintptr_t>(entry.modBaseAddr)};
        if (!aVisit(module, aArg)) {
            break;
        }
    }
    ::CloseHandle(snap);
    return true;
}

}  // namespace rtos

extern "C" BOOL WINAPI DllMain(HINSTANCE aInstance, DWORD aReason, LPVOID aReserved) {
    (void)aInstance;
    (void)aReserved;
    rtos::ModuleEntry(aReason);
    return TRUE;
}
