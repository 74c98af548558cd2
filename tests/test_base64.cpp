#include <gtest/gtest.h>

#include <cstring>
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

CRtString RandomBytes(size_t aLen, unsigned aSeed) {
    std::mt19937 gen(aSeed);
    CRtString bytes(aLen, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(gen() & 0xFF);
    }
    return bytes;
}

bool IsAlphabet(char aChar) {
    return (aChar >= 'A' && aChar <= 'Z') || (aChar >= 'a' && aChar <= 'z') ||
           (aChar >= '0' && aChar <= '9') || aChar == '+' || aChar == '/';
}

}  // namespace

TEST(Base64, EncodesAndDecodesTheRfc4648Vectors) {
    const char* const kVectors[][2] = {{"", ""},
                                       {"f", "Zg=="},
                                       {"fo", "Zm8="},
                                       {"foo", "Zm9v"},
                                       {"foob", "Zm9vYg=="},
                                       {"fooba", "Zm9vYmE="},
                                       {"foobar", "Zm9vYmFy"}};
    for (const auto& v : kVectors) {
        EXPECT_EQ(Encode(v[0]), v[1]) << v[0];
        EXPECT_EQ(Decode(v[1]), v[0]) << v[1];
    }
}

TEST(Base64, EncodesAllByteValuesWithTheStandardAlphabet) {
    EXPECT_EQ(Encode(CRtString("\xfb\xff\xbf", 3)), "+/+/");
    EXPECT_EQ(Encode(CRtString("\0\0\0", 3)), "AAAA");
    EXPECT_EQ(Decode("+/+/"), CRtString("\xfb\xff\xbf", 3));
}

TEST(Base64, RoundTripsRandomDataOfEveryLengthUpTo300) {
    for (size_t len = 0; len <= 300; ++len) {
        const CRtString bytes = RandomBytes(len, static_cast<unsigned>(len) + 1);
        const CRtString text = Encode(bytes);
        ASSERT_EQ(text.size(), (len + 2) / 3 * 4) << len;
        const size_t pad = (3 - len % 3) % 3;
        for (size_t i = 0; i < text.size(); ++i) {
            if (i >= text.size() - pad) {
                EXPECT_EQ(text[i], '=') << len;
            } else {
                EXPECT_TRUE(IsAlphabet(text[i])) << len << " at " << i;
            }
        }
        ASSERT_EQ(Decode(text.c_str()), bytes) << len;
        // Without padding the text decodes to the same bytes.
        ASSERT_EQ(Decode(text.substr(0, text.size() - pad).c_str()), bytes) << len;
    }
}

TEST(Base64, DecodingSkipsLeadingBlanksAndEndsOutsideTheAlphabet) {
    const char* const kCases[][2] = {
        // Only leading spaces and tabs are skipped.
        {"  YQ==", "a"},
        {"\t \tYWJj", "abc"},
        {"\nYWJj", ""},
        {"\rYWJj", ""},
        {"YW Jj", "a"},
        // The first character outside the alphabet ends the text.
        {"YWI=", "ab"},
        {"YWI", "ab"},
        {"YWJj\nYWJj", "abc"},
        {"YWJj\r\nYWJj", "abc"},
        {"YQ==YWJj", "a"},  // padding in the middle ends the text
        {"=YWJj", ""},
        {"-_-_", ""},  // the URL-safe alphabet is not this one
        {"YWJj\x80YWJj", "abc"},
        {"\xffYWJj", ""},
        // A lone leftover character gives no byte.
        {"Y", ""},
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
}

TEST(Base64, DecodeTableKnowsExactlyTheAlphabet) {
    // A byte inside a group either continues the text or ends it.
    for (int c = 1; c < 256; ++c) {
        const char text[] = {'Y', 'W', static_cast<char>(c), 'j', '\0'};
        const CRtString bytes = Decode(text);
        if (IsAlphabet(static_cast<char>(c))) {
            EXPECT_EQ(bytes.size(), 3u) << c;
        } else {
            EXPECT_EQ(bytes, "a") << c;
        }
    }
}

TEST(Base64, NullAndEmptyInputsGiveEmptyResults) {
    CRtString out("old");
    RtBase64Encode(nullptr, 0, out);
    EXPECT_EQ(out, "");
    out = "old";
    RtBase64Encode(nullptr, 12, out);
    EXPECT_EQ(out, "");
    out = "old";
    RtBase64Encode(reinterpret_cast<const unsigned char*>("abc"), 0, out);
    EXPECT_EQ(out, "");
    out = "old";
    RtBase64Decode(nullptr, out);
    EXPECT_EQ(out, "");
}

TEST(Base64, InputMayLiveInTheDestination) {
    CRtString s("foobar");
    RtBase64Encode(reinterpret_cast<const unsigned char*>(s.data()), s.size(), s);
    EXPECT_EQ(s, "Zm9vYmFy");
    RtBase64Decode(s.c_str(), s);
    EXPECT_EQ(s, "foobar");
}

TEST(Base64, RoundTripsSeveralMebibytes) {
    const size_t kLen = 5 * 1024 * 1024 + 1;
    const CRtString bytes = RandomBytes(kLen, 42);
    CRtString text = Encode(bytes);
    ASSERT_EQ(text.size(), (kLen + 2) / 3 * 4);
    EXPECT_EQ(Decode(text.c_str()), bytes);

    // A line break in the middle of a long text ends it there.
    text[4 * 1000] = '\n';
    EXPECT_EQ(Decode(text.c_str()), bytes.substr(0, 3 * 1000));
}
