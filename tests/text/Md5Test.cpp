// MD5 digests and hex rendering. Expected values were computed with md5sum on this machine.
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <string>

using ZOTH::STRING_UTIL;

namespace {

std::string Md5Hex(const std::string& bytes) {
    unsigned char digest[16];
    STRING_UTIL::String2Md5(bytes, digest);
    return STRING_UTIL::Hex2String(digest, 16);
}

// Byte i is (i * 131 + 7) mod 256.
std::string Pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>((i * 131 + 7) & 0xFF);
    return bytes;
}

} // namespace

TEST(TextMd5, Rfc1321VectorsAndBlockBoundaries) {
    const struct {
        std::string text;
        const char* md5;
    } rfc[] = {
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
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"}, // many blocks straight from input
    };
    for (const auto& c : rfc)
        EXPECT_EQ(Md5Hex(c.text), c.md5) << c.text.substr(0, 20);

    // At 55 bytes padding and length fit in the last block; from 56 they need one more.
    const struct {
        size_t length;
        const char* md5;
    } boundaries[] = {
        {1, "89e74e640b8c46257a29de0616794d5d"},    {3, "685e7341789ffe8fd8cf4fab0fd60033"},
        {55, "852e13533f66e414bbbbb3348de4f81f"},   {56, "98e8cb3457434649644b5fe9f4e5e4fa"},
        {57, "d04618e1f7181650056a79ed93eaef2a"},   {63, "c9803ddca3b148d91d5f214be64197d4"},
        {64, "bc00c8534af1e5aef0ede584d8ad5bc3"},   {65, "4e114d3e0baf5ace365e0552a3273291"},
        {119, "e0c0cb3cbc027ba4d5a6c983754f2dc1"},  {120, "3d7a96a57e721a4e2c2cbe55937e10e2"},
        {121, "bba7f6420bd45bef75df38704eeff97f"},  {128, "154b8c17cfb174384edd9557e3e64e2b"},
        {1000, "0b8ae90ded6089334e353eb2669ab5e6"},
    };
    for (const auto& c : boundaries) {
        std::string bytes = "x" + Pattern(c.length); // read from offset 1: unaligned input
        unsigned char digest[16];
        STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(bytes.data()) + 1,
                                static_cast<unsigned int>(c.length), digest);
        EXPECT_EQ(STRING_UTIL::Hex2String(digest, 16), c.md5) << "length " << c.length;
    }
}

TEST(TextMd5, IntegerFormInputFormsAndHex) {
    // The integer is the first four digest bytes, little-endian: d4 1d 8c d9 for the empty message.
    unsigned char unused = 0xAB;
    EXPECT_EQ(STRING_UTIL::Buffer2Md5(&unused, 0), 0xD98C1DD4u);
    EXPECT_EQ(STRING_UTIL::Buffer2Md5(nullptr, 0), 0xD98C1DD4u); // not read at length 0
    std::string abc = "abc";
    EXPECT_EQ(STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(abc.data()), 3), 0x98500190u);

    // The string form digests embedded NULs; the pointer form stops at the first one.
    std::string withNul("ab\0cd", 5);
    EXPECT_EQ(Md5Hex(withNul), "5d622b3d4d8cc07754fd386e7f29326e");
    unsigned char digest[16];
    STRING_UTIL::String2Md5(withNul.c_str(), digest);
    EXPECT_EQ(STRING_UTIL::Hex2String(digest, 16), "187ef4436122d1cc2f40dc2b92f0eba0");

    unsigned char bytes[] = {0x00, 0x01, 0x0f, 0x10, 0x7f, 0x80, 0xab, 0xff};
    EXPECT_EQ(STRING_UTIL::Hex2String(bytes, sizeof bytes), "00010f107f80abff");
    EXPECT_EQ(STRING_UTIL::Hex2String(bytes, 0), "");
    EXPECT_EQ(STRING_UTIL::Hex2String(nullptr, 16), "");
}
