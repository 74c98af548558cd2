// The MD5 message digest of RFC 1321. The block function keeps the sixteen
// input words in locals and uses the shortened dependency chains of the round
// functions, which is what makes plain C run near hand-written assembly.
#include <cstring>

#include "rtdebug.h"
#include "rtutilclasses.h"

namespace {

// Little-endian loads and stores, written so that compilers turn them into
// single moves on little-endian machines and stay correct elsewhere.
inline uint32_t Load32(const unsigned char* aPtr) {
    return uint32_t(aPtr[0]) | (uint32_t(aPtr[1]) << 8) | (uint32_t(aPtr[2]) << 16) |
           (uint32_t(aPtr[3]) << 24);
}

inline void Store32(unsigned char* aPtr, uint32_t aValue) {
    aPtr[0] = static_cast<unsigned char>(aValue);
    aPtr[1] = static_cast<unsigned char>(aValue >> 8);
    aPtr[2] = static_cast<unsigned char>(aValue >> 16);
    aPtr[3] = static_cast<unsigned char>(aValue >> 24);
}

inline uint32_t Rotl(uint32_t aValue, int aBits) {
    return (aValue << aBits) | (aValue >> (32 - aBits));
}

// F = (b & c) | (~b & d), with one operation less.
inline void StepF(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t aWord, uint32_t aK,
                  int aShift) {
    a += (d ^ (b & (c ^ d))) + aWord + aK;
    a = Rotl(a, aShift) + b;
}

// G = (b & d) | (c & ~d); the two halves never share a bit, so they are added
// one after the other and the part without b starts before b is known.
inline void StepG(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t aWord, uint32_t aK,
                  int aShift) {
    a += aWord + aK + (c & ~d);
    a += b & d;
    a = Rotl(a, aShift) + b;
}

inline void StepH(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t aWord, uint32_t aK,
                  int aShift) {
    a += (b ^ c ^ d) + aWord + aK;
    a = Rotl(a, aShift) + b;
}

inline void StepI(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t aWord, uint32_t aK,
                  int aShift) {
    a += (c ^ (b | ~d)) + aWord + aK;
    a = Rotl(a, aShift) + b;
}

void Transform(uint32_t aState[4], const unsigned char* aBlocks, size_t aCount) {
    uint32_t a = aState[0];
    uint32_t b = aState[1];
    uint32_t c = aState[2];
    uint32_t d = aState[3];
    for (; aCount > 0; --aCount, aBlocks += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i) {
            x[i] = Load32(aBlocks + 4 * i);
        }
        const uint32_t aa = a, bb = b, cc = c, dd = d;

        StepF(a, b, c, d, x[0], 0xd76aa478, 7);
        StepF(d, a, b, c, x[1], 0xe8c7b756, 12);
        StepF(c, d, a, b, x[2], 0x242070db, 17);
        StepF(b, c, d, a, x[3], 0xc1bdceee, 22);
        StepF(a, b, c, d, x[4], 0xf57c0faf, 7);
        StepF(d, a, b, c, x[5], 0x4787c62a, 12);
        StepF(c, d, a, b, x[6], 0xa8304613, 17);
        StepF(b, c, d, a, x[7], 0xfd469501, 22);
        StepF(a, b, c, d, x[8], 0x698098d8, 7);
        StepF(d, a, b, c, x[9], 0x8b44f7af, 12);
        StepF(c, d, a, b, x[10], 0xffff5bb1, 17);
        StepF(b, c, d, a, x[11], 0x895cd7be, 22);
        StepF(a, b, c, d, x[12], 0x6b901122, 7);
        StepF(d, a, b, c, x[13], 0xfd987193, 12);
        StepF(c, d, a, b, x[14], 0xa679438e, 17);
        StepF(b, c, d, a, x[15], 0x49b40821, 22);

        StepG(a, b, c, d, x[1], 0xf61e2562, 5);
        StepG(d, a, b, c, x[6], 0xc040b340, 9);
        StepG(c, d, a, b, x[11], 0x265e5a51, 14);
        StepG(b, c, d, a, x[0], 0xe9b6c7aa, 20);
        StepG(a, b, c, d, x[5], 0xd62f105d, 5);
        StepG(d, a, b, c, x[10], 0x02441453, 9);
        StepG(c, d, a, b, x[15], 0xd8a1e681, 14);
        StepG(b, c, d, a, x[4], 0xe7d3fbc8, 20);
        StepG(a, b, c, d, x[9], 0x21e1cde6, 5);
        StepG(d, a, b, c, x[14], 0xc33707d6, 9);
        StepG(c, d, a, b, x[3], 0xf4d50d87, 14);
        StepG(b, c, d, a, x[8], 0x455a14ed, 20);
        StepG(a, b, c, d, x[13], 0xa9e3e905, 5);
        StepG(d, a, b, c, x[2], 0xfcefa3f8, 9);
        StepG(c, d, a, b, x[7], 0x676f02d9, 14);
        StepG(b, c, d, a, x[12], 0x8d2a4c8a, 20);

        StepH(a, b, c, d, x[5], 0xfffa3942, 4);
        StepH(d, a, b, c, x[8], 0x8771f681, 11);
        StepH(c, d, a, b, x[11], 0x6d9d6122, 16);
        StepH(b, c, d, a, x[14], 0xfde5380c, 23);
        StepH(a, b, c, d, x[1], 0xa4beea44, 4);
        StepH(d, a, b, c, x[4], 0x4bdecfa9, 11);
        StepH(c, d, a, b, x[7], 0xf6bb4b60, 16);
        StepH(b, c, d, a, x[10], 0xbebfbc70, 23);
        StepH(a, b, c, d, x[13], 0x289b7ec6, 4);
        StepH(d, a, b, c, x[0], 0xeaa127fa, 11);
        StepH(c, d, a, b, x[3], 0xd4ef3085, 16);
        StepH(b, c, d, a, x[6], 0x04881d05, 23);
        StepH(a, b, c, d, x[9], 0xd9d4d039, 4);
        StepH(d, a, b, c, x[12], 0xe6db99e5, 11);
        StepH(c, d, a, b, x[15], 0x1fa27cf8, 16);
        StepH(b, c, d, a, x[2], 0xc4ac5665, 23);

        StepI(a, b, c, d, x[0], 0xf4292244, 6);
        StepI(d, a, b, c, x[7], 0x432aff97, 10);
        StepI(c, d, a, b, x[14], 0xab9423a7, 15);
        StepI(b, c, d, a, x[5], 0xfc93a039, 21);
        StepI(a, b, c, d, x[12], 0x655b59c3, 6);
        StepI(d, a, b, c, x[3], 0x8f0ccc92, 10);
        StepI(c, d, a, b, x[10], 0xffeff47d, 15);
        StepI(b, c, d, a, x[1], 0x85845dd1, 21);
        StepI(a, b, c, d, x[8], 0x6fa87e4f, 6);
        StepI(d, a, b, c, x[15], 0xfe2ce6e0, 10);
        StepI(c, d, a, b, x[6], 0xa3014314, 15);
        StepI(b, c, d, a, x[13], 0x4e0811a1, 21);
        StepI(a, b, c, d, x[4], 0xf7537e82, 6);
        StepI(d, a, b, c, x[11], 0xbd3af235, 10);
        StepI(c, d, a, b, x[2], 0x2ad7d2bb, 15);
        StepI(b, c, d, a, x[9], 0xeb86d391, 21);

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    aState[0] = a;
    aState[1] = b;
    aState[2] = c;
    aState[3] = d;
}

unsigned char s_md5Digest[16];

}  // namespace

