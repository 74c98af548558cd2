// Small utilities that hosts use beside the framework: Base64 text, the MD5
// digest, a reverse case-insensitive search, the local IPv4 address and
// per-thread COM initialisation. Hosts call all of them directly; the library
// itself uses none.
//
// Thread rules: every function may be called from any thread, with one
// exception: RtMD5 with a null output shares one static buffer, so such calls
// must not overlap. RtCoInitialize / RtCoUninitialize act on the calling
// thread's record, kept under a library-wide lock.
#ifndef RTUTILCLASSES_H
#define RTUTILCLASSES_H

#include <cstdint>

#include "rtdefines.h"

// ---- Base64 (RFC 4648, standard alphabet, "=" padding, no line breaks) ------

// aDest becomes the Base64 text of the aLen bytes at aSrc: 4 characters for
// every 3 bytes or part of them.
RT_API void RtBase64Encode(const unsigned char* aSrc, unsigned long aLen, CRtString& aDest);

// aDest becomes the bytes encoded by the Base64 text at the start of aSrc.
// Leading spaces and tabs are skipped; the text ends at the first character
// outside the alphabet ("=", whitespace, the terminating zero, ...), so input
// is never read past its terminator. A final group of 3 characters gives 2
// bytes, of 2 characters 1 byte; a lone leftover character gives none.
RT_API void RtBase64Decode(const char* aSrc, CRtString& aDest);

// ---- MD5 (RFC 1321) ----------------------------------------------------------

// The working state of one digest. Hosts read only `digest`, after RtMD5Final.
struct RtMD5Context {
    uint32_t count[2];         // message length in bits, low word first
    uint32_t state[4];         // chaining values A, B, C, D
    unsigned char buffer[64];  // input not yet processed
    unsigned char digest[16];  // the result, filled by RtMD5Final
};

RT_API void RtMD5Init(RtMD5Context* aCtx);
RT_API void RtMD5Update(RtMD5Context* aCtx, const unsigned char* aInput, unsigned int aLen);
// Pads the message and leaves the digest in aCtx->digest; start again with
// RtMD5Init for another message.
RT_API void RtMD5Final(RtMD5Context* aCtx);

// The digest of aLen bytes, written to aDigest (16 bytes) and returned. With a
// null aDigest, a static buffer of the library is filled and returned; the
// next such call overwrites it. Null aData with a non-zero aLen is an error:
// the output is all zeros.
RT_API unsigned char* RtMD5(const unsigned char* aData, unsigned long aLen, unsigned char* aDigest);

// ---- Strings and the local host ----------------------------------------------

// The last position in aStr where aSub occurs, comparing ASCII letters without
// regard to case; null when either is null or empty, or there is none.
RT_API char* rt_strcaserstr(const char* aStr, const char* aSub);

// The first IPv4 address of the local host name, in network byte order; 0 when
// the name or its address cannot be had. Blocks while the name is resolved.
RT_API unsigned long RtGetLocalIP();

// ---- COM initialisation, counted per thread ----------------------------------

// The first call on a thread initialises COM there (RT_OK), later calls only
// count (RT_OK). RT_ERROR_FAILURE, with a warning, when COM was initialised on
// the thread by someone else; such a thread gets no record.
RT_API int RtCoInitialize();
// Balances one RtCoInitialize of the calling thread; the last one uninitialises
// COM. A thread without a record gets a warning and nothing else.
RT_API void RtCoUninitialize();

#endif  // RTUTILCLASSES_H
