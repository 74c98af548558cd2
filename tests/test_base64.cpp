#include <gtest/gtest.h>

#include <random>

#include "rtutilclasses.h"

namespace {

CRtString Encode(const CRtString& aBytes) {
    CRtString text;
    RtBase64Encode(reinterpret_cast<const unsigned char*>(aBytes.data()), aBytes.size(), text);
    return text;
}

CRtString Decode(const char* aText) {
    CRtString bytes("left over");
    RtBase64Decode(aText, bytes);
    return bytes;
}

bool IsAlphabet(int aChar) {
    return (aChar >= 'A' && aChar <= 'Z') || (aChar >= 'a' && aChar <= 'z') ||
           (aChar >= '0' && aChar <= '9') || aChar == '+' || aChar == '/';
}

}  // namespace

TEST(Base64, EncodesAndDecodesKnownAnswers) {
    const struct {
        CRtString bytes;
        const char* text;
    } kVectors[] = {
        // RFC 4648, section 10
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        // The last two letters of the alphabet, and zero bytes.
        {CRtString("\xfb\xff\xbf", 3), "+/+/"},
        {CRtString("\0\0\0", 3), "AAAA"},
    };
    for (const auto& v : kVectors) {
        EXPECT_EQ(Encode(v.bytes), v.text) << v.text;
        EXPECT_EQ(Decode(v.text), v.bytes) << v.text;
    }
}

TEST(Base64, DecodingSkipsLeadingBlanksAndEndsOutsideTheAlphabet) {
    const char* const kCases[][2] = {
        // Only leading spaces and tabs are skipped.
        {"  YQ==", "a"},
        {"\t \tYWJj", "abc"},
        {"\nYWJj", ""},
        {"YW Jj", "a"},
        // The first character outside the alphabet ends the text.
        {"YWI=", "ab"},
        {"YWI", "ab"},
        {"YWJj\nYWJj", "abc"},
        {"YQ==YWJj", "a"},  // padding in the middle ends the text
        {"=YWJj", ""},
        {"\xffYWJj", ""},
        // A lone leftover character gives no byte.
        {"YWJjY", "abc"},
        {"YWJjY=", "abc"},
        {"YWJjYW", "abca"},
        {"YWJjYWI", "abcab"},
        {"", ""},
        {"   \t", ""},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(Decode(c[0]), c[1]) << c[0];
    }

    // A byte inside a group either continues the text or ends it: the URL-safe
    // alphabet and high bytes are outside.
    for (int c = 1; c < 256; ++c) {
        const char text[] = {'Y', 'W', static_cast<char>(c), 'j', '\0'};
        EXPECT_EQ(Decode(text).size(), IsAlphabet(c) ? 3u : 1u) << c;
    }
}

TEST(Base64, NullInputsGiveEmptyResultsAndInputMayLiveInTheDestination) {
    CRtString out("old");
    RtBase64Encode(nullptr, 12, out);
    EXPECT_EQ(out, "");
    out = "old";
    RtBase64Encode(reinterpret_cast<const unsigned char*>("abc"), 0, out);
    EXPECT_EQ(out, "");
    out = "old";
    RtBase64Decode(nullptr, out);
    EXPECT_EQ(out, "");

    CRtString s("foobar");
    RtBase64Encode(reinterpret_cast<const unsigned char*>(s.data()), s.size(), s);
    EXPECT_EQ(s, "Zm9vYmFy");
    RtBase64Decode(s.c_str(), s);
    EXPECT_EQ(s, "foobar");
}

// Far longer than any fuzz input: no size limit hides in the loops.
TEST(Base64, RoundTripsSeveralMebibytes) {
    const size_t kLen = 5 * 1024 * 1024 + 1;
    std::mt19937 gen(42);
    CRtString bytes(kLen, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(gen() & 0xFF);
    }
    CRtString text = Encode(bytes);
    ASSERT_EQ(text.size(), (kLen + 2) / 3 * 4);
    EXPECT_EQ(Decode(text.c_str()), bytes);

    // A line break in the middle of a long text ends it there.
    text[4 * 1000] = '\n';
    EXPECT_EQ(Decode(text.c_str()), bytes.substr(0, 3 * 1000));
}
