// Trace files and their registry.
#include "rttracefile.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "rtdebug.h"
#include "rtos.h"

namespace {

const char kMarker[] =
    "************************* Current Trace Point *************************\n\n";
const unsigned long kMarkerLen = sizeof(kMarker) - 1;

int ClampFlushPerLines(int aFlushPerLines) {
    if (aFlushPerLines < 1) {
        return 1;
    }
    return aFlushPerLines > CRtTraceFile::kMaxFlushPerLines ? CRtTraceFile::kMaxFlushPerLines
                                                            : aFlushPerLines;
}

}  // namespace

// ---- CRtTraceFile -------------------------------------------------------------

CRtTraceFile::CRtTraceFile(const char* aFileName, int aFlushPerLines, long aMaxSize)
    : m_strFileName(aFileName ? aFileName : ""),
      m_hFile(rtos::FileCreate(aFileName)),
      m_dwOwnerPid(rtos::CurrentProcessId()),
      m_nFlushFreq(ClampFlushPerLines(aFlushPerLines)),
      m_nLines(0),
      m_lMaxSize(aMaxSize),
      m_lWritePos(kHeaderSize),
      m_lMarkerPos(-1),
      m_pos(0) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    if (IsOpen()) {
        ResizeBuffer_l();
        WriteHeader_l();
    }
}

CRtTraceFile::~CRtTraceFile() {
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
        Flush_l();
    }
    rtos::FileClose(m_hFile);
}

void CRtTraceFile::WriteLine(const char* aLine, unsigned long aLen) {
    if (!IsOpen() || !aLine || aLen == 0) {
        return;
    }
    bool overflow = false;
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
        unsigned long capacity = static_cast<unsigned long>(m_nFlushFreq) * RTTRACE_MAX_TRACE_LEN;
        if (m_pos + aLen > capacity) {
            overflow = true;
            Flush_l();
            if (aLen > capacity) {
                aLen = capacity;
            }
        }
        ::memcpy(m_Buffer.data() + m_pos, aLine, aLen);
        m_pos += aLen;
        if (++m_nLines >= m_nFlushFreq) {
            Flush_l();
        }
    }
    // Traced without the lock: the trace may come back to this very file.
    if (overflow) {
        RT_ASSERT_TRACE_I("m_pos <= (unsigned long)m_nFlushFreq*RTTRACE_MAX_TRACE_LEN");
    }
}

void CRtTraceFile::Flush() {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    Flush_l();
}

void CRtTraceFile::SetFlushPerLines(int aFlushPerLines) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    int flushFreq = ClampFlushPerLines(aFlushPerLines);
    if (flushFreq == m_nFlushFreq) {
        return;
    }
    Flush_l();
    m_nFlushFreq = flushFreq;
    if (IsOpen()) {
        ResizeBuffer_l();
    }
}

void CRtTraceFile::SetMaxSize(long aMaxSize) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    m_lMaxSize = aMaxSize;
}

int CRtTraceFile::GetFlushPerLines() {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    return m_nFlushFreq;
}

long CRtTraceFile::GetMaxSize() {
    CRtMutexGuardT<CRtMutexThread> guard(m_Lock);
    return m_lMaxSize;
}

void CRtTraceFile::Flush_l() {
    if (m_pos == 0) {
        return;
    }
    // A full file (or one whose limit was lowered) starts again after the header.
    if (m_lWritePos >= m_lMaxSize) {
        m_lWritePos = kHeaderSize;
    }
    ::memcpy(m_Buffer.data() + m_pos, kMarker, kMarkerLen);
    // A failed write loses this batch only; the next one tries the same place.
    if (m_dwOwnerPid == rtos::CurrentProcessId() &&
        rtos::FileWriteAt(m_hFile, static_cast<uint64_t>(m_lWritePos), m_Buffer.data(),
                          m_pos + kMarkerLen)) {
        BlankOldMarker_l(m_lWritePos + static_cast<long>(m_pos + kMarkerLen));
        m_lMarkerPos = m_lWritePos + static_cast<long>(m_pos);
        m_lWritePos += static_cast<long>(m_pos);
        // Writing line by line, the file wraps at once; a batching file only
        // records that it is full, and its next batch wraps.
        if (m_nFlushFreq == 1 && m_lWritePos >= m_lMaxSize) {
            m_lWritePos = kHeaderSize;
        }
        WriteHeader_l();
    }
    m_pos = 0;
    m_nLines = 0;
}

