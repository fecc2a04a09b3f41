// STRING_UTIL Base64: encoding shape, round trips of arbitrary bytes and the decoder's rules.
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using ZOTH::STRING_UTIL;
using std::string_literals::operator""s;

TEST(TextBase64, Encode) {
    // The missing bits of a last partial group are zero.
    const struct {
        std::string bytes, text;
    } cases[] = {
        {"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
        {"\0\0\0"s, "AAAA"},  {"\0"s, "AA=="},       {"\xFB\xFF\xBF", "+/+/"},
        {"\xFF", "/w=="},
    };
    EXPECT_EQ(STRING_UTIL::Base64Encode(""), "");
    for (const auto& c : cases)
        EXPECT_EQ(STRING_UTIL::Base64Encode(c.bytes), c.text);

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
    for (size_t n : {57u, 58u, 76u, 100000u}) {
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
        ASSERT_EQ(STRING_UTIL::Base64Decode(STRING_UTIL::Base64Encode(bytes)), bytes) << "length " << n;
    }
    std::string big(1 << 20, '\0');
    for (auto& b : big)
        b = static_cast<char>(random());
    EXPECT_EQ(STRING_UTIL::Base64Decode(STRING_UTIL::Base64Encode(big)), big);
}

TEST(TextBase64, DecodeRulesAndQuirks) {
    // Input ends at the first NUL; the low bits of the last real character are ignored; "=" away from
    // the final padding counts as 255 in 8-bit arithmetic; NUL bytes decode by count.
    const struct {
        std::string text, bytes;
    } cases[] = {
        {"Zm9vYmFy", "foobar"},  {"Zg==", "f"},         {"Zm8=", "fo"},      {"Zm9v\0YmFy"s, "foo"},
        {"Zm9\0"s, ""},          {"QR==", "A"},         {"Zm9=", "fo"},      {"====", "\x0B"},
        {"AA=A", "\0\x3F\xC0"s}, {"=AAA", "\xFC\0\0"s}, {"AAAA", "\0\0\0"s}, {"AAAAQQ==", "\0\0\0A"s},
    };
    EXPECT_EQ(STRING_UTIL::Base64Decode("A=AAZm9v"), "\x0F\xF0\0foo"s);
    for (const auto& c : cases)
        EXPECT_EQ(STRING_UTIL::Base64Decode(c.text), c.bytes) << c.text;
    // A length that is no multiple of 4, or one bad character anywhere: nothing, not a piece.
    for (const char* bad : {"", "Q", "QQ", "QQE", "Zm9vYmFy=", "Zm9v YmE=", "Zm9vYm y", "Zm9v\nmFy",
                            "Zm9vYm-y", "Zm9vYm_y", "Zm9vYm\xC3y", "\x80m9vYmFy"})
        EXPECT_EQ(STRING_UTIL::Base64Decode(bad), "") << bad;

    // Long texts go through the block paths: every alphabet character, and a block holding "=" or a
    // bad byte somewhere in the middle.
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text = alphabet + alphabet + alphabet + alphabet;
    EXPECT_EQ(STRING_UTIL::Base64Encode(STRING_UTIL::Base64Decode(text)), text);
    std::string blocks(64, 'A');
    EXPECT_EQ(STRING_UTIL::Base64Decode(blocks + "AA=A" + blocks),
              std::string(48, '\0') + "\x00\x3F\xC0"s + std::string(48, '\0'));
    for (size_t at : {0u, 5u, 17u, 31u, 64u, 100u, 131u}) {
        std::string bad = blocks + blocks + "AAAA";
        bad[at] = '.';
        EXPECT_EQ(STRING_UTIL::Base64Decode(bad), "") << at;
    }
}
