// The library's entry point: at load it traces where it was loaded, at unload
// that it goes. It does no other work: threads and sockets start with the
// thread manager.
#include "rtdllmain.h"

#include <ctype.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "rtdebug.h"
#include "rtos.h"

namespace {

std::string ToLower(const char* aText) {
    std::string lower(aText);
    for (char& c : lower) {
        c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

struct ModuleSearch {
    std::string wanted;  // lower case
    bool anyModule;
    bool found;
};

bool TraceIfWanted(const rtos::ModuleInfo& aModule, void* aArg) {
    ModuleSearch* search = static_cast<ModuleSearch*>(aArg);
    search->anyModule = true;
    std::string name = ToLower(aModule.name);
    if (name.find(search->wanted) == std::string::npos) {
        return true;
    }
    char nameLine[256] = {};
    ::snprintf(nameLine, sizeof(nameLine), "Module Memory Info NAME:    %s \r\n", name.c_str());
    char baseLine[256] = {};
    ::snprintf(baseLine, sizeof(baseLine),
               "Module Memory Info base address   = 0x%08" PRIXPTR " \r\n\r\n", aModule.base);
    RT_INFO_TRACE("Module Memory Info *******************************************\r\n"
                  << nameLine << baseLine);
    search->found = true;
    return false;
}

}  // namespace

int TraceProcessModuleInfo(const char* aModuleName) {
    ModuleSearch search = {ToLower(aModuleName ? aModuleName : ""), false, false};
    if (!rtos::ModuleForEach(&TraceIfWanted, &search)) {
        RT_WARNING_TRACE("::TraceProcessModuleInfo, CreateToolhelp32Snapshot (of modules)");
        return 0;
    }
    if (!search.anyModule) {
        RT_WARNING_TRACE("::TraceProcessModuleInfo, Module32First Failed");
        return 0;
    }
    if (!search.found) {
        RT_WARNING_TRACE("::TraceProcessModuleInfo, module not found! name=" << aModuleName);
        return 0;
    }
    return 1;
}

int rtos::ModuleEntry(uint32_t aReason) {
    switch (aReason) {
        case rtos::kProcessAttach:
            RT_INFO_TRACE("kvtframework::DllMain, DLL_PROCESS_ATTACH");
            TraceProcessModuleInfo(rtos::kLibraryFileName);
            break;
        case rtos::kProcessDetach:
            RT_INFO_TRACE("kvtframework::DllMain, DLL_PROCESS_DETACH");
            break;
        case rtos::kThreadAttach:
        case rtos::kThreadDetach:
            break;
        default:
            RT_ASSERTE(FALSE);
            break;
    }
    return TRUE;
}
