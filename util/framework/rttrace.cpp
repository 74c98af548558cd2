// The log recorder and the trace writer.
#include "rttrace.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "rtdebug.h"
#include "rtos.h"
#include "rttimevalue.h"

// ---- CRtTrace::CRtLogRecorder -----------------------------------------------

namespace {

// Bytes at the end of a recorder's buffer that appending never touches.
const unsigned long kRecorderReserve = 64;

}  // namespace

CRtTrace::CRtLogRecorder::CRtLogRecorder(char* aBuf, unsigned long aSize)
    : m_pBuf(aBuf), m_dwCapacity(aSize), m_dwPos(0), m_bHex(0) {
    reset();
}

void CRtTrace::CRtLogRecorder::reset() {
    m_dwPos = 0;
    m_bHex = 0;
    if (m_pBuf) {
        ::memset(m_pBuf, 0, m_dwCapacity);
    }
}

void CRtTrace::CRtLogRecorder::advance(const char* aText, unsigned long aLen) {
    if (!aText || !m_pBuf || m_dwPos + kRecorderReserve >= m_dwCapacity) {
        return;
    }
    unsigned long room = m_dwCapacity - m_dwPos - kRecorderReserve;
    if (aLen > room) {
        aLen = room;
    }
    // No terminator is written: the zero-filled buffer supplies it.
    ::memcpy(m_pBuf + m_dwPos, aText, aLen);
    m_dwPos += aLen;
}

void CRtTrace::CRtLogRecorder::advance(const char* aText) {
    if (aText) {
        advance(aText, static_cast<unsigned long>(::strlen(aText)));
    }
}

namespace {

// Formats one number; every integer insertion ends in decimal mode.
template <class T>
int FormatNumber(char (&aOut)[32], bool aHex, const char* aDecFormat, const char* aHexFormat,
                 T aValue) {
    return ::snprintf(aOut, sizeof(aOut), aHex ? aHexFormat : aDecFormat, aValue);
}

}  // namespace

#define RT_RECORDER_INTEGER(Type, DecFormat, HexFormat)                                \
    CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(Type aValue) {      \
        char text[32];                                                                 \
        int n = FormatNumber(text, get_hex_flag() != 0, DecFormat, HexFormat, aValue); \
        if (n > 0) {                                                                   \
            advance(text, static_cast<unsigned long>(n));                              \
        }                                                                              \
        set_hex_flag(0);                                                               \
        return *this;                                                                  \
    }

RT_RECORDER_INTEGER(int, "%d", "%x")
RT_RECORDER_INTEGER(unsigned int, "%u", "%x")
RT_RECORDER_INTEGER(long, "%ld", "%lx")
RT_RECORDER_INTEGER(unsigned long, "%lu", "%lx")
RT_RECORDER_INTEGER(long long, "%lld", "%llx")
RT_RECORDER_INTEGER(unsigned long long, "%llu", "%llx")

#undef RT_RECORDER_INTEGER

// Characters and short integers are written as numbers, widened to int.
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(char aValue) {
    return *this << static_cast<int>(aValue);
}
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(unsigned char aValue) {
    return *this << static_cast<int>(aValue);
}
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(short aValue) {
    return *this << static_cast<int>(aValue);
}
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(unsigned short aValue) {
    return *this << static_cast<int>(aValue);
}

// Floating-point insertions neither read nor clear the hex flag.
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(float aValue) {
    return *this << static_cast<double>(aValue);
}
CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(double aValue) {
    char text[400];  // "%f" of the largest double needs 317 bytes
    int n = ::snprintf(text, sizeof(text), "%f", aValue);
    if (n > 0) {
        advance(text, static_cast<unsigned long>(n) < sizeof(text) ? n : sizeof(text) - 1);
    }
    return *this;
}

CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(const char* aValue) {
    advance(aValue);
    return *this;
}

CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(const CRtString& aValue) {
    advance(aValue.data(), static_cast<unsigned long>(::strnlen(aValue.data(), aValue.size())));
    return *this;
}

CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(const void* aValue) {
    advance("0x", 2);
    set_hex_flag(1);
    return *this << static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(aValue));
}

CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(Ordix aValue) {
    if (aValue == hex) {
        set_hex_flag(1);
    } else if (aValue == dec) {
        set_hex_flag(0);
    }
    return *this;
}

// ---- CRtTrace -----------------------------------------------------------------

