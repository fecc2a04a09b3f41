// STRING_UTIL Base64: encoding shape, round trips of arbitrary bytes and the decoder's rules.
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using ZOTH::STRING_UTIL;

TEST(TextBase64, EncodeShape) {
    EXPECT_EQ(STRING_UTIL::Base64Encode(""), "");
    EXPECT_EQ(STRING_UTIL::Base64Encode("f"), "Zg==");
    EXPECT_EQ(STRING_UTIL::Base64Encode("fo"), "Zm8=");
    EXPECT_EQ(STRING_UTIL::Base64Encode("foo"), "Zm9v");
    EXPECT_EQ(STRING_UTIL::Base64Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(STRING_UTIL::Base64Encode("fooba"), "Zm9vYmE=");
    EXPECT_EQ(STRING_UTIL::Base64Encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(STRING_UTIL::Base64Encode(std::string(3, '\0')), "AAAA");
    EXPECT_EQ(STRING_UTIL::Base64Encode(std::string(1, '\0')), "AA==");
    EXPECT_EQ(STRING_UTIL::Base64Encode("\xFB\xFF\xBF"), "+/+/"); // the two last alphabet characters
    EXPECT_EQ(STRING_UTIL::Base64Encode("\xFF"), "/w==");         // missing bits are zero

    // A long input goes through the block paths; expected text made with the base64 command.
    std::string steps;
    for (int b = 0; b < 256; b += 5)
        steps += static_cast<char>(b);
    for (int b = 255; b > 0; b -= 7)
        steps += static_cast<char>(b);
    EXPECT_EQ(
        STRING_UTIL::Base64Encode(steps),
        "AAUKDxQZHiMoLTI3PEFGS1BVWl9kaW5zeH2Ch4yRlpugpaqvtLm+w8jN0tfc4ebr8PX6///48erj3NXOx8C5squknZaPiIF6c2xl"
        "XldQSUI7NC0mHxgRCgM=");

    // Length always a multiple of 4, no line break however long.
    for (size_t n : {1u, 2u, 3u, 57u, 58u, 76u, 1000u, 100000u}) {
        std::string text = STRING_UTIL::Base64Encode(std::string(n, '\xAB'));
        EXPECT_EQ(text.size(), (n + 2) / 3 * 4) << n;
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos) << n;
    }
}

TEST(TextBase64, RoundTripRandomBytesWithNuls) {
    std::mt19937 random(20261123);
    for (size_t n = 1; n < 300; ++n) {
        std::string bytes(n, '\0');
        for (auto& b : bytes)
            b = static_cast<char>(random() % 4 == 0 ? 0 : random() & 0xFF); // many NULs
        std::string text = STRING_UTIL::Base64Encode(bytes);
        ASSERT_EQ(text.size(), (n + 2) / 3 * 4);
        ASSERT_EQ(STRING_UTIL::Base64Decode(text), bytes) << "length " << n;
    }
    std::string big(1 << 20, '\0');
    for (auto& b : big)
        b = static_cast<char>(random());
    EXPECT_EQ(STRING_UTIL::Base64Decode(STRING_UTIL::Base64Encode(big)), big);
    // Every byte value survives.
    std::string all;
    for (int b = 0; b < 256; ++b)
        all += static_cast<char>(b);
    EXPECT_EQ(STRING_UTIL::Base64Decode(STRING_UTIL::Base64Encode(all)), all);
}

TEST(TextBase64, DecodeRejectsWholeText) {
    EXPECT_EQ(STRING_UTIL::Base64Decode(""), "");
    EXPECT_EQ(STRING_UTIL::Base64Decode("Q"), "");
    EXPECT_EQ(STRING_UTIL::Base64Decode("QQ"), "");
    EXPECT_EQ(STRING_UTIL::Base64Decode("QQE"), "");
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zm9vYmFy="), ""); // length not a multiple of 4
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zm9v YmE="), ""); // still 9 characters
    // One bad character anywhere fails the whole text, nothing partial.
    for (const char* bad : {"Zm9vYm y", "Zm9v\nmFy", "Zm9vYm-y", "Zm9vYm_y", "Zm9vYm\xC3y", "\x80m9vYmFy"})
        EXPECT_EQ(STRING_UTIL::Base64Decode(bad), "") << bad;
}

TEST(TextBase64, DecodeQuirks) {
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zm9vYmFy"), "foobar");
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zg=="), "f");
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zm8="), "fo");
    // Input ends at the first NUL: the first group only.
    EXPECT_EQ(STRING_UTIL::Base64Decode(std::string("Zm9v\0YmFy", 9)), "foo");
    EXPECT_EQ(STRING_UTIL::Base64Decode(std::string("Zm9\0", 4)), "");
    // The low bits of the last real character are ignored.
    EXPECT_EQ(STRING_UTIL::Base64Decode("QR=="), "A");
    EXPECT_EQ(STRING_UTIL::Base64Decode("QQ=="), "A");
    EXPECT_EQ(STRING_UTIL::Base64Decode("Zm9="), "fo");
    // "=" away from the final padding counts as 255 in 8-bit arithmetic.
    EXPECT_EQ(STRING_UTIL::Base64Decode("===="), std::string("\x0B", 1));
    EXPECT_EQ(STRING_UTIL::Base64Decode("AA=A"), std::string("\x00\x3F\xC0", 3));
    EXPECT_EQ(STRING_UTIL::Base64Decode("=AAA"), std::string("\xFC\x00\x00", 3));
    EXPECT_EQ(STRING_UTIL::Base64Decode("A=AAZm9v"), std::string("\x0F\xF0\x00"
                                                                 "foo",
                                                                 6));
    // NUL bytes decode by count, not cut at the first one.
    EXPECT_EQ(STRING_UTIL::Base64Decode("AAAA"), std::string(3, '\0'));
    EXPECT_EQ(STRING_UTIL::Base64Decode("AAAAQQ=="), std::string("\0\0\0A", 4));

    // Long texts go through the block paths: every alphabet character, and a block holding "=" or a
    // bad byte somewhere in the middle.
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text = alphabet + alphabet + alphabet + alphabet;
    EXPECT_EQ(STRING_UTIL::Base64Encode(STRING_UTIL::Base64Decode(text)), text);
    std::string blocks(64, 'A');
    EXPECT_EQ(STRING_UTIL::Base64Decode(blocks + "AA=A" + blocks),
              std::string(48, '\0') + std::string("\x00\x3F\xC0", 3) + std::string(48, '\0'));
    for (size_t at : {0u, 5u, 17u, 31u, 64u, 100u, 131u}) {
        std::string bad = blocks + blocks + "AAAA";
        bad[at] = '.';
        EXPECT_EQ(STRING_UTIL::Base64Decode(bad), "") << at;
    }
}