void CRtTraceFile::BlankOldMarker_l(long aWrittenEnd) {
    // After a wrap the previous marker still stands after the newest text; only
    // one marker may say where the newest line ends. Blank what was not written over.
    long from = m_lMarkerPos > aWrittenEnd ? m_lMarkerPos : aWrittenEnd;
    long to = m_lMarkerPos + static_cast<long>(kMarkerLen);
    if (m_lMarkerPos < 0 || from >= to) {
        return;
    }
    char blank[kMarkerLen];
    ::memset(blank, ' ', kMarkerLen - 2);
    blank[kMarkerLen - 2] = '\n';
    blank[kMarkerLen - 1] = '\n';
    long skip = from - m_lMarkerPos;
    rtos::FileWriteAt(m_hFile, static_cast<uint64_t>(from), blank + skip,
                      static_cast<size_t>(to - from));
}

void CRtTraceFile::WriteHeader_l() {
    char header[kHeaderSize + 1];
    ::snprintf(header, sizeof(header), "%-31ld\n", m_lWritePos);
    rtos::FileWriteAt(m_hFile, 0, header, kHeaderSize);
}

void CRtTraceFile::ResizeBuffer_l() {
    m_Buffer.assign(static_cast<size_t>(m_nFlushFreq) * RTTRACE_MAX_TRACE_LEN + 1 + kMarkerLen, 0);
}

// ---- CRtTraceFileRegistry -------------------------------------------------------

namespace {

CRtTraceFileRegistry* g_pRegistry = nullptr;
std::atomic<bool> g_bRegistryClosed{false};

}  // namespace

CRtTraceFileRegistry* CRtTraceFileRegistry::Instance() {
    if (g_bRegistryClosed.load(std::memory_order_acquire)) {
        return nullptr;
    }
    // Created by the first writer, at load: registered for unload before the
    // writers' own clean-up, so it runs after the writers are gone.
    static const bool s_bCreated = [] {
        g_pRegistry = new CRtTraceFileRegistry;
        ::atexit(&CRtTraceFileRegistry::DestroyAtUnload);
        return true;
    }();
    (void)s_bCreated;
    return g_pRegistry;
}

void CRtTraceFileRegistry::DestroyAtUnload() {
    g_bRegistryClosed.store(true, std::memory_order_release);
    // Lets threads that are still tracing finish their lines.
    rtos::SleepMs(200);
    delete g_pRegistry;
    g_pRegistry = nullptr;
}

CRtTraceFileRegistry::~CRtTraceFileRegistry() {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    for (CRtTraceFile* file : m_Files) {
        delete file;
    }
    m_Files.clear();
}

CRtTraceFile* CRtTraceFileRegistry::Find(const char* aFileName) {
    if (!aFileName) {
        return nullptr;
    }
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    for (CRtTraceFile* file : m_Files) {
        if (file->GetFileName() == aFileName) {
            return file;
        }
    }
    return nullptr;
}

CRtTraceFile* CRtTraceFileRegistry::FindOrCreate(const char* aFileName) {
    // No trace here: the main writer is still being made when it asks.
    if (!aFileName || !aFileName[0]) {
        return nullptr;
    }
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    CRtTraceFile* file = Find(aFileName);
    if (!file) {
        file = new CRtTraceFile(aFileName, m_nFlushPerLines, m_lMaxSize);
        m_Files.push_back(file);
    }
    return file;
}

void CRtTraceFileRegistry::ApplySettings(int aFlushPerLines, long aMaxSize) {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    m_nFlushPerLines = aFlushPerLines;
    m_lMaxSize = aMaxSize;
    for (CRtTraceFile* file : m_Files) {
        file->SetFlushPerLines(aFlushPerLines);
        file->SetMaxSize(aMaxSize);
    }
}
