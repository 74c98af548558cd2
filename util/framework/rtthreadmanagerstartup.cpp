// The thread manager's start-up and shutdown pieces: the sockets' start and
// end, and the removal of old trace files.
#include <stdio.h>
#include <string.h>

#include "rtdebug.h"
#include "rtos.h"
#include "rtosfile.h"
#include "rtosnet.h"
#include "rtthreadmanager.h"
#include "rttimevalue.h"
#include "rttrace.h"

int CRtThreadManager::s_bSocketInited = 0;

int CRtThreadManager::SocketStartup() {
    if (s_bSocketInited) {
        return RT_OK;
    }
    s_bSocketInited = 1;
    uint16_t granted = 0;
    if (rtos::SocketStartup(rtos::kSocketVersion22, &granted) != 0) {
        RT_ERROR_TRACE(
            "CRtThreadManager::SocketStartup, WSAStartup() failed! err=" << rtos::LastError());
        s_bSocketInited = 0;
        return RT_ERROR_FAILURE;
    }
    if ((granted & 0xFF) == 2 && (granted >> 8) == 2) {
        return RT_OK;
    }
    RT_ERROR_TRACE("CRtThreadManager::SocketStartup, version error! wsaData.wVersion="
                   << granted << " wsaData.wVersion=" << granted << " err=" << rtos::LastError());
    SocketCleanup();
    return RT_ERROR_NOT_AVAILABLE;
}

int CRtThreadManager::SocketCleanup() {
    if (!s_bSocketInited) {
        return RT_OK;
    }
    s_bSocketInited = 0;
    if (rtos::SocketCleanup() != 0) {
        RT_ERROR_TRACE(
            "CRtThreadManager::SocketCleanup, WSACleanup() failed! err=" << rtos::LastError());
        return RT_ERROR_UNEXPECTED;
    }
    return RT_OK;
}

namespace {

const int64_t kTraceFileLifetime = 30 * 24 * 3600;
const size_t kDateLen = 8;  // YYYYMMDD

}  // namespace

void CRtThreadManager::DeleteOutOfDateLog() {
    RT_INFO_TRACE("CRtThreadManager::DeleteOutOfDateLog"
                  << " this=" << this);
    // Copied: the writer's buffer belongs to this thread and a trace may reuse it.
    char dir[512];
    ::snprintf(dir, sizeof(dir), "%s", CRtTrace::instance()->get_trace_dir());
    rtos::FileSearch* search = rtos::FileSearchOpen(dir, "*_Trace_*");
    if (!search) {
        return;
    }

    // Trace file names end in "_YYYYMMDD_<pid>.txt", so dates compare as text.
    rtos::CalendarTime cutoff;
    rtos::LocalCalendarTime(CRtTimeValue::GetTimeOfDay().GetSec() - kTraceFileLifetime, cutoff);
    char cutoffDate[16];
    ::snprintf(cutoffDate, sizeof(cutoffDate), "%04d%02d%02d", cutoff.year, cutoff.month,
               cutoff.day);

    char name[512];
    while (rtos::FileSearchNext(search, name, sizeof(name))) {
        const char* underscore = ::strrchr(name, '_');
        if (!underscore || static_cast<size_t>(underscore - name) <= kDateLen) {
            continue;
        }
        if (::memcmp(underscore - kDateLen, cutoffDate, kDateLen) < 0) {
            char path[1024];
            ::snprintf(path, sizeof(path), "%s" RTOS_PATH_SEPARATOR "%s", dir, name);
            rtos::RemoveFile(path);
        }
    }
    rtos::FileSearchClose(search);
}
