// Base64: decoding any text never reads past its terminator, and encoding any
// bytes then decoding the text gives the bytes back.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "rtutilclasses.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    // An exactly sized copy, so that the sanitizer sees any read past the end.
    char* text = static_cast<char*>(std::malloc(aSize + 1));
    if (!text) {
        return 0;
    }
    if (aSize > 0) {
        std::memcpy(text, aData, aSize);
    }
    text[aSize] = '\0';
    CRtString decoded;
    RtBase64Decode(text, decoded);
    std::free(text);
    if (decoded.size() > aSize / 4 * 3 + 2) {
        std::abort();
    }

    CRtString encoded;
    RtBase64Encode(aData, aSize, encoded);
    if (encoded.size() != (aSize + 2) / 3 * 4) {
        std::abort();
    }
    CRtString back;
    RtBase64Decode(encoded.c_str(), back);
    if (back.size() != aSize || (aSize > 0 && std::memcmp(back.data(), aData, aSize) != 0)) {
        std::abort();
    }
    return 0;
}
