#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <string>
#include <thread>
#include <vector>

using ZOTH::STRING_UTIL;
using Pieces = std::vector<std::string>;

namespace {
Pieces SplitA(const std::string& text, char sep, int keepEmpty) {
    Pieces out;
    STRING_UTIL::SplitStringA(text, sep, out, keepEmpty);
    return out;
}
} // namespace

TEST(TextStringOps, SplitPiecesAndEmptyPieces) {
    EXPECT_EQ(SplitA("a,b", ',', 1), (Pieces{"a", "b"}));
    EXPECT_EQ(SplitA("a,b", ',', 0), (Pieces{"a", "b"}));
    EXPECT_EQ(SplitA("", ',', 1), (Pieces{""}));
    EXPECT_EQ(SplitA("", ',', 0), (Pieces{}));
    EXPECT_EQ(SplitA(",", ',', 1), (Pieces{"", ""}));
    EXPECT_EQ(SplitA(",", ',', 0), (Pieces{}));
    EXPECT_EQ(SplitA("a,,b,", ',', 1), (Pieces{"a", "", "b", ""}));
    EXPECT_EQ(SplitA("a,,b,", ',', 0), (Pieces{"a", "b"}));
    EXPECT_EQ(SplitA(",a", ',', 1), (Pieces{"", "a"}));
    EXPECT_EQ(SplitA("abc", ',', 7), (Pieces{"abc"})) << "any non-zero keep-empty value counts";
    EXPECT_EQ(SplitA(std::string("a\0b", 3), '\0', 1), (Pieces{"a", "b"})) << "NUL is an ordinary separator";

    // Pieces join what the container already holds.
    Pieces held{"old"};
    STRING_UTIL::SplitStringA("x;y", ';', held, 1);
    EXPECT_EQ(held, (Pieces{"old", "x", "y"}));

    std::set<std::string> set{"z"};
    STRING_UTIL::SplitStringA("b,,a,b,", ',', set, 1);
    EXPECT_EQ(set, (std::set<std::string>{"", "a", "b", "z"}));
    std::set<std::string> noEmpty;
    STRING_UTIL::SplitStringA("b,,a,b,", ',', noEmpty, 0);
    EXPECT_EQ(noEmpty, (std::set<std::string>{"a", "b"}));

    using WPieces = std::vector<std::wstring>;
    WPieces w;
    STRING_UTIL::SplitStringW(L"\u4e2d,,\u6587,", L',', w, 1);
    EXPECT_EQ(w, (WPieces{L"\u4e2d", L"", L"\u6587", L""}));
    w.clear();
    STRING_UTIL::SplitStringW(L"", L',', w, 1);
    EXPECT_EQ(w, (WPieces{L""}));
    w.clear();
    STRING_UTIL::SplitStringW(L"", L',', w, 0);
    EXPECT_TRUE(w.empty());
    STRING_UTIL::SplitStringW(L"a,,b", L',', w, 0);
    EXPECT_EQ(w, (WPieces{L"a", L"b"}));
}

TEST(TextStringOps, ReplaceAllSearchesFromStartEachTime) {
    std::string s = "aXbXc";
    EXPECT_EQ(&STRING_UTIL::ReplaceAll(s, "X", "Y", 2), &s) << "returns the caller's string";
    EXPECT_EQ(s, "aXbYc");
    s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "X", "Y", 100), "aXbXc");
    s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "X", "Y"), "aYbYc");
    s = "aaab";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "ab", "b", 0), "b") << "each replacement feeds the next search";
    s = "abc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "", "", 0), "abc");
    s = "abc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "b", "b", 0), "abc");
    s = "abc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "", "x", 0), "abc") << "empty old value leaves the text alone";
    // A new value holding the old one replaces each occurrence once, from the start position.
    s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "X", "XX", 0), "aXXbXXc");
    s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "X", "<X>", 2), "aXb<X>c");
    s = "http://a/http://b";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "http://", "", 0), "a/b");
    s = "hthttp://tp://x";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "http://", "", 0), "x") << "removal that forms a new occurrence";

    std::wstring w = L"aaab", o = L"ab", n = L"b";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(w, o, n, 0), L"b");
    EXPECT_EQ(o, L"ab");
    EXPECT_EQ(n, L"b");
    w = L"aXbXc", o = L"X", n = L"Y";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(w, o, n, 2), L"aXbYc");
    w = L"aXbXc", o = L"X", n = L"XX";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(w, o, n, 0), L"aXXbXXc");
    w = L"abc", o = L"", n = L"z";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(w, o, n, 0), L"abc");
}

