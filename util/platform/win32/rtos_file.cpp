// Files, folders, environment and process paths on Windows: the current
// directory, GetModuleFileNameA, the shell's application data folder and
// FindFirstFileA.
#include <fcntl.h>
#include <io.h>
#include <shlobj.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <string>

#include "rtosfile.h"

namespace rtos {
namespace {

bool CopyOut(const char* aText, size_t aLen, char* aBuf, size_t aSize) {
    if (!aBuf || aSize == 0) {
        return false;
    }
    if (aLen >= aSize) {
        aBuf[0] = '\0';
        return false;
    }
    ::memcpy(aBuf, aText, aLen);
    aBuf[aLen] = '\0';
    return true;
}

// A DWORD-sized call's result: the length written, 0 on failure, or at least
// aSize when it did not fit.
bool Fits(DWORD aLen, char* aBuf, size_t aSize) {
    if (aLen == 0 || aLen >= aSize) {
        aBuf[0] = '\0';
        return false;
    }
    return true;
}

DWORD Room(size_t aSize) {
    return aSize > MAXDWORD ? MAXDWORD : static_cast<DWORD>(aSize);
}

}  // namespace

bool GetCurrentDir(char* aBuf, size_t aSize) {
    if (!aBuf || aSize == 0) {
        return false;
    }
    return Fits(::GetCurrentDirectoryA(Room(aSize), aBuf), aBuf, aSize);
}

bool GetExecutablePath(char* aBuf, size_t aSize) {
    if (!aBuf || aSize == 0) {
        return false;
    }
    return Fits(::GetModuleFileNameA(nullptr, aBuf, Room(aSize)), aBuf, aSize);
}

bool GetAppDataDir(char* aBuf, size_t aSize) {
    char dir[MAX_PATH];
    if (!::SHGetSpecialFolderPathA(nullptr, dir, CSIDL_APPDATA, FALSE)) {
        CopyOut("", 0, aBuf, aSize);
        return false;
    }
    return CopyOut(dir, ::strlen(dir), aBuf, aSize);
}

bool MakeDir(const char* aPath) {
    return aPath && ::CreateDirectoryA(aPath, nullptr);
}

bool RemoveFile(const char* aPath) {
    return aPath && ::DeleteFileA(aPath);
}

struct FileSearch {
    HANDLE find;
    WIN32_FIND_DATAA data;
    bool haveData;  // data holds an entry not yet returned
};

FileSearch* FileSearchOpen(const char* aDir, const char* aPattern) {
    if (!aDir || !aPattern) {
        return nullptr;
    }
    std::string pattern = aDir;
    if (!pattern.empty() && pattern.back() != '\\' && pattern.back() != '/') {
        pattern += '\\';
    }
    pattern += aPattern;
    FileSearch* search = new FileSearch;
    search->find = ::FindFirstFileA(pattern.c_str(), &search->data);
    if (search->find == INVALID_HANDLE_VALUE) {
        // An empty folder is still a folder: no matches, but a search.
        if (::GetLastError() == ERROR_FILE_NOT_FOUND) {
            search->haveData = false;
            return search;
        }
        delete search;
        return nullptr;
    }
    search->haveData = true;
    return search;
}

bool FileSearchNext(FileSearch* aSearch, char* aName, size_t aSize) {
    if (!aSearch || aSearch->find == INVALID_HANDLE_VALUE) {
        return false;
    }
    for (;;) {
        if (!aSearch->haveData && !::FindNextFileA(aSearch->find, &aSearch->data)) {
            return false;
        }
        aSearch->haveData = false;
        const char* name = aSearch->data.cFileName;
        if (::strcmp(name, ".") == 0 || ::strcmp(name, "..") == 0) {
            continue;
        }
        if (CopyOut(name, ::strlen(name), aName, aSize)) {
            return true;
        }
    }
}

void FileSearchClose(FileSearch* aSearch) {
    if (aSearch) {
        if (aSearch->find != INVALID_HANDLE_VALUE) {
            ::FindClose(aSearch->find);
        }
        delete aSearch;
    }
}

std::FILE* FileOpenStream(const char* aPath, const char* aMode) {
    if (!aPath || !aMode) {
        return nullptr;
    }
    // "N": the handle is not inherited by programs the process starts.
    std::string mode = aMode;
    mode += 'N';
    return ::fopen(aPath, mode.c_str());
}

FileHandle FileCreate(const char* aPath) {
    if (!aPath) {
        return kInvalidFile;
    }
    // Others may read, and delete, the trace file while it is written.
    HANDLE file = ::CreateFileA(aPath, GENERIC_READ | GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return file == INVALID_HANDLE_VALUE ? kInvalidFile : reinterpret_cast<FileHandle>(file);
}

bool FileWriteAt(FileHandle aFile, uint64_t aOffset, const void* aData, size_t aLen) {
    if (aFile == kInvalidFile) {
        return false;
    }
    HANDLE file = reinterpret_cast<HANDLE>(aFile);
    const char* p = static_cast<const char*>(aData);
    while (aLen > 0) {
        OVERLAPPED at = {};
        at.Offset = static_cast<DWORD>(aOffset);
        at.OffsetHigh = static_cast<DWORD>(aOffset >> 32);
        DWORD written = 0;
        if (!::WriteFile(file, p, Room(aLen), &written, &at) || written == 0) {
            return false;
        }
        p += written;
        aLen -= written;
        aOffset += written;
    }
    return true;
}

void FileClose(FileHandle aFile) {
    if (aFile != kInvalidFile) {
        ::CloseHandle(reinterpret_cast<HANDLE>(aFile));
    }
}

bool GetEnv(const char* aName, char* aBuf, size_t aSize) {
    const char* value = aName ? ::getenv(aName) : nullptr;
    if (!value) {
        CopyOut("", 0, aBuf, aSize);
        return false;
    }
    return CopyOut(value, ::strlen(value), aBuf, aSize);
}

bool SetEnv(const char* aName, const char* aValue) {
    if (!aName || !*aName) {
        return false;
    }
    // The C library's copy, which getenv reads, and the process's own.
    if (::_putenv_s(aName, aValue ? aValue : "") != 0) {
        return false;
    }
    return ::SetEnvironmentVariableA(aName, aValue);
}

}  // namespace rtos
