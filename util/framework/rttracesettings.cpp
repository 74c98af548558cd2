// The trace writer's settings: its directory, file name and trace file, and
// the section "Trace" of the configuration file.
#include <stdio.h>
#include <string.h>

#include "rtconfig.h"
#include "rtos.h"
#include "rtosfile.h"
#include "rttimevalue.h"
#include "rttrace.h"
#include "rttracefile.h"

namespace {

char kTraceSection[] = "Trace";
const char kLogsFolder[] = "Corvanthics" RTOS_PATH_SEPARATOR "logs";
const char kNoTraceDir[] = "/tmp";
// A configured size limit must be larger than this to count.
const long kSmallestMaxSize = 1024;

// Creates the trace directory and its parent; either may exist already, and
// a parent that cannot be made (read-only, or not a folder) is not an error.
void MakeTraceDir(const char* aDir) {
    char parent[512];
    ::snprintf(parent, sizeof(parent), "%s", aDir);
    if (char* slash = ::strrchr(parent, rtos::kPathSeparator)) {
        *slash = '\0';
        if (parent[0]) {
            rtos::MakeDir(parent);
        }
    }
    rtos::MakeDir(aDir);
}

}  // namespace

unsigned char CRtTrace::load(void* aArg) {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    if (!aArg && m_pLoadedFile) {
        return 1;
    }
    // No tracing here: the main writer loads while instance() is still making it.
    const char* dir = get_trace_dir();
    MakeTraceDir(dir);

    rtos::CalendarTime today;
    rtos::LocalCalendarTime(CRtTimeValue::GetTimeOfDay().GetSec(), today);
    if (!m_pszFixedFileName) {
        ::snprintf(m_szFileName, sizeof(m_szFileName),
                   "%s" RTOS_PATH_SEPARATOR "%s_Trace_%04d%02d%02d_%d.txt", dir, get_process_name(),
                   today.year, today.month, today.day, static_cast<int>(m_dwPid));
    } else if (m_bExactName) {
        ::snprintf(m_szFileName, sizeof(m_szFileName), "%s" RTOS_PATH_SEPARATOR "%s", dir,
                   m_pszFixedFileName);
    } else {
        ::snprintf(m_szFileName, sizeof(m_szFileName), "%s" RTOS_PATH_SEPARATOR "%s.%d", dir,
                   m_pszFixedFileName, static_cast<int>(rtos::CurrentProcessId()));
    }

    m_bEnable = get_bool_param(kTraceSection, "Enable", 1);
    // Only the main writer's kind writes a file: a fixed name (diagnose.log)
    // is shared by every process, which would empty it for one another.
    if (!m_pszFixedFileName) {
        if (CRtTraceFileRegistry* registry = CRtTraceFileRegistry::Instance()) {
            m_pTraceFile.store(registry->FindOrCreate(m_szFileName), std::memory_order_release);
        }
    }
    read_config();
    return 1;
}

void CRtTrace::read_config() {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    const char* process = get_process_name();

    int flushPerLines = get_int_param(kTraceSection, "FlushPerLines");
    if (flushPerLines < 1) {
        flushPerLines = 1;
    }
    long maxSize = get_int_param(kTraceSection, process);
    if (maxSize <= kSmallestMaxSize) {
        maxSize = CRtTraceFile::kDefaultMaxSize;
    }
    if (CRtTraceFileRegistry* registry = CRtTraceFileRegistry::Instance()) {
        registry->ApplySettings(flushPerLines, maxSize);
    }

    m_bEnable = get_bool_param(kTraceSection, "Enable", 1);
    // A missing key keeps the flag: the tables are static, so flags persist
    // across writers and re-reads.
    for (unsigned long i = 0; i < m_dwMaskCount; ++i) {
        if (!m_pMasks[i].name) {
            continue;
        }
        char key[512];
        ::snprintf(key, sizeof(key), "%s.%s", process, m_pMasks[i].name);
        m_pMasks[i].enabled = get_bool_param(kTraceSection, key, m_pMasks[i].enabled);
    }
    UpdateFileLevels_l();
}

void CRtTrace::UpdateFileLevels_l() {
    uint64_t levels = 0;
    for (unsigned long i = 0; m_bEnable && i < m_dwMaskCount && i < 64; ++i) {
        if (m_pMasks[i].name && m_pMasks[i].enabled) {
            levels |= uint64_t(1) << i;
        }
    }
    m_qwFileLevels.store(levels, std::memory_order_relaxed);
}

void CRtTrace::WriteToFile_i(unsigned long aLevel, const char* aLine) {
    CRtTraceFile* file = m_pTraceFile.load(std::memory_order_acquire);
    if (!file || aLevel >= 64 ||
        !((m_qwFileLevels.load(std::memory_order_relaxed) >> aLevel) & 1)) {
        return;
    }
    // Past the registry's end at unload the file is gone; a writer made after
    // Destroy (a late trace at exit) may still hold it.
    if (!CRtTraceFileRegistry::Instance()) {
        return;
    }
    file->WriteLine(aLine, static_cast<unsigned long>(::strlen(aLine)));
}

const char* CRtTrace::get_trace_dir() {
    // Per thread: load and the removal of old trace files may run at once.
    static thread_local char t_szDir[512];
    if (!rtos::GetAppDataDir(t_szDir, sizeof(t_szDir))) {
        return kNoTraceDir;
    }
    // The application data folder's last component gives way to our own.
    char* slash = ::strrchr(t_szDir, rtos::kPathSeparator);
    if (!slash) {
        return kNoTraceDir;
    }
    size_t room = sizeof(t_szDir) - static_cast<size_t>(slash + 1 - t_szDir);
    if (room < sizeof(kLogsFolder)) {
        return kNoTraceDir;
    }
    ::memcpy(slash + 1, kLogsFolder, sizeof(kLogsFolder));
    return t_szDir;
}

const char* CRtTrace::get_process_name() {
    const char* path = get_exec_name();
    if (!path[0]) {
        return "kvttrace";
    }
    const char* slash = ::strrchr(path, rtos::kPathSeparator);
    return slash ? slash + 1 : path;
}

const char* GetRtTraceFileName() {
    return CRtTrace::instance()->getfilename();
}