TEST(TextStringOps, ReplaceAllDistinctNeverSearchesInsertedText) {
    std::string s = "aaab";
    EXPECT_EQ(&STRING_UTIL::ReplaceAllDistinct(s, "ab", "b"), &s);
    EXPECT_EQ(s, "aab");
    s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(s, "X", "XX"), "aXXbXXc");
    s = "XXX";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(s, "XX", "Y"), "YX");
    s = "abc";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(s, "", "x"), "abc");
    s = "a.b.c";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(s, ".", ""), "abc");
    s = "";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(s, "a", "b"), "");

    std::wstring w = L"aaab";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(w, L"ab", L"b"), L"aab");
    w = L"aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(w, L"X", L"XX"), L"aXXbXXc");
    w = L"abc";
    EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(w, L"", L"x"), L"abc");
}

TEST(TextStringOps, FormattersMeasureThenFormat) {
    EXPECT_EQ(STRING_UTIL::StdFormatA(nullptr), "");
    EXPECT_EQ(STRING_UTIL::StdFormatA("%s", ""), "");
    EXPECT_EQ(STRING_UTIL::StdFormatA("%d.%d.%d.%d", 1, 22, 333, 4444), "1.22.333.4444");
    EXPECT_EQ(STRING_UTIL::StdFormatA("%s|%5s|%-3d|%c", "ab", "x", 7, 'z'), "ab|    x|7  |z");
    EXPECT_EQ(STRING_UTIL::StdFormatA("a%cb", 0), "a") << "the text ends at its first NUL";
    // Long output proves the second pass walks a fresh copy of the arguments and the buffer fits.
    std::string big(100000, 'q');
    std::string out = STRING_UTIL::StdFormatA("[%s|%s|%d]", big.c_str(), "tail", 42);
    EXPECT_EQ(out, "[" + big + "|tail|42]");

    EXPECT_EQ(STRING_UTIL::StdFormatW(nullptr), L"");
    EXPECT_EQ(STRING_UTIL::StdFormatW(L""), L"");
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"%ls-%s-%d", L"wide", "narrow", -3), L"wide-narrow--3");
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"%ls", L"\u4e2d\u6587\u00e9"), L"\u4e2d\u6587\u00e9")
        << "wide characters pass unchanged whatever the locale";
    std::wstring wbig(50000, L'\u00fc');
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"<%ls>%d", wbig.c_str(), 9), L"<" + wbig + L">9");
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"%5.1f", 2.25), L"  2.2");
}

