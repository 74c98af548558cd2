// The log recorder and the trace writer.
#include "rttrace.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

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

// Writes aValue backwards from aEnd as "%d" or "%u" would, or with aHex as "%x"
// at the type's own width (-1 as int is "ffffffff"); returns the first
// character. By hand rather than snprintf: it runs for every number of every
// trace line.
template <class T>
char* FormatInteger(T aValue, bool aHex, char* aEnd) {
    using Unsigned = typename std::make_unsigned<T>::type;
    Unsigned u = static_cast<Unsigned>(aValue);
    char* p = aEnd;
    if (aHex) {
        do {
            *--p = "0123456789abcdef"[u & 0xF];
            u >>= 4;
        } while (u != 0);
        return p;
    }
    bool negative = false;
    if constexpr (std::is_signed<T>::value) {
        negative = aValue < 0;
        if (negative) {
            u = static_cast<Unsigned>(0 - u);
        }
    }
    do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (negative) {
        *--p = '-';
    }
    return p;
}

}  // namespace

// Every integer insertion ends in decimal mode.
#define RT_RECORDER_INTEGER(Type)                                                 \
    CRtTrace::CRtLogRecorder& CRtTrace::CRtLogRecorder::operator<<(Type aValue) { \
        char text[24];                                                            \
        char* end = text + sizeof(text);                                          \
        char* start = FormatInteger(aValue, get_hex_flag() != 0, end);            \
        advance(start, static_cast<unsigned long>(end - start));                  \
        set_hex_flag(0);                                                          \
        return *this;                                                             \
    }

RT_RECORDER_INTEGER(int)
RT_RECORDER_INTEGER(unsigned int)
RT_RECORDER_INTEGER(long)
RT_RECORDER_INTEGER(unsigned long)
RT_RECORDER_INTEGER(long long)
RT_RECORDER_INTEGER(unsigned long long)

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

// The stamp of one second, "[MM/DD/YYYY HH:MM:SS.", kept per thread: most
// lines of a thread fall within the same second as its previous line.
struct SecondStamp {
    int64_t second = -1;
    rtos::CalendarTime calendar{};
    char text[32] = {};
    size_t length = 0;
};

const SecondStamp& StampOf(int64_t aSecond) {
    static thread_local SecondStamp t_stamp;
    if (t_stamp.second != aSecond) {
        rtos::CalendarTime& cal = t_stamp.calendar;
        rtos::LocalCalendarTime(aSecond, cal);
        int n = ::snprintf(t_stamp.text, sizeof(t_stamp.text), "[%02d/%02d/%04d %02d:%02d:%02d.",
                           cal.month, cal.day, cal.year, cal.hour, cal.minute, cal.second);
        t_stamp.length = n > 0 ? static_cast<size_t>(n) : 0;
        t_stamp.second = aSecond;
    }
    return t_stamp;
}

// Fills a line buffer, cutting at its last byte, which stays for the zero.
class LineBuilder {
public:
    explicit LineBuilder(char (&aLine)[RTTRACE_MAX_TRACE_LEN]) : m_pLine(aLine) {}
    ~LineBuilder() { m_pLine[m_pos] = '\0'; }

    void Append(const char* aText, size_t aLength) {
        size_t room = RTTRACE_MAX_TRACE_LEN - 1 - m_pos;
        if (aLength > room) {
            aLength = room;
        }
        ::memcpy(m_pLine + m_pos, aText, aLength);
        m_pos += aLength;
    }
    void Append(const char* aText) {
        Append(aText, ::strnlen(aText, RTTRACE_MAX_TRACE_LEN - 1 - m_pos));
    }
    void AppendDecimal(uint32_t aValue) {
        char digits[10];
        size_t n = sizeof(digits);
        do {
            digits[--n] = static_cast<char>('0' + aValue % 10);
            aValue /= 10;
        } while (aValue != 0);
        Append(digits + n, sizeof(digits) - n);
    }

private:
    char* m_pLine;
    size_t m_pos = 0;
};

// Writes "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] %s:%s\n", cut to
// 1023 characters: the bytes snprintf would give, without parsing the format
// for every line. A clock before 1970 (negative milliseconds) takes snprintf.
void FormatLine(char (&aLine)[RTTRACE_MAX_TRACE_LEN], const CRtTimeValue& aNow,
                const char* aLevelName, const char* aText) {
    const SecondStamp& stamp = StampOf(aNow.GetSec());
    const int ms = static_cast<int>(aNow.GetUsec() / 1000);
    const int pid = static_cast<int>(rtos::CurrentProcessId());
    const int tid = static_cast<int>(rtos::CurrentThreadId());
    if (ms < 0 || pid < 0 || tid < 0) {
        const rtos::CalendarTime& cal = stamp.calendar;
        ::snprintf(aLine, sizeof(aLine),
                   "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] %s:%s\n", cal.month, cal.day,
                   cal.year, cal.hour, cal.minute, cal.second, ms, pid, tid, aLevelName, aText);
        return;
    }
    LineBuilder line(aLine);
    line.Append(stamp.text, stamp.length);
    const char msDigits[3] = {static_cast<char>('0' + ms / 100),
                              static_cast<char>('0' + ms / 10 % 10),
                              static_cast<char>('0' + ms % 10)};
    line.Append(msDigits, sizeof(msDigits));
    line.Append(" pid=", 5);
    line.AppendDecimal(static_cast<uint32_t>(pid));
    line.Append(" tid=", 5);
    line.AppendDecimal(static_cast<uint32_t>(tid));
    line.Append("] ", 2);
    line.Append(aLevelName);
    line.Append(":", 1);
    line.Append(aText);
    line.Append("\n", 1);
}

}  // namespace

CRtTrace* CRtTrace::s_rtTrace = nullptr;
CRtTrace* CRtTrace::s_diagonseInstance = nullptr;

CRtTrace* CRtTrace::instance() {
    if (!s_rtTrace) {
        s_rtTrace = new CRtTrace(g_mainWriterName, g_mainMasks,
                                 sizeof(g_mainMasks) / sizeof(g_mainMasks[0]), nullptr, 0);
        // Once per load: a writer re-created after Destroy (Destroy itself
        // traces) must not queue another Destroy, or the exit would never end.
        static bool s_destroyRegistered = false;
        if (!s_destroyRegistered) {
            s_destroyRegistered = true;
            ::atexit(&CRtTrace::Destroy);
        }
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
    // Tracing a failure must not change the error the caller is about to report:
    // the platform's last error, and errno, where the socket wrappers leave it
    // (the same variable on POSIX, two on Windows).
    const int savedError = rtos::LastError();
    const int savedErrno = errno;

    char line[RTTRACE_MAX_TRACE_LEN];
    line[0] = '\0';
    if (m_pszName && aLevel < m_dwMaskCount && m_pMasks[aLevel].name) {
        FormatLine(line, CRtTimeValue::GetTimeOfDay(), m_pMasks[aLevel].name, aText ? aText : "");
    }
    WriteToFile_i(aLevel, line);
    rtos::DebugOutput(line);

    errno = savedErrno;
    rtos::SetLastError(savedError);
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
