// STRING_UTIL's URL text operations, taken literally: escaping, host and query parameters.
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <cctype>

#include <map>
#include <random>
#include <string>

using ZOTH::STRING_UTIL;
using Params = std::map<std::string, std::string>;
using std::string_literals::operator""s;

TEST(TextUrl, EncodeAndDecode) {
    const std::string unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
    EXPECT_EQ(STRING_UTIL::UrlEncode(unreserved), unreserved);
    EXPECT_EQ(STRING_UTIL::UrlEncode("a b+/:%&=?\xE4\xFF\x0a\0"s), "a+b%2B%2F%3A%25%26%3D%3F%E4%FF%0A%00");
    // Exactly the 66 unreserved bytes pass; every other byte but the space takes three characters.
    for (int b = 0; b < 256; ++b) {
        std::string in(1, static_cast<char>(b)), out = STRING_UTIL::UrlEncode(in);
        bool passes = unreserved.find(in) != std::string::npos;
        EXPECT_EQ(out.size(), passes || b == ' ' ? 1u : 3u) << b;
    }

    // Digits are 0-9 then letters as 10-35, anything else 0. An escape that runs off the end gives one
    // byte, its missing digits 0, and nothing past the text's size is read (a substring of a longer
    // buffer must not see the buffer's next bytes).
    const struct {
        std::string text, bytes;
    } decode[] = {
        {"a+b", "a b"},   {"a%2Bb", "a+b"}, {"%41%4a%4A", "AJJ"}, {"%e4%C3%a9", "\xE4\xC3\xA9"},
        {"%00", "\0"s},   {"%GZ", "\x23"},  {"%%41", "\x04\x31"}, {"%-1", "\x01"},
        {"%4-", "\x40"},  {"ab%", "ab\0"s}, {"ab%4", "ab\x40"},   {"%", "\0"s},
        {"%4A%", "J\0"s},
    };
    EXPECT_EQ(STRING_UTIL::UrlDecode(""), "");
    EXPECT_EQ(STRING_UTIL::UrlDecode("xx%41"s.substr(0, 3)), "xx\0"s);
    for (const auto& c : decode)
        EXPECT_EQ(STRING_UTIL::UrlDecode(c.text), c.bytes) << c.text;

    // Round trip over random bytes, NULs and spaces included.
    std::mt19937 rng(1234);
    for (int round = 0; round < 300; ++round) {
        std::string bytes(rng() % 64, '\0');
        for (char& c : bytes)
            c = static_cast<char>(rng() % 256);
        EXPECT_EQ(STRING_UTIL::UrlDecode(STRING_UTIL::UrlEncode(bytes)), bytes);
    }
}

namespace {

// The escaping rules one byte at a time, straight from the contract, to hold the block-wise walks to.
std::string EncodeByByte(const std::string& text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        unsigned char b = static_cast<unsigned char>(c);
        if (std::isalnum(b) || c == '-' || c == '_' || c == '.' || c == '~')
            out += c;
        else if (c == ' ')
            out += '+';
        else
            out += {'%', hex[b >> 4], hex[b & 15]};
    }
    return out;
}

int DigitByByte(const std::string& text, size_t i) {
    if (i >= text.size()) return 0;
    char c = text[i];
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'A' && c <= 'Z' ? c - 'A' + 10
           : c >= 'a' && c <= 'z' ? c - 'a' + 10
                                  : 0;
}

