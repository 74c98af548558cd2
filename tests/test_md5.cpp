#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "rtutilclasses.h"

namespace {

std::string Hex(const unsigned char* aDigest) {
    static const char kHex[] = "0123456789abcdef";
    std::string s;
    for (int i = 0; i < 16; ++i) {
        s += kHex[aDigest[i] >> 4];
        s += kHex[aDigest[i] & 0xF];
    }
    return s;
}

std::string Md5Hex(const std::string& aData) {
    unsigned char digest[16];
    return Hex(RtMD5(reinterpret_cast<const unsigned char*>(aData.data()), aData.size(), digest));
}

std::string Pattern(size_t aLen) {
    std::string s(aLen, '\0');
    for (size_t i = 0; i < aLen; ++i) {
        s[i] = static_cast<char>((i * 7 + 3) & 0xFF);
    }
    return s;
}

const unsigned char* Bytes(const char* aText) {
    return reinterpret_cast<const unsigned char*>(aText);
}

}  // namespace

TEST(Md5, DigestsTheRfc1321VectorsAndLengthsAroundBlockBoundaries) {
    const std::pair<std::string, const char*> kVectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
        // The padding's edge cases: the length field fits, or takes a block.
        {Pattern(55), "52c0e574e1198de5fe3f8f11440dcb1b"},
        {Pattern(56), "46c9907fc908ee68b1e7b8e71286a518"},
        {Pattern(57), "1c805dd236c35cab25fcb1bc73802c51"},
        {Pattern(63), "a62f6d59e837867693f042f5b8f5a236"},
        {Pattern(64), "7160b8fb5e9e4023d549c3971fbaeead"},
        {Pattern(65), "70bd662e7aefbda85a0f7244167b7897"},
        {Pattern(119), "e84905d4214f4d1ca56c2cdcc152b143"},
        {Pattern(120), "e3eb5a6c8669ea01a8c185b8abc8a5dc"},
        {Pattern(128), "10b2da1a82f16d99a81a7203fe9f02cb"},
        {Pattern(1000), "10046f077f2082ac19676b8079f1cb1a"},
    };
    for (const auto& v : kVectors) {
        EXPECT_EQ(Md5Hex(v.first), v.second) << v.first.size() << " bytes";
    }
}

// One context, restarted by RtMD5Init for every split.
TEST(Md5, PiecewiseUpdatesGiveTheOneShotDigestAndFinalWipesTheState) {
    std::mt19937 gen(7);
    std::string data(300, '\0');
    for (char& c : data) {
        c = static_cast<char>(gen());
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    const std::string whole = Md5Hex(data);
    RtMD5Context ctx;
    for (unsigned split = 0; split <= data.size(); ++split) {
        RtMD5Init(&ctx);
        RtMD5Update(&ctx, bytes, split);
        RtMD5Update(&ctx, bytes + split, 0);
        // The rest in uneven pieces, so the buffer fills from every offset.
        for (unsigned pos = split, step = 1; pos < data.size();
             pos += step, step = step * 3 % 71 + 1) {
            RtMD5Update(&ctx, bytes + pos, std::min<unsigned>(step, data.size() - pos));
        }
        RtMD5Final(&ctx);
        ASSERT_EQ(Hex(ctx.digest), whole) << split;
        ASSERT_EQ(ctx.count[0] | ctx.state[0], 0u) << "nothing of the message is left behind";
    }
}

TEST(Md5, NullArgumentsAreRefusedAndANullOutputSharesOneStaticBuffer) {
    RtMD5Init(nullptr);
    RtMD5Update(nullptr, Bytes("a"), 1);
    RtMD5Final(nullptr);
    RtMD5Context ctx;
    RtMD5Init(&ctx);
    RtMD5Update(&ctx, nullptr, 0);
    RtMD5Update(&ctx, nullptr, 100);  // refused: the message stays empty
    RtMD5Final(&ctx);
    EXPECT_EQ(Hex(ctx.digest), "d41d8cd98f00b204e9800998ecf8427e");

    unsigned char digest[16];
    std::memset(digest, 0xAA, sizeof(digest));
    EXPECT_EQ(RtMD5(nullptr, 10, digest), digest);
    EXPECT_EQ(Hex(digest), std::string(32, '0'));
    EXPECT_EQ(Hex(RtMD5(nullptr, 0, digest)), "d41d8cd98f00b204e9800998ecf8427e");

    unsigned char* first = RtMD5(Bytes("a"), 1, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(Hex(first), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(RtMD5(Bytes("abc"), 3, nullptr), first);
    EXPECT_EQ(Hex(first), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(RtMD5(Bytes("a"), 1, digest), digest);  // a given output leaves it alone
    EXPECT_EQ(Hex(first), "900150983cd24fb0d6963f7d28e17f72");
}
