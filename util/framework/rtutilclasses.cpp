// Base64, the reverse case-insensitive search, the local IPv4 address and the
// per-thread COM records. MD5 lives in rtmd5.cpp.
#include "rtutilclasses.h"

#include <cstring>
#include <vector>

#include "rtdebug.h"
#include "rtmutex.h"
#include "rtos.h"
#include "rtoscom.h"
#include "rtosnet.h"

namespace {

// ---- Base64 ------------------------------------------------------------------

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr unsigned char kNotInAlphabet = 64;

// Every byte value to its 6-bit value, or 64 when it is not in the alphabet.
struct CRtBase64DecodeTable {
    unsigned char m_Values[256];

    constexpr CRtBase64DecodeTable() : m_Values() {
        for (int i = 0; i < 256; ++i) {
            m_Values[i] = kNotInAlphabet;
        }
        for (int i = 0; i < 64; ++i) {
            m_Values[static_cast<unsigned char>(kBase64Alphabet[i])] =
                static_cast<unsigned char>(i);
        }
    }
};

constexpr CRtBase64DecodeTable kBase64Decode;

// ---- COM records ---------------------------------------------------------------

struct CRtComInitRecord {
    uint32_t m_dwThreadId;
    uint16_t m_comInitNum;  // unbalanced RtCoInitialize calls
};

struct CRtComInitRecords {
    CRtMutexThread m_Mutex;
    std::vector<CRtComInitRecord> m_Records;  // at most one per thread

    std::vector<CRtComInitRecord>::iterator Find_l(uint32_t aThreadId) {
        auto it = m_Records.begin();
        while (it != m_Records.end() && it->m_dwThreadId != aThreadId) {
            ++it;
        }
        return it;
    }
};

// Built on first use, so that a host calling from a static constructor finds
// the lock ready.
CRtComInitRecords& ComInitRecords() {
    static CRtComInitRecords s_records;
    return s_records;
}

inline unsigned char FoldAscii(unsigned char aChar) {
    return (aChar >= 'A' && aChar <= 'Z') ? static_cast<unsigned char>(aChar + ('a' - 'A')) : aChar;
}

}  // namespace

void RtBase64Encode(const unsigned char* aSrc, unsigned long aLen, CRtString& aDest) {
    // Built aside and swapped in, so that aSrc may point into aDest.
    CRtString text;
    if (aLen == 0) {
        aDest.swap(text);
        return;
    }
    if (!aSrc) {
        aDest.clear();
    }
    RT_ASSERTE_RETURN_VOID(aSrc);
    const unsigned long groups = aLen / 3 + (aLen % 3 != 0);
    RT_ASSERTE_RETURN_VOID(groups <= text.max_size() / 4);
    text.resize(groups * 4);

    char* out = &text[0];
    const unsigned char* in = aSrc;
    const unsigned char* const whole = aSrc + aLen / 3 * 3;
    for (; in != whole; in += 3, out += 4) {
        const uint32_t v = (uint32_t(in[0]) << 16) | (uint32_t(in[1]) << 8) | in[2];
        out[0] = kBase64Alphabet[v >> 18];
        out[1] = kBase64Alphabet[(v >> 12) & 0x3F];
        out[2] = kBase64Alphabet[(v >> 6) & 0x3F];
        out[3] = kBase64Alphabet[v & 0x3F];
    }
    switch (aLen % 3) {
        case 1: {
            const uint32_t v = uint32_t(in[0]) << 16;
            out[0] = kBase64Alphabet[v >> 18];
            out[1] = kBase64Alphabet[(v >> 12) & 0x3F];
            out[2] = '=';
            out[3] = '=';
            break;
        }
        case 2: {
            const uint32_t v = (uint32_t(in[0]) << 16) | (uint32_t(in[1]) << 8);
            out[0] = kBase64Alphabet[v >> 18];
            out[1] = kBase64Alphabet[(v >> 12) & 0x3F];
            out[2] = kBase64Alphabet[(v >> 6) & 0x3F];
            out[3] = '=';
            break;
        }
        default:
            break;
    }
    aDest.swap(text);
}