void RtMD5Init(RtMD5Context* aCtx) {
    RT_ASSERTE_RETURN_VOID(aCtx);
    std::memset(aCtx, 0, sizeof(*aCtx));
    aCtx->state[0] = 0x67452301;
    aCtx->state[1] = 0xefcdab89;
    aCtx->state[2] = 0x98badcfe;
    aCtx->state[3] = 0x10325476;
}

void RtMD5Update(RtMD5Context* aCtx, const unsigned char* aInput, unsigned int aLen) {
    RT_ASSERTE_RETURN_VOID(aCtx);
    if (aLen == 0) {
        return;
    }
    RT_ASSERTE_RETURN_VOID(aInput);
    const uint64_t oldBits = (uint64_t(aCtx->count[1]) << 32) | aCtx->count[0];
    const uint64_t newBits = oldBits + (uint64_t(aLen) << 3);
    aCtx->count[0] = static_cast<uint32_t>(newBits);
    aCtx->count[1] = static_cast<uint32_t>(newBits >> 32);

    size_t have = static_cast<size_t>(oldBits >> 3) & 0x3F;
    size_t left = aLen;
    if (have > 0) {
        const size_t take = left < 64 - have ? left : 64 - have;
        std::memcpy(aCtx->buffer + have, aInput, take);
        aInput += take;
        left -= take;
        have += take;
        if (have < 64) {
            return;
        }
        Transform(aCtx->state, aCtx->buffer, 1);
    }
    // Whole blocks straight from the caller's memory, without a copy.
    if (left >= 64) {
        Transform(aCtx->state, aInput, left / 64);
        aInput += left / 64 * 64;
        left %= 64;
    }
    if (left > 0) {
        std::memcpy(aCtx->buffer, aInput, left);
    }
}

void RtMD5Final(RtMD5Context* aCtx) {
    RT_ASSERTE_RETURN_VOID(aCtx);
    // A 1 bit, zeros up to 56 bytes past a block boundary, then the length.
    unsigned char trailer[64 + 8] = {0x80};
    const size_t have = (aCtx->count[0] >> 3) & 0x3F;
    const size_t padLen = have < 56 ? 56 - have : 120 - have;
    Store32(trailer + padLen, aCtx->count[0]);
    Store32(trailer + padLen + 4, aCtx->count[1]);

    uint32_t state[4];
    std::memcpy(state, aCtx->state, sizeof(state));
    unsigned char last[128];
    std::memcpy(last, aCtx->buffer, have);
    std::memcpy(last + have, trailer, padLen + 8);
    Transform(state, last, (have + padLen + 8) / 64);

    for (int i = 0; i < 4; ++i) {
        Store32(aCtx->digest + 4 * i, state[i]);
    }
    // The digest stays; what could tell about the message goes.
    std::memset(aCtx->count, 0, sizeof(aCtx->count));
    std::memset(aCtx->state, 0, sizeof(aCtx->state));
    std::memset(aCtx->buffer, 0, sizeof(aCtx->buffer));
}

unsigned char* RtMD5(const unsigned char* aData, unsigned long aLen, unsigned char* aDigest) {
    unsigned char* digest = aDigest ? aDigest : s_md5Digest;
    if (aLen > 0 && !aData) {
        std::memset(digest, 0, 16);
    }
    RT_ASSERTE_RETURN(aLen == 0 || aData, digest);

    RtMD5Context ctx;
    RtMD5Init(&ctx);
    // RtMD5Update takes an unsigned int length; feed longer data in slices.
    const unsigned long kSlice = 1ul << 30;
    while (aLen > 0) {
        const unsigned long n = aLen < kSlice ? aLen : kSlice;
        RtMD5Update(&ctx, aData, static_cast<unsigned int>(n));
        aData += n;
        aLen -= n;
    }
    RtMD5Final(&ctx);
    std::memcpy(digest, ctx.digest, 16);
    return digest;
}
