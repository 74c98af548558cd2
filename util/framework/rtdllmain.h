// The library's load-time trace of where it was loaded. Library-internal.
#ifndef RTDLLMAIN_H
#define RTDLLMAIN_H

// Traces the name and base address of the first loaded module whose file name
// contains aModuleName (case-insensitively). 1 when found, 0 otherwise (with
// a warning).
int TraceProcessModuleInfo(const char* aModuleName);

#endif  // RTDLLMAIN_H