namespace {

CRtTraceMask g_mainMasks[] = {
    {0, "Error", 1},    {1, "Server", 1},  {2, "NA", 0},         {3, "NA", 0},
    {4, "NA", 0},       {5, "NA", 0},      {6, "NA", 0},         {7, "NA", 0},
    {8, "NA", 0},       {9, "NA", 0},      {10, "Warning", 1},   {11, "Meeting", 1},
    {12, "Session", 1}, {13, "User", 1},   {14, "Statistic", 1}, {15, "NA", 0},
    {16, "NA", 0},      {17, "NA", 0},     {18, "NA", 0},        {19, "NA", 0},
    {20, "Info", 1},    {21, "State", 1},  {22, "PDU", 0},       {23, "Func", 0},
    {24, "Tick", 0},    {25, "Detail", 0},
};

CRtTraceMask g_diagnoseMasks[] = {{0, "Diagnose", 1}};

char g_mainWriterName[] = "Log";
char g_diagnoseWriterName[] = "Diagnose";
char g_diagnoseFileName[] = "diagnose.log";

// Local calendar time of the current second, kept per thread: most lines of a
// thread fall within the same second as its previous line.
struct CachedCalendar {
    int64_t second = -1;
    rtos::CalendarTime calendar{};
};

const rtos::CalendarTime& LocalCalendar(int64_t aSecond) {
    static thread_local CachedCalendar t_cache;
    if (t_cache.second != aSecond) {
        rtos::LocalCalendarTime(aSecond, t_cache.calendar);
        t_cache.second = aSecond;
    }
    return t_cache.calendar;
}

}  // namespace

CRtTrace* CRtTrace::s_rtTrace = nullptr;
CRtTrace* CRtTrace::s_diagonseInstance = nullptr;

CRtTrace* CRtTrace::instance() {
    if (!s_rtTrace) {
        s_rtTrace = new CRtTrace(g_mainWriterName, g_mainMasks,
                                 sizeof(g_mainMasks) / sizeof(g_mainMasks[0]), nullptr, 0);
        ::atexit(&CRtTrace::Destroy);
    }
    return s_rtTrace;
}

CRtTrace* CRtTrace::DiagonseInstance() {
    if (!s_diagonseInstance) {
        s_diagonseInstance =
            new CRtTrace(g_diagnoseWriterName, g_diagnoseMasks, 1, g_diagnoseFileName, 1);
    }
    return s_diagonseInstance;
}

void CRtTrace::Destroy() {
    RT_INFO_TRACE("CRtTrace::Destroy");
    delete s_rtTrace;
    s_rtTrace = nullptr;
    delete s_diagonseInstance;
    s_diagonseInstance = nullptr;
}

CRtTrace::CRtTrace(char* aWriterName, CRtTraceMask* const aMasks, unsigned long aMaskCount,
                   char* aFixedFileName, unsigned char aExactName)
    : m_pszName(aWriterName),
      m_dwMaskCount(aMaskCount),
      m_pMasks(aMasks),
      m_pszFixedFileName(aFixedFileName),
      m_bExactName(aExactName),
      m_bEnable(1),
      m_pLoadedFile(nullptr),
      m_dwPid(rtos::CurrentProcessId()) {
    m_szFileName[0] = '\0';
    load(nullptr);
}

CRtTrace::~CRtTrace() {
    m_pLoadedFile = nullptr;
}

void CRtTrace::trace_string(unsigned long aLevel, char* aText) {
    // Tracing a failure must not change the error the caller is about to report.
    int savedError = rtos::LastError();

    char line[RTTRACE_MAX_TRACE_LEN];
    line[0] = '\0';
    if (m_pszName && aLevel < m_dwMaskCount && m_pMasks[aLevel].name) {
        CRtTimeValue now = CRtTimeValue::GetTimeOfDay();
        const rtos::CalendarTime& cal = LocalCalendar(now.GetSec());
        ::snprintf(
            line, sizeof(line), "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] %s:%s\n",
            cal.month, cal.day, cal.year, cal.hour, cal.minute, cal.second,
            static_cast<int>(now.GetUsec() / 1000), static_cast<int>(rtos::CurrentProcessId()),
            static_cast<int>(rtos::CurrentThreadId()), m_pMasks[aLevel].name, aText ? aText : "");
    }
    rtos::DebugOutput(line);

    rtos::SetLastError(savedError);
}

unsigned char CRtTrace::load(void* aArg) {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
    if (!aArg && m_pLoadedFile) {
        return 1;
    }
    read_config();
    return 1;
}

void CRtTrace::read_config() {
    CRtMutexGuardT<CRtMutexThreadRecursive> guard(m_Lock);
}

const char* CRtTrace::get_trace_dir() {
    return "/tmp";
}

const char* CRtTrace::get_process_name() {
    return "kvttrace";
}

const char* GetRtTraceFileName() {
    return CRtTrace::instance()->getfilename();
}

void RtSetDebugOutputSink(RtDebugOutputSink aSink) {
    rtos::SetDebugSink(aSink);
}

namespace {

// The library's first trace creates the main writer on the loading thread,
// before any other thread of the library can race to create it.
struct MainWriterAtLoad {
    MainWriterAtLoad() { CRtTrace::instance(); }
} g_mainWriterAtLoad;

}  // namespace
