// Loaded modules on POSIX: dl_iterate_phdr stands in for the module snapshot,
// and the shared library's constructor and destructor for DllMain.
#include <link.h>
#include <string.h>

#include "rtos.h"
#include "rtosfile.h"

namespace rtos {
namespace {

struct Walk {
    ModuleVisitor visit;
    void* arg;
    char exeName[4096];
};

int VisitOne(struct dl_phdr_info* aInfo, size_t aSize, void* aData) {
    (void)aSize;
    Walk* walk = static_cast<Walk*>(aData);
    // The main program comes first, with an empty name.
    const char* path = aInfo->dlpi_name && aInfo->dlpi_name[0] ? aInfo->dlpi_name : walk->exeName;
    const char* slash = ::strrchr(path, '/');
    ModuleInfo module = {slash ? slash + 1 : path, static_cast<uintptr_t>(aInfo->dlpi_addr)};
    return walk->visit(module, walk->arg) ? 0 : 1;
}

__attribute__((constructor)) void OnLibraryLoad() {
    ModuleEntry(kProcessAttach);
}

__attribute__((destructor)) void OnLibraryUnload() {
    ModuleEntry(kProcessDetach);
}

}  // namespace

bool ModuleForEach(ModuleVisitor aVisit, void* aArg) {
    if (!aVisit) {
        return false;
    }
    Walk walk = {aVisit, aArg, {}};
    GetExecutablePath(walk.exeName, sizeof(walk.exeName));
    ::dl_iterate_phdr(&VisitOne, &walk);
    return true;
}

}  // namespace rtos
