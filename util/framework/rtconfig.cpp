// The configuration reader and the executable's names.
#include "rtconfig.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "rterror.h"
#include "rtmutex.h"
#include "rtosfile.h"

namespace {

const char kWhitespace[] = " \t\r\n";
// fgets reads at most this many characters; a longer line comes in pieces.
const int kLinePiece = 2047;
// Numeric values are read through a buffer of this size.
const unsigned long kNumberBuffer = 256;

bool IsSpace(char aChar) {
    return aChar != '\0' && ::strchr(kWhitespace, aChar) != nullptr;
}

// Narrows [aBegin, aEnd) to its text without surrounding whitespace.
void Trim(const char*& aBegin, const char*& aEnd) {
    while (aBegin < aEnd && IsSpace(*aBegin)) {
        ++aBegin;
    }
    while (aEnd > aBegin && IsSpace(aEnd[-1])) {
        --aEnd;
    }
}

bool EqualsNoCase(const char* aBegin, const char* aEnd, const char* aName) {
    for (; aBegin < aEnd; ++aBegin, ++aName) {
        if (*aName == '\0' || ::tolower(static_cast<unsigned char>(*aBegin)) !=
                                  ::tolower(static_cast<unsigned char>(*aName))) {
            return false;
        }
    }
    return *aName == '\0';
}

bool IsTrue(const char* aValue) {
    return EqualsNoCase(aValue, aValue + ::strlen(aValue), "TRUE");
}

// Builds "<cwd>/conf/kvtix.ini" (with the platform's separator) into aPath, or
// "/tmp/kvtix.ini" without a current directory. Local to each read, so readers on many threads
// share nothing.
void ConfigPath(char (&aPath)[1024]) {
    char dir[512];
    if (!rtos::GetCurrentDir(dir, sizeof(dir)) || dir[0] == '\0') {
        ::snprintf(aPath, sizeof(aPath), "/tmp/kvtix.ini");
        return;
    }
    size_t len = ::strlen(dir);
    const char* separator = dir[len - 1] == rtos::kPathSeparator ? "" : RTOS_PATH_SEPARATOR;
    ::snprintf(aPath, sizeof(aPath), "%s%sconf" RTOS_PATH_SEPARATOR "kvtix.ini", dir, separator);
}

// Scans the configuration file for aKey in the first section named aSection.
// On success copies the value (trimmed, quotes removed) into aValue.
bool FindValue(const char* aSection, const char* aKey, char (&aValue)[kLinePiece + 1]) {
    char path[1024];
    ConfigPath(path);
    std::FILE* file = rtos::FileOpenStream(path, "rt");
    if (!file) {
        return false;
    }
    bool inSection = false;
    bool found = false;
    char line[kLinePiece + 1];
    while (!found && ::fgets(line, sizeof(line), file)) {
        const char* begin = line;
        const char* end = line + ::strlen(line);
        Trim(begin, end);
        if (begin < end && *begin == '#') {
            continue;
        }
        const char* open = ::strchr(line, '[');
        const char* close = ::strchr(line, ']');
        if (open && close) {
            if (inSection) {
                break;  // the wanted section ended without the key
            }
            const char* nameBegin = open + 1;
            const char* nameEnd = close > open ? close : nameBegin;
            Trim(nameBegin, nameEnd);
            inSection = EqualsNoCase(nameBegin, nameEnd, aSection);
            continue;
        }
        const char* equals = ::strchr(line, '=');
        if (!inSection || !equals) {
            continue;
        }
        const char* keyBegin = line;
        const char* keyEnd = equals;
        Trim(keyBegin, keyEnd);
        if (!EqualsNoCase(keyBegin, keyEnd, aKey)) {
            continue;
        }
        const char* valueBegin = equals + 1;
        const char* valueEnd = line + ::strlen(line);
        Trim(valueBegin, valueEnd);
        if (valueEnd - valueBegin >= 2 && (*valueBegin == '"' || *valueBegin == '\'') &&
            valueEnd[-1] == *valueBegin) {
            ++valueBegin;
            --valueEnd;
            Trim(valueBegin, valueEnd);
        }
        size_t len = static_cast<size_t>(valueEnd - valueBegin);
        ::memcpy(aValue, valueBegin, len);
        aValue[len] = '\0';
        found = true;
    }
    ::fclose(file);
    return found;
}

// scanf's "%d" and "%u" without its undefined overflow: the digits are read
// as strtol and strtoul read them, and the result cut to the target's width.
bool ScanSigned(const char* aText, long& aOut) {
    char* end = nullptr;
    aOut = ::strtol(aText, &end, 10);
    return end != aText;
}

bool ScanUnsigned(const char* aText, unsigned long& aOut) {
    char* end = nullptr;
    aOut = ::strtoul(aText, &end, 10);
    return end != aText;
}

char g_szHomePath[512] = "KVTIX_RT_HOME";

CRtMutexThread& HomePathLock() {
    static CRtMutexThread s_lock;
    return s_lock;
}

void SetHomePath(const char* aPath, size_t aLen) {
    CRtMutexGuardT<CRtMutexThread> guard(HomePathLock());
    ::memcpy(g_szHomePath, aPath, aLen);
    g_szHomePath[aLen] = '\0';
}

}  // namespace

