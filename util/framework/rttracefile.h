// Trace files: CRtTraceFile, one log file written as a ring behind a header
// that tells where the newest text ends, and CRtTraceFileRegistry, the
// library's trace files found by name. Both are building blocks of the trace
// writer; hosts never use them (they are exported for the library's tests).
//
// Layout of a trace file:
//
//   "32" left-aligned in 31 spaces, "\n"   header: the write position (32 bytes)
//   lines ...                               collected, written FlushPerLines at a time
//   "***...*** Current Trace Point ***...***\n\n"   just after the newest line
//   older lines ...                         (once the file has wrapped)
//
// Each flush writes its lines at the stored position followed by the marker,
// then advances the position by the lines alone, so the next flush writes over
// the marker. When the position reaches the size limit the next lines go right
// after the header again, and the old marker is blanked, so there is always
// exactly one.
#ifndef RTTRACEFILE_H
#define RTTRACEFILE_H

#include <cstdint>
#include <vector>

#include "rtdefines.h"
#include "rtmutex.h"
#include "rtosfile.h"

// One trace file. Thread rules: any thread may call any operation; the file's
// own lock keeps the bytes of two lines from interleaving.
class RT_API CRtTraceFile {
public:
    static constexpr unsigned long kHeaderSize = 32;
    static constexpr long kDefaultMaxSize = 52428800;
    // FlushPerLines is held to this, so a configured count cannot exhaust memory.
    static constexpr int kMaxFlushPerLines = 10000;

    // Creates (or empties) the file and writes its header. A file that cannot
    // be created is not an error: its lines are dropped.
    CRtTraceFile(const char* aFileName, int aFlushPerLines, long aMaxSize);
    // Writes what is still collected, then closes the file.
    ~CRtTraceFile();

    const CRtString& GetFileName() const { return m_strFileName; }
    bool IsOpen() const { return m_hFile != rtos::kInvalidFile; }

    // Collects one finished line (newline included) and writes the collected
    // lines once FlushPerLines of them are there. A line that would overflow
    // the buffer is reported with an assertion trace, after the collected lines
    // are written; it is cut to the buffer's size.
    void WriteLine(const char* aLine, unsigned long aLen);
    // Writes the collected lines now.
    void Flush();

    // A count below 1 is taken as 1. Lines already collected are written first.
    void SetFlushPerLines(int aFlushPerLines);
    void SetMaxSize(long aMaxSize);
    int GetFlushPerLines();
    long GetMaxSize();

private:
    CRtTraceFile(const CRtTraceFile&) = delete;
    CRtTraceFile& operator=(const CRtTraceFile&) = delete;

    void Flush_l();
    void WriteHeader_l();
    void BlankOldMarker_l(long aWrittenEnd);
    void ResizeBuffer_l();

    CRtMutexThread m_Lock;
    const CRtString m_strFileName;
    const rtos::FileHandle m_hFile;
    // A forked child inherits the descriptor; only the creator writes to it.
    const uint32_t m_dwOwnerPid;
    int m_nFlushFreq;
    int m_nLines;
    long m_lMaxSize;
    long m_lWritePos;   // the header's value: where the next flush writes
    long m_lMarkerPos;  // where the marker stands, -1 before the first flush
    // m_nFlushFreq * RTTRACE_MAX_TRACE_LEN + 1 bytes for lines, then room for
    // the marker so that a flush is one write.
    std::vector<char> m_Buffer;
    unsigned long m_pos;  // bytes of m_Buffer collected
};

// The library's trace files, searched by file name. Created with the first
// writer (when the library is loaded); at unload it waits 200 ms for threads
// still tracing, then flushes and deletes every file.
//
// Thread rules: any thread; the registry's lock guards the list. The registry
// owns its files; writers hold plain pointers to them.
class RT_API CRtTraceFileRegistry {
public:
    // Null once the library is being unloaded.
    static CRtTraceFileRegistry* Instance();

    // The file registered under aFileName, created with the settings last
    // applied when there is none.
    CRtTraceFile* FindOrCreate(const char* aFileName);
    CRtTraceFile* Find(const char* aFileName);
    // Applies the lines per flush and the size limit to every file, and to
    // files created from now on.
    void ApplySettings(int aFlushPerLines, long aMaxSize);

private:
    CRtTraceFileRegistry() = default;
    ~CRtTraceFileRegistry();
    CRtTraceFileRegistry(const CRtTraceFileRegistry&) = delete;
    CRtTraceFileRegistry& operator=(const CRtTraceFileRegistry&) = delete;

    static void DestroyAtUnload();

    CRtMutexThreadRecursive m_Lock;
    std::vector<CRtTraceFile*> m_Files;
    int m_nFlushPerLines = 1;
    long m_lMaxSize = CRtTraceFile::kDefaultMaxSize;
};

#endif  // RTTRACEFILE_H
