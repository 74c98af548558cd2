// Files, folders, environment and process paths on POSIX: getcwd for the
// current directory, /proc/self/exe for the module file name, the XDG data
// folder for the shell's application data folder, opendir + fnmatch for the
// file search.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace

bool GetCurrentDir(char* aBuf, size_t aSize) {
    if (!aBuf || aSize == 0) {
        return false;
    }
    if (!::getcwd(aBuf, aSize)) {
        aBuf[0] = '\0';
        return false;
    }
    return true;
}

bool GetExecutablePath(char* aBuf, size_t aSize) {
    if (!aBuf || aSize == 0) {
        return false;
    }
    ssize_t n = ::readlink("/proc/self/exe", aBuf, aSize);
    // readlink neither terminates nor tells of a cut, so a full buffer is a cut.
    if (n <= 0 || static_cast<size_t>(n) >= aSize) {
        aBuf[0] = '\0';
        return false;
    }
    aBuf[n] = '\0';
    return true;
}

bool GetAppDataDir(char* aBuf, size_t aSize) {
    std::string dir;
    const char* xdg = ::getenv("XDG_DATA_HOME");
    if (xdg && *xdg) {
        dir = xdg;
    } else {
        const char* home = ::getenv("HOME");
        if (!home || !*home) {
            CopyOut("", 0, aBuf, aSize);
            return false;
        }
        dir = home;
        dir += "/.local/share";
    }
    // The shell's folder never ends in a separator; callers cut at the last one.
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return CopyOut(dir.data(), dir.size(), aBuf, aSize);
}

bool MakeDir(const char* aPath) {
    return aPath && ::mkdir(aPath, 0755) == 0;
}

bool RemoveFile(const char* aPath) {
    return aPath && ::unlink(aPath) == 0;
}

struct FileSearch {
    DIR* dir;
    std::string pattern;
};

FileSearch* FileSearchOpen(const char* aDir, const char* aPattern) {
    if (!aDir || !aPattern) {
        return nullptr;
    }
    DIR* dir = ::opendir(aDir);
    if (!dir) {
        return nullptr;
    }
    return new FileSearch{dir, aPattern};
}

bool FileSearchNext(FileSearch* aSearch, char* aName, size_t aSize) {
    if (!aSearch) {
        return false;
    }
    while (struct dirent* entry = ::readdir(aSearch->dir)) {
        const char* name = entry->d_name;
        if (::strcmp(name, ".") == 0 || ::strcmp(name, "..") == 0) {
            continue;
        }
        if (::fnmatch(aSearch->pattern.c_str(), name, 0) != 0) {
            continue;
        }
        if (CopyOut(name, ::strlen(name), aName, aSize)) {
            return true;
        }
    }
    return false;
}

void FileSearchClose(FileSearch* aSearch) {
    if (aSearch) {
        ::closedir(aSearch->dir);
        delete aSearch;
    }
}

std::FILE* FileOpenStream(const char* aPath, const char* aMode) {
    if (!aPath || !aMode) {
        return nullptr;
    }
    // POSIX streams have no text mode; "e" keeps the descriptor from exec'd programs.
    std::string mode;
    for (const char* p = aMode; *p; ++p) {
        if (*p != 't') {
            mode += *p;
        }
    }
    mode += 'e';
    return ::fopen(aPath, mode.c_str());
}

FileHandle FileCreate(const char* aPath) {
    if (!aPath) {
        return kInvalidFile;
    }
    int fd = ::open(aPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    return fd < 0 ? kInvalidFile : static_cast<FileHandle>(fd);
}

bool FileWriteAt(FileHandle aFile, uint64_t aOffset, const void* aData, size_t aLen) {
    if (aFile == kInvalidFile) {
        return false;
    }
    const char* p = static_cast<const char*>(aData);
    while (aLen > 0) {
        ssize_t n = ::pwrite(static_cast<int>(aFile), p, aLen, static_cast<off_t>(aOffset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        aLen -= static_cast<size_t>(n);
        aOffset += static_cast<uint64_t>(n);
    }
    return true;
}

void FileClose(FileHandle aFile) {
    if (aFile != kInvalidFile) {
        ::close(static_cast<int>(aFile));
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
    return (aValue ? ::setenv(aName, aValue, 1) : ::unsetenv(aName)) == 0;
}

}  // namespace rtos
