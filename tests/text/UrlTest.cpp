#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

using ZOTH::STRING_UTIL;
using Params = std::map<std::string, std::string>;

TEST(TextUrl, EncodeEscapesAllButUnreserved) {
    EXPECT_EQ(STRING_UTIL::UrlEncode(""), "");
    EXPECT_EQ(STRING_UTIL::UrlEncode(" "), "+");
    EXPECT_EQ(STRING_UTIL::UrlEncode("+/:%&=?"), "%2B%2F%3A%25%26%3D%3F");
    EXPECT_EQ(STRING_UTIL::UrlEncode("\xE4"), "%E4");
    EXPECT_EQ(STRING_UTIL::UrlEncode("\xFF\x80\x0a"), "%FF%80%0A") << "upper-case hex, leading zero kept";
    const std::string unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
    EXPECT_EQ(STRING_UTIL::UrlEncode(unreserved), unreserved);
    EXPECT_EQ(STRING_UTIL::UrlEncode(std::string("a\0b", 3)), "a%00b") << "an embedded NUL is escaped";
    EXPECT_EQ(STRING_UTIL::UrlEncode("a b+c"), "a+b%2Bc");

    // Exactly the 66 unreserved bytes pass; every other byte but the space takes three characters.
    for (int b = 0; b < 256; ++b) {
        std::string in(1, static_cast<char>(b));
        std::string out = STRING_UTIL::UrlEncode(in);
        if (unreserved.find(static_cast<char>(b)) != std::string::npos)
            EXPECT_EQ(out, in) << b;
        else if (b == ' ')
            EXPECT_EQ(out, "+");
        else
            EXPECT_EQ(out.size(), 3u) << b;
    }
}

TEST(TextUrl, DecodeIsLiteralAndNeverReadsPastInput) {
    EXPECT_EQ(STRING_UTIL::UrlDecode(""), "");
    EXPECT_EQ(STRING_UTIL::UrlDecode("a+b"), "a b");
    EXPECT_EQ(STRING_UTIL::UrlDecode("a%2Bb"), "a+b");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%41%4a%4A"), "AJJ");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%GZ"), "\x23");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%%41"), std::string("\x04"
                                                          "1"));
    EXPECT_EQ(STRING_UTIL::UrlDecode("%e4%C3%a9"), "\xE4\xC3\xA9");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%00"), std::string(1, '\0'));
    // Digits that are no letter or digit count as 0.
    EXPECT_EQ(STRING_UTIL::UrlDecode("%-1"), "\x01");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%4-"), "\x40");
    // An escape that runs off the end yields one byte from what is there, its missing digits 0.
    EXPECT_EQ(STRING_UTIL::UrlDecode("ab%"), std::string("ab\0", 3));
    EXPECT_EQ(STRING_UTIL::UrlDecode("ab%4"), "ab\x40");
    EXPECT_EQ(STRING_UTIL::UrlDecode("%"), std::string(1, '\0'));
    // A digit value from an earlier escape is not carried into a later short one.
    EXPECT_EQ(STRING_UTIL::UrlDecode("%4A%"), std::string("J\0", 2));
    // The text ends at its size, not at a NUL behind it: decoding a substring of a longer buffer
    // must not see the buffer's next bytes.
    std::string backing = "xx%41";
    std::string prefix = backing.substr(0, 3);
    EXPECT_EQ(STRING_UTIL::UrlDecode(prefix), std::string("xx\0", 3));

    // Round trip over random bytes, NULs and spaces included.
    std::mt19937 rng(1234);
    for (int round = 0; round < 300; ++round) {
        std::string bytes(rng() % 64, '\0');
        for (char& c : bytes)
            c = static_cast<char>(rng() % 256);
        EXPECT_EQ(STRING_UTIL::UrlDecode(STRING_UTIL::UrlEncode(bytes)), bytes);
    }
}

TEST(TextUrl, DomainAndHeads) {
    EXPECT_EQ(STRING_UTIL::Url2Domain("http://host/path?x=1"), "host");
    EXPECT_EQ(STRING_UTIL::Url2Domain("https://host:8080/path"), "host:8080");
    EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType("https://host:8080/path"), "https://host:8080");
    EXPECT_EQ(STRING_UTIL::Url2Domain("host/path"), "host");
    EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType("host/path"), "http://host");
    EXPECT_EQ(STRING_UTIL::Url2Domain(""), "");
    EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType(""), "http://");
    EXPECT_EQ(STRING_UTIL::Url2Domain("http://host?x=1"), "host?x=1");
    EXPECT_EQ(STRING_UTIL::Url2Domain("http://host/?u=http://other/"), "host");
    EXPECT_EQ(STRING_UTIL::Url2Domain("http://host/https"), "http:");
    EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType("http://host/https"), "https://http:");
    EXPECT_EQ(STRING_UTIL::Url2Domain("ftp://host/path"), "ftp:");
    EXPECT_EQ(STRING_UTIL::Url2Domain("HTTP://HOST/path"), "HTTP:");
    EXPECT_EQ(STRING_UTIL::Url2Domain("http://user@host:81"), "user@host:81");
    EXPECT_EQ(STRING_UTIL::Url2Domain("https://a.b/c/d"), "a.b");
    EXPECT_EQ(STRING_UTIL::Url2DomainHasHttpType("http://a.b/c"), "http://a.b");

    EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead("http://host/path"), "host/path");
    EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead("https://host/path?u=https://x"), "host/path?u=x");
    EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead("https://host/http://x"), "host/http://x")
        << "only the head chosen by the https search is removed";
    EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead("host/path"), "host/path");
    EXPECT_EQ(STRING_UTIL::UrlDeleteHttpHead(""), "");
}

TEST(TextUrl, ParamsFromQuery) {
    EXPECT_EQ(STRING_UTIL::Url2Params(""), Params{});
    EXPECT_EQ(STRING_UTIL::Url2Params("http://host/path"), Params{}) << "no '?': the whole URL has no pair";
    EXPECT_EQ(STRING_UTIL::Url2Params("http://host/path?"), Params{});
    EXPECT_EQ(STRING_UTIL::Url2Params("x=1&y=2"), (Params{{"x", "1"}, {"y", "2"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("?x=1"), (Params{{"x", "1"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("http://host?x=1&x=2"), (Params{{"x", "1"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("http://host?x=&=y&z&u=v=w&&"), (Params{{"x", ""}, {"", "y"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("http://host?x=1?y=2&k=%41+b#frag"), (Params{{"k", "%41+b#frag"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("http://h/p?b=2&a=1&\xE4=3"),
              (Params{{"a", "1"}, {"b", "2"}, {"\xE4", "3"}}));
    // Keys iterate in unsigned byte order: 0xE4 after 'z'.
    Params p = STRING_UTIL::Url2Params("\xE4=1&z=2");
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p.begin()->first, "z");
    EXPECT_EQ(STRING_UTIL::Url2Params("a=1&b"), (Params{{"a", "1"}}));
    EXPECT_EQ(STRING_UTIL::Url2Params("="), (Params{{"", ""}}));
}