TEST(TextStringOps, NumbersToText) {
    EXPECT_EQ(STRING_UTIL::Int2String(7), "7");
    EXPECT_EQ(STRING_UTIL::Int2String(-5), "-5");
    EXPECT_EQ(STRING_UTIL::Int2String(INT_MIN), "-2147483648");
    EXPECT_EQ(STRING_UTIL::Int642String(0), "0");
    EXPECT_EQ(STRING_UTIL::Int642String(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(STRING_UTIL::Int642String(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(STRING_UTIL::Float2String(1.5), "1.50");
    EXPECT_EQ(STRING_UTIL::Float2String(-0.004), "-0.00");
    EXPECT_EQ(STRING_UTIL::Float2String(123456.789), "123456.79");
    EXPECT_EQ(STRING_UTIL::Float2String(0), "0.00");
}

TEST(TextStringOps, String2UnsignIntReadsTrailingDigits) {
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("123"), 123u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("abc123"), 123u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("12a34"), 34u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("123abc"), 0u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("-5"), 5u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("4294967295"), 4294967295u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("4294967296"), 0u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("4294967297"), 1u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt(""), 0u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("007"), 7u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("1 2"), 2u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("\xB9"
                                            "5"),
              5u)
        << "superscript one in Latin-1 is no digit";
    // Many leading digits keep wrapping without overflow traps: 10^20 mod 2^32.
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("100000000000000000000"), 1661992960u);
}

TEST(TextStringOps, SubStringMarks) {
    EXPECT_EQ(STRING_UTIL::SubString("x[abc]y", "[", "]"), "abc");
    EXPECT_EQ(STRING_UTIL::SubString("x[]y", "[", "]"), "");
    EXPECT_EQ(STRING_UTIL::SubString("x[]y]z", "[", "]"), "]y");
    EXPECT_EQ(STRING_UTIL::SubString("x[a", "[", "]"), "");
    EXPECT_EQ(STRING_UTIL::SubString("xa]", "[", "]"), "");
    EXPECT_EQ(STRING_UTIL::SubString("", "[", "]"), "");
    EXPECT_EQ(STRING_UTIL::SubString("x[a]", "", "]"), "");
    EXPECT_EQ(STRING_UTIL::SubString("x[a]", "[", ""), "");
    EXPECT_EQ(STRING_UTIL::SubString("x[", "[", "]"), "") << "search start beyond the end";
    EXPECT_EQ(STRING_UTIL::SubString("<b>bold</b><b>2</b>", "<b>", "</b>"), "bold");
    EXPECT_EQ(STRING_UTIL::SubString("a]x[b]", "[", "]"), "b") << "end mark before the begin mark is ignored";
}

TEST(TextStringOps, TrimAndCase) {
    std::string s = "  ab c  ";
    EXPECT_EQ(STRING_UTIL::Trim(s), "ab c");
    EXPECT_EQ(s, "  ab c  ");
    s = "   ";
    EXPECT_EQ(STRING_UTIL::Trim(s), "   ");
    s = "\tab\n";
    EXPECT_EQ(STRING_UTIL::Trim(s), "\tab\n");
    s = "";
    EXPECT_EQ(STRING_UTIL::Trim(s), "");
    s = " x";
    EXPECT_EQ(STRING_UTIL::Trim(s), "x");

    s = "aBc1\xE4z";
    EXPECT_EQ(STRING_UTIL::ToUpper(s), "ABC1\xE4Z");
    EXPECT_EQ(s, "ABC1\xE4Z") << "changed in place";
    s = "AbC-\xC4Z";
    EXPECT_EQ(STRING_UTIL::ToLower(s), "abc-\xC4z");
    EXPECT_EQ(s, "abc-\xC4z");
    s = std::string("A\0B", 3);
    EXPECT_EQ(STRING_UTIL::ToLower(s), std::string("a\0b", 3));
}

TEST(TextStringOps, GuidTextIsUniqueUpperHex) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        std::string id = STRING_UTIL::GetGuid();
        ASSERT_EQ(id.size(), 32u) << id;
        EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos) << id;
        EXPECT_EQ(id[12], '4') << "version digit, after Data1 and Data2";
        EXPECT_NE(std::string("89AB").find(id[16]), std::string::npos) << "variant digit";
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);

    // Callers on several threads at once (a task registry makes ids concurrently).
    std::vector<std::string> ids(4 * 200);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&ids, t] {
            for (int i = 0; i < 200; ++i)
                ids[t * 200 + i] = STRING_UTIL::GetGuid();
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(TextStringOps, AssignmentGivesBackTheObject) {
    STRING_UTIL a, b;
    EXPECT_EQ(&(a = b), &a);
    EXPECT_EQ(&(a = std::move(b)), &a);
}
