// The platform layer's files, folders, environment and process paths: what the
// configuration reader, the trace settings and the trace file stand on.
//
// Thread rules: every function may be called from any thread, except that
// SetEnv must not race with another thread reading the environment (the C
// library's environment has no lock); call it before threads start.
#ifndef RTOSFILE_H
#define RTOSFILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "rtexport.h"
#include "rtosdefs.h"  // kPathSeparator, RTOS_PATH_SEPARATOR

namespace rtos {

// ---- Paths of the process ---------------------------------------------------
// Each fills aBuf (always zero-terminated when aSize > 0) and returns true, or
// leaves it empty and returns false, also when the text does not fit.

RT_API bool GetCurrentDir(char* aBuf, size_t aSize);
// The full path of the running executable.
RT_API bool GetExecutablePath(char* aBuf, size_t aSize);
// The per-user application data folder: $XDG_DATA_HOME, else
// $HOME/.local/share; trailing "/" removed (a bare "/" stays).
RT_API bool GetAppDataDir(char* aBuf, size_t aSize);

// ---- Folders and files --------------------------------------------------------

// Creates one directory (mode 0755); false when it exists or cannot be made.
RT_API bool MakeDir(const char* aPath);
RT_API bool RemoveFile(const char* aPath);

// Lists the names (not paths) in aDir that match the shell pattern aPattern
// ("*_Trace_*"), "." and ".." excepted, in no particular order.
//   FileSearch* s = FileSearchOpen(dir, "*_Trace_*");
//   while (s && FileSearchNext(s, name, sizeof(name))) { ... }
//   FileSearchClose(s);
struct FileSearch;
// Null when the directory cannot be read.
RT_API FileSearch* FileSearchOpen(const char* aDir, const char* aPattern);
// False at the end. A name longer than aSize - 1 is skipped.
RT_API bool FileSearchNext(FileSearch* aSearch, char* aName, size_t aSize);
RT_API void FileSearchClose(FileSearch* aSearch);  // null is fine

// Opens a stream with a C mode string, where "t" (text mode) may appear as on
// Windows. The descriptor is not inherited by programs the process starts.
// Null on failure; close with fclose.
RT_API std::FILE* FileOpenStream(const char* aPath, const char* aMode);

// A file for positioned writes. Created empty (or emptied) for reading and
// writing, mode 0644.
typedef intptr_t FileHandle;
constexpr FileHandle kInvalidFile = -1;
RT_API FileHandle FileCreate(const char* aPath);
// Writes all of aData at aOffset; false when not all of it could be written.
RT_API bool FileWriteAt(FileHandle aFile, uint64_t aOffset, const void* aData, size_t aLen);
RT_API void FileClose(FileHandle aFile);

// ---- Environment --------------------------------------------------------------

// False, with aBuf empty, when the variable is unset or does not fit.
RT_API bool GetEnv(const char* aName, char* aBuf, size_t aSize);
// Sets aName to aValue, or removes it when aValue is null.
RT_API bool SetEnv(const char* aName, const char* aValue);

}  // namespace rtos

#endif  // RTOSFILE_H
