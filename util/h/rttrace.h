// The trace facility: CRtTrace (the writer that stamps and sends each line) and
// CRtTrace::CRtLogRecorder (the text builder behind every trace macro). Hosts
// trace through the macros of rtdebug.h and may install a sink for the lines.
//
// Thread rules: trace_string and the recorder may be used on any thread at any
// time; trace_string takes no lock of the writer (the trace file takes its own
// so that lines never interleave). load and read_config take the writer's lock.
#ifndef RTTRACE_H
#define RTTRACE_H

#include <atomic>
#include <cstdint>

#include "rtdefines.h"
#include "rtmutex.h"

#define RTTRACE_MAX_TRACE_LEN 1024

class CRtTraceFile;

// One entry of a writer's level table; the tables are static and the trace
// settings change their flags in place.
struct CRtTraceMask {
    int level;
    const char* name;
    unsigned char enabled;
};

class RT_API CRtTrace {
public:
    enum Ordix { hex = 0, dec = 1 };

    // Appends the text of strings and numbers to a buffer the caller owns. It
    // never allocates and never writes into the last 64 bytes, so the text is
    // always zero-terminated; what does not fit is cut. The capacity must be at
    // least 64 bytes.
    class RT_API CRtLogRecorder {
    public:
        CRtLogRecorder(char* aBuf, unsigned long aSize);
        CRtLogRecorder(const CRtLogRecorder&) = default;
        CRtLogRecorder& operator=(const CRtLogRecorder&) = default;
        virtual ~CRtLogRecorder() = default;

        void reset();
        operator char*() { return m_pBuf; }

        CRtLogRecorder& operator<<(char aValue);
        CRtLogRecorder& operator<<(unsigned char aValue);
        CRtLogRecorder& operator<<(short aValue);
        CRtLogRecorder& operator<<(unsigned short aValue);
        CRtLogRecorder& operator<<(int aValue);
        CRtLogRecorder& operator<<(unsigned int aValue);
        CRtLogRecorder& operator<<(long aValue);
        CRtLogRecorder& operator<<(unsigned long aValue);
        CRtLogRecorder& operator<<(long long aValue);
        CRtLogRecorder& operator<<(unsigned long long aValue);
        CRtLogRecorder& operator<<(float aValue);
        CRtLogRecorder& operator<<(double aValue);
        CRtLogRecorder& operator<<(const char* aValue);
        CRtLogRecorder& operator<<(const CRtString& aValue);
        CRtLogRecorder& operator<<(const void* aValue);  // "0x" and lowercase hex
        CRtLogRecorder& operator<<(Ordix aValue);

    private:
        void set_hex_flag(unsigned char aFlag) { m_bHex = aFlag; }
        unsigned char get_hex_flag() const { return m_bHex; }
        void advance(const char* aText);
        void advance(const char* aText, unsigned long aLen);

        char* m_pBuf;
        unsigned long m_dwCapacity;
        unsigned long m_dwPos;
        unsigned char m_bHex;
    };

    // The main writer ("Log", 26 levels), created on first use.
    static CRtTrace* instance();
    // The diagnose writer (one level, "Diagnose"), created on first use.
    static CRtTrace* DiagonseInstance();
    // Deletes both writers; registered to run when the library is unloaded.
    static void Destroy();

    CRtTrace(char* aWriterName, CRtTraceMask* const aMasks, unsigned long aMaskCount,
             char* aFixedFileName, unsigned char aExactName);
    virtual ~CRtTrace();

    // Stamps aText with the local time, process and thread ids and the level's
    // name, and sends the line to the debugger output. Never fails; no level is
    // filtered there. The line also goes to the writer's trace file when the
    // "Enable" setting and the level's enabled flag allow it. aLevel must be
    // below the writer's table size.
    void trace_string(unsigned long aLevel, char* aText);
    const char* getfilename() { return m_szFileName; }

    // Works out the trace directory and file name, creates the directory, and
    // reads the settings. A writer without a fixed file name (the main one)
    // also gets its trace file from the library's file registry. Returns 1.
    unsigned char load(void* aArg);
    // Reads section "Trace" of the configuration file: FlushPerLines and the
    // size limit (key: the process name) for every trace file, Enable, and
    // "<process>.<level>" for each level's enabled flag.
    void read_config();
    // The parent of the application data folder plus "/Corvanthics/logs", or
    // "/tmp"; a buffer of the calling thread.
    const char* get_trace_dir();
    // The executable's file name, or "kvttrace".
    const char* get_process_name();

private:
    CRtTrace(const CRtTrace&) = delete;
    CRtTrace& operator=(const CRtTrace&) = delete;

    // Hands a finished line to the trace file when its level goes there.
    void WriteToFile_i(unsigned long aLevel, const char* aLine);
    void UpdateFileLevels_l();

    char* m_pszName;
    unsigned long m_dwMaskCount;
    CRtTraceMask* m_pMasks;
    char* m_pszFixedFileName;
    unsigned char m_bExactName;
    unsigned char m_bEnable;
    void* m_pLoadedFile;
    uint32_t m_dwPid;
    char m_szFileName[512];
    CRtMutexThreadRecursive m_Lock;
    // The trace file (owned by the file registry), and the levels written to
    // it as of the last read_config: a bit per level below 64, set when Enable
    // and the level's flag are. Both are read by trace_string without a lock.
    std::atomic<CRtTraceFile*> m_pTraceFile{nullptr};
    std::atomic<uint64_t> m_qwFileLevels{0};

    static CRtTrace* s_rtTrace;
    static CRtTrace* s_diagonseInstance;
};

// The main writer's trace file name.
RT_API const char* GetRtTraceFileName();

// Receives every trace line exactly as formatted, newline included, on the
// tracing thread. Null removes the sink. The sink must not trace.
typedef void (*RtDebugOutputSink)(const char* aLine);
RT_API void RtSetDebugOutputSink(RtDebugOutputSink aSink);

#endif  // RTTRACE_H
