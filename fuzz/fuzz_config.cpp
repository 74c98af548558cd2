// The configuration reader: any bytes as conf/kvtix.ini are read without a
// fault, and every value handed back fits the caller's buffer.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef _WIN32
#include <direct.h>
#include <io.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "rtconfig.h"

namespace {

// Lookups that the seed files and the reader's syntax make interesting.
const char* const kSections[] = {"Trace", "trace", "x", "", "Next"};
const char* const kKeys[] = {"Enable", "FlushPerLines", "Hidden", "A", "B", "Lone", "Open", "Num"};

void Check(bool aHolds) {
    if (!aHolds) {
        std::abort();
    }
}

char g_szDir[] = "/tmp/kvt_fuzz_config_XXXXXX";

void RemoveFolder() {
    ::unlink("conf/kvtix.ini");
    ::rmdir("conf");
    ::rmdir(g_szDir);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every read looks below the working directory, so the fuzzer works in a folder of its own.
#ifdef _WIN32
    if (!::_mktemp(g_szDir) || ::_mkdir(g_szDir) != 0 || ::_chdir(g_szDir) != 0) {
        std::abort();
    }
    ::_mkdir("conf");
#else
    if (!::mkdtemp(g_szDir) || ::chdir(g_szDir) != 0) {
        std::abort();
    }
    ::mkdir("conf", 0755);
#endif
    ::atexit(&RemoveFolder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    std::FILE* file = std::fopen("conf/kvtix.ini", "wb");
    if (!file) {
        return 0;
    }
    if (aSize > 0) {
        std::fwrite(aData, 1, aSize, file);
    }
    std::fclose(file);

    CRtConfigInitFile config;
    for (const char* section : kSections) {
        for (const char* key : kKeys) {
            // Small and odd sizes probe the cut; the canary byte must survive.
            for (unsigned long size : {1ul, 2ul, 7ul, 256ul}) {
                char value[257];
                value[size] = '\x5a';
                unsigned char found = get_string_param(section, key, value, size);
                Check(value[size] == '\x5a');
                Check(std::strlen(value) < size);
                Check(found == 0 || found == 1);
                Check(found == 1 || value[0] == '\0');
            }
            get_int_param(section, key);
            get_uint16_param(section, key);
            get_uint32_param(section, key);
            Check(get_bool_param(section, key, 7) <= 7);
            config.GetIntParam(section, key, -1);
            config.GetWordParam(section, key, 1);
            config.GetDwordParam(section, key, 1);
            config.GetBoolParam(section, key, 2);
            Check(config.GetStringParam(section, key, "").size() < 256);
        }
    }
    return 0;
}