unsigned char get_string_param(const char* aSection, const char* aKey, char* aValue,
                               unsigned long aSize) {
    if (!aValue) {
        return 0;
    }
    if (aSize == 0) {
        return 0;  // no room even for the terminator
    }
    aValue[0] = '\0';
    char value[kLinePiece + 1];
    if (!aSection || !aKey || !FindValue(aSection, aKey, value)) {
        return 0;
    }
    size_t len = ::strlen(value);
    if (len > aSize - 1) {
        len = aSize - 1;
    }
    ::memcpy(aValue, value, len);
    aValue[len] = '\0';
    if (len == 0) {
        return 0;
    }
    if (aValue[len - 1] == ';') {
        aValue[len - 1] = '\0';
    }
    return 1;
}

int get_int_param(const char* aSection, const char* aKey) {
    char value[kNumberBuffer];
    long number = 0;
    if (!get_string_param(aSection, aKey, value, sizeof(value)) || !ScanSigned(value, number)) {
        return 0;
    }
    return static_cast<int>(number);
}

unsigned short get_uint16_param(const char* aSection, const char* aKey) {
    return static_cast<unsigned short>(get_int_param(aSection, aKey));
}

unsigned long get_uint32_param(const char* aSection, const char* aKey) {
    char value[kNumberBuffer];
    unsigned long number = 0;
    if (!get_string_param(aSection, aKey, value, sizeof(value)) || !ScanUnsigned(value, number)) {
        return 0;
    }
    return static_cast<unsigned int>(number);
}

unsigned char get_bool_param(const char* aSection, const char* aKey, unsigned char aDefault) {
    char value[kNumberBuffer];
    if (!get_string_param(aSection, aKey, value, sizeof(value))) {
        return aDefault;
    }
    return IsTrue(value) ? 1 : 0;
}

void init_config(const char* aPath) {
    if (aPath && ::strlen(aPath) < 511) {
        SetHomePath(aPath, ::strlen(aPath));
    }
}

void set_kvtix_home_env(const char* aPath) {
    if (aPath) {
        // The buffer keeps its terminator, so the text stops one short of it.
        SetHomePath(aPath, ::strnlen(aPath, sizeof(g_szHomePath) - 1));
    }
}

char* get_kvtix_home_dir() {
    static thread_local char t_szDir[512];
    rtos::GetCurrentDir(t_szDir, sizeof(t_szDir));
    return t_szDir;
}

const char* get_exec_name() {
    static char s_szExecPath[1026];
    // Filled once; the initialisation of a local static is thread-safe.
    static const char* const s_pExecPath = [] {
        rtos::GetExecutablePath(s_szExecPath, sizeof(s_szExecPath));
        return s_szExecPath;
    }();
    return s_pExecPath;
}

const char* get_process_name() {
    const char* path = get_exec_name();
    if (!path[0]) {
        return "defproc";
    }
    const char* slash = ::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// ---- CRtConfigInitFile ------------------------------------------------------------

int CRtConfigInitFile::InitWithFileName(const CRtString& /*aFileName*/) {
    return RT_OK;
}

CRtString CRtConfigInitFile::GetStringParam(const CRtString& aSection, const CRtString& aKey,
                                            CRtString aDefault) {
    char value[kNumberBuffer];
    if (!get_string_param(aSection.c_str(), aKey.c_str(), value, sizeof(value)) || !value[0]) {
        return aDefault;
    }
    return value;
}

namespace {

// Reads a key as a number; false when the key is missing or not a number.
template <class Number>
bool ReadNumber(const CRtString& aSection, const CRtString& aKey,
                bool (*aScan)(const char*, Number&), Number& aNumber) {
    char value[kNumberBuffer];
    return get_string_param(aSection.c_str(), aKey.c_str(), value, sizeof(value)) &&
           aScan(value, aNumber);
}

}  // namespace

int CRtConfigInitFile::GetIntParam(const CRtString& aSection, const CRtString& aKey, int aDefault) {
    long number = 0;
    return ReadNumber(aSection, aKey, ScanSigned, number) ? static_cast<int>(number) : aDefault;
}

unsigned long CRtConfigInitFile::GetDwordParam(const CRtString& aSection, const CRtString& aKey,
                                               unsigned long aDefault) {
    unsigned long number = 0;
    return ReadNumber(aSection, aKey, ScanUnsigned, number) ? static_cast<unsigned int>(number)
                                                            : aDefault;
}

unsigned short CRtConfigInitFile::GetWordParam(const CRtString& aSection, const CRtString& aKey,
                                               unsigned short aDefault) {
    unsigned long number = 0;
    return ReadNumber(aSection, aKey, ScanUnsigned, number) ? static_cast<unsigned short>(number)
                                                            : aDefault;
}

int CRtConfigInitFile::GetBoolParam(const CRtString& aSection, const CRtString& aKey,
                                    int aDefault) {
    char value[kNumberBuffer];
    if (!get_string_param(aSection.c_str(), aKey.c_str(), value, sizeof(value))) {
        return aDefault;
    }
    return IsTrue(value) ? 1 : 0;
}