void RtBase64Decode(const char* aSrc, CRtString& aDest) {
    if (!aSrc) {
        aDest.clear();
    }
    RT_ASSERTE_RETURN_VOID(aSrc);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(aSrc);
    while (*p == ' ' || *p == '\t') {
        ++p;
    }
    // The terminating zero is outside the alphabet, so this stops at the end.
    const unsigned char* end = p;
    while (kBase64Decode.m_Values[*end] != kNotInAlphabet) {
        ++end;
    }
    const size_t n = static_cast<size_t>(end - p);
    const size_t rest = n % 4;
    // A lone leftover character carries 6 bits, less than a byte: it gives none.
    const size_t tailBytes = rest == 3 ? 2 : (rest == 2 ? 1 : 0);

    CRtString bytes;
    bytes.resize(n / 4 * 3 + tailBytes);
    if (bytes.empty()) {
        aDest.swap(bytes);
        return;
    }
    const unsigned char* const table = kBase64Decode.m_Values;
    unsigned char* out = reinterpret_cast<unsigned char*>(&bytes[0]);
    const unsigned char* const whole = p + (n - rest);
    for (; p != whole; p += 4, out += 3) {
        const uint32_t v = (uint32_t(table[p[0]]) << 18) | (uint32_t(table[p[1]]) << 12) |
                           (uint32_t(table[p[2]]) << 6) | table[p[3]];
        out[0] = static_cast<unsigned char>(v >> 16);
        out[1] = static_cast<unsigned char>(v >> 8);
        out[2] = static_cast<unsigned char>(v);
    }
    if (tailBytes > 0) {
        uint32_t v = (uint32_t(table[p[0]]) << 18) | (uint32_t(table[p[1]]) << 12);
        if (tailBytes == 2) {
            v |= uint32_t(table[p[2]]) << 6;
            out[1] = static_cast<unsigned char>(v >> 8);
        }
        out[0] = static_cast<unsigned char>(v >> 16);
    }
    aDest.swap(bytes);
}

char* rt_strcaserstr(const char* aStr, const char* aSub) {
    if (!aStr || !aSub || !*aStr || !*aSub) {
        return nullptr;
    }
    const size_t n = std::strlen(aStr);
    const size_t m = std::strlen(aSub);
    if (m > n) {
        return nullptr;
    }
    const unsigned char* str = reinterpret_cast<const unsigned char*>(aStr);
    const unsigned char* sub = reinterpret_cast<const unsigned char*>(aSub);
    for (size_t pos = n - m + 1; pos-- > 0;) {
        size_t i = 0;
        while (i < m && FoldAscii(str[pos + i]) == FoldAscii(sub[i])) {
            ++i;
        }
        if (i == m) {
            return const_cast<char*>(aStr + pos);
        }
    }
    return nullptr;
}

unsigned long RtGetLocalIP() {
    char name[257];
    int rv = rtos::GetHostName(name, sizeof(name));
    if (rv != 0) {
        RT_WARNING_TRACE("::RtGetLocalIP, gethostname failed! err=" << rv);
        return 0;
    }
    rtos::HostInfo info;
    rv = rtos::LookupHostIPv4(name, info);
    if (rv != 0 || info.addrs.empty()) {
        RT_WARNING_TRACE("::RtGetLocalIP, gethostbyname failed! name=" << name << " err=" << rv);
        return 0;
    }
    return info.addrs[0];
}

int RtCoInitialize() {
    const uint32_t tid = rtos::CurrentThreadId();
    CRtComInitRecords& records = ComInitRecords();
    CRtMutexGuardT<CRtMutexThread> guard(records.m_Mutex);
    auto it = records.Find_l(tid);
    if (it != records.m_Records.end()) {
        RT_ASSERTE(it->m_comInitNum > 0);
        if (it->m_comInitNum == UINT16_MAX) {
            // The count is 16-bit; wrapping it would uninitialise COM too early.
            RT_WARNING_TRACE("::RtCoInitialize, too many calls! threadID=" << tid);
            return RT_ERROR_FAILURE;
        }
        ++it->m_comInitNum;
        return RT_OK;
    }
    const int rv = rtos::CoInitialize();
    if (rv != 0) {
        RT_WARNING_TRACE("::RtCoInitialize, CoInitialize failed! rv=" << rv << " threadID=" << tid);
        if (rv == 1) {
            // "Already initialised" still counted a call; give it back, since
            // no record will ever balance it.
            rtos::CoUninitialize();
        }
        return RT_ERROR_FAILURE;
    }
    records.m_Records.push_back(CRtComInitRecord{tid, 1});
    return RT_OK;
}

void RtCoUninitialize() {
    const uint32_t tid = rtos::CurrentThreadId();
    CRtComInitRecords& records = ComInitRecords();
    CRtMutexGuardT<CRtMutexThread> guard(records.m_Mutex);
    auto it = records.Find_l(tid);
    if (it == records.m_Records.end()) {
        RT_WARNING_TRACE(
            "::RtCoUninitialize, COM initialization record not found! threadID=" << tid);
        return;
    }
    RT_ASSERTE(it->m_comInitNum > 0);
    if (it->m_comInitNum > 0) {
        --it->m_comInitNum;
    }
    if (it->m_comInitNum > 0) {
        return;
    }
    rtos::CoUninitialize();
    records.m_Records.erase(it);
}