std::string DecodeByByte(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%') {
            out += static_cast<char>((DigitByByte(text, i + 1) * 16 + DigitByByte(text, i + 2)) & 0xFF);
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

TEST(TextUrl, BlockWalksMatchTheByteRules) {
    // The walks mark the bytes that need more than a copy in windows of 64 and copy the runs between
    // them 16 bytes at a time, while 16 more bytes follow the window: every special byte at every
    // position of texts up to two windows and a half (escapes whose digits lie in the next window
    // included), and an escape cut off at the end of each of those lengths.
    const std::string specials = "% +&=/\x7F\x80\xE4\xFF\0"s;
    for (size_t size = 0; size <= 160; ++size)
        for (size_t at = 0; at < size; ++at)
            for (char special : specials) {
                std::string text(size, 'a');
                text[at] = special;
                ASSERT_EQ(STRING_UTIL::UrlEncode(text), EncodeByByte(text)) << size << " " << at;
                ASSERT_EQ(STRING_UTIL::UrlDecode(text), DecodeByByte(text)) << size << " " << at;
            }
    for (size_t size = 1; size <= 160; ++size)
        for (const char* tail : {"%", "%4", "%41", "+"}) {
            std::string text = std::string(size, 'b') + tail;
            ASSERT_EQ(STRING_UTIL::UrlDecode(text), DecodeByByte(text)) << text;
        }

    // Random query-like text of every density: from nearly all letters to nearly all escapes, with
    // lengths that end anywhere within a block.
    std::mt19937 rng(99);
    const std::string plain = "abcXYZ019-_.~";
    for (int round = 0; round < 2000; ++round) {
        std::string text(rng() % 300, '\0');
        unsigned int density = rng() % 101;
        for (char& c : text)
            c = rng() % 100 < density ? static_cast<char>(rng() % 256) : plain[rng() % plain.size()];
        std::string encoded = STRING_UTIL::UrlEncode(text);
        ASSERT_EQ(encoded, EncodeByByte(text));
        ASSERT_EQ(STRING_UTIL::UrlDecode(text), DecodeByByte(text));
        ASSERT_EQ(STRING_UTIL::UrlDecode(encoded), text);
    }
}

TEST(TextUrl, DomainAndHeads) {
    // The head goes wherever it stands ("https" anywhere picks the https head), then the text is cut
    // at its first "/".
    const struct {
        const char *url, *domain, *withType, *withoutHead;
    } cases[] = {
        {"http://host/path?x=1", "host", "http://host", "host/path?x=1"},
        {"https://host:8080/path", "host:8080", "https://host:8080", "host:8080/path"},
        {"host/path", "host", "http://host", "host/path"},
        {"", "", "http://", ""},
        {"http://host?x=1", "host?x=1", "http://host?x=1", "host?x=1"},
        {"http://host/?u=http://other/", "host", "http://host", "host/?u=other/"},
        {"http://host/https", "http:", "https://http:", "http://host/https"},
        {"https://host/path?u=https://x", "host", "https://host", "host/path?u=x"},
        {"https://host/http://x", "host", "https://host", "host/http://x"},
        {"ftp://host/path", "ftp:", "http://ftp:", "ftp://host/path"},
        {"HTTP://HOST/path", "HTTP:", "http://HTTP:", "HTTP://HOST/path"},
        {"http://user@host:81", "user@host:81", "http://user@host:81", "user@host:81"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(STRING_UTIL::Url2Domain(c.url), c.domain) << c.url;
        EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType(c.url), c.withType) << c.url;
        EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead(c.url), c.withoutHead) << c.url;
    }
}

TEST(TextUrl, ParamsFromQuery) {
    // The query is behind the first "?" (the whole text without one); pieces with other than one "="
    // are skipped; the first of equal keys stands; nothing is unescaped.
    const struct {
        std::string url;
        Params params;
    } cases[] = {
        {"", {}},
        {"http://host/path", {}},
        {"http://host/path?", {}},
        {"x=1&y=2", {{"x", "1"}, {"y", "2"}}},
        {"?x=1", {{"x", "1"}}},
        {"http://host?x=1&x=2", {{"x", "1"}}},
        {"http://host?x=&=y&z&u=v=w&&", {{"x", ""}, {"", "y"}}},
        {"http://host?x=1?y=2&k=%41+b#frag", {{"k", "%41+b#frag"}}},
        {"http://h/p?b=2&a=1&\xE4=3", {{"a", "1"}, {"b", "2"}, {"\xE4", "3"}}},
        {"a=1&b", {{"a", "1"}}},
        {"=", {{"", ""}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(STRING_UTIL::Url2Params(c.url), c.params) << c.url;
    // Keys iterate in unsigned byte order: 0xE4 after 'z'.
    EXPECT_EQ(STRING_UTIL::Url2Params("\xE4=1&z=2").begin()->first, "z");
}
