// STRING_UTIL's general string operations: splitting, replacing, formatting, numbers, marks, GUIDs.
#include "zoth/text/STRING_UTIL.h"

#include "Portable.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

using ZOTH::STRING_UTIL;
using Pieces = std::vector<std::string>;
using std::string_literals::operator""s;

namespace {
// The pieces of a split as "[a][][b]", so that no piece and one empty piece differ.
std::string Bracketed(const Pieces& pieces) {
    std::string text;
    for (const std::string& piece : pieces)
        text += "[" + piece + "]";
    return text;
}
} // namespace

TEST(TextStringOps, Split) {
    const struct {
        std::string text;
        int keepEmpty;
        const char* pieces;
    } cases[] = {
        {"a,b", 1, "[a][b]"},   {"a,b", 0, "[a][b]"},
        {"", 1, "[]"},          {"", 0, ""},
        {",", 1, "[][]"},       {",", 0, ""},
        {",a", 1, "[][a]"},     {"abc", 7, "[abc]"},
        {"a,,b,", 0, "[a][b]"}, {"a,,b,", 1, "[a][][b][]"},
    };
    for (const auto& c : cases) {
        Pieces out{"old"}; // pieces join what the container holds
        STRING_UTIL::SplitStringA(c.text, ',', out, c.keepEmpty);
        EXPECT_EQ(Bracketed(out), std::string("[old]") + c.pieces) << c.text << " keepEmpty " << c.keepEmpty;
    }
    Pieces nul;
    STRING_UTIL::SplitStringA("a\0b"s, '\0', nul, 1); // NUL is an ordinary separator
    EXPECT_EQ(nul, (Pieces{"a", "b"}));

    std::set<std::string> set{"z"}, noEmpty;
    STRING_UTIL::SplitStringA("b,,a,b,", ',', set, 1);
    EXPECT_EQ(set, (std::set<std::string>{"", "a", "b", "z"}));
    STRING_UTIL::SplitStringA("b,,a,b,", ',', noEmpty, 0);
    EXPECT_EQ(noEmpty, (std::set<std::string>{"a", "b"}));

    std::vector<std::wstring> w;
    STRING_UTIL::SplitStringW(L"\u4e2d,,\u6587,", L',', w, 1);
    EXPECT_EQ(w, (std::vector<std::wstring>{L"\u4e2d", L"", L"\u6587", L""}));
    STRING_UTIL::SplitStringW(L"", L',', w, 0);
    STRING_UTIL::SplitStringW(L"a,,b", L',', w, 0);
    EXPECT_EQ(w.size(), 6u);
}

TEST(TextStringOps, SplitOfLongTextMatchesAByteLoop) {
    // Narrow text is scanned in windows of 64 bytes: separators at every position of texts up to three
    // windows long, then random texts of every separator density, against a plain byte loop.
    auto byByte = [](const std::string& text, char separator, int keepEmpty) {
        Pieces all(1), kept{"old"};
        for (char c : text)
            if (c == separator)
                all.emplace_back();
            else
                all.back() += c;
        for (const std::string& piece : all)
            if (keepEmpty || !piece.empty()) kept.push_back(piece);
        return kept;
    };
    auto check = [&](const std::string& text, char separator) {
        for (int keepEmpty : {0, 1}) {
            Pieces pieces{"old"};
            STRING_UTIL::SplitStringA(text, separator, pieces, keepEmpty);
            ASSERT_EQ(pieces, byByte(text, separator, keepEmpty))
                << text.size() << " keepEmpty " << keepEmpty;
            std::set<std::string> set{"old"};
            STRING_UTIL::SplitStringA(text, separator, set, keepEmpty);
            Pieces expected = byByte(text, separator, keepEmpty);
            ASSERT_EQ(set, std::set<std::string>(expected.begin(), expected.end()));
        }
    };
    for (size_t size = 0; size <= 200; ++size)
        for (size_t at = 0; at < size; ++at) {
            std::string text(size, 'x');
            text[at] = ',';
            check(text, ',');
        }
    std::mt19937 rng(5);
    for (int round = 0; round < 500; ++round) {
        std::string text(rng() % 400, '\0');
        unsigned int density = rng() % 101;
        for (char& c : text)
            c = rng() % 100 < density ? '\xE4' : static_cast<char>('a' + rng() % 26);
        check(text, '\xE4'); // a separator above 0x7F: compared as a byte, never as a signed char
    }
}

TEST(TextStringOps, ReplaceAllAndReplaceAllDistinct) {
    // ReplaceAll searches again from `start` after each replacement, so a replacement can feed the next
    // search (last case: a removal forms a new occurrence); ReplaceAllDistinct replaces each occurrence
    // once and never searches what it put in.
    const struct {
        std::string text, oldValue, newValue;
        unsigned int start;
        std::string all, distinct;
    } cases[] = {
        {"aXbXc", "X", "Y", 2, "aXbYc", "aYbYc"},
        {"aXbXc", "X", "Y", 100, "aXbXc", "aYbYc"},
        {"aXbXc", "X", "Y", 0, "aYbYc", "aYbYc"},
        {"aaab", "ab", "b", 0, "b", "aab"},
        {"abc", "", "x", 0, "abc", "abc"},
        {"abc", "b", "b", 0, "abc", "abc"},
        {"aXbXc", "X", "XX", 0, "aXXbXXc", "aXXbXXc"},
        {"aXbXc", "X", "<X>", 2, "aXb<X>c", "a<X>b<X>c"},
        {"XXX", "XX", "Y", 0, "YX", "YX"},
        {"a.b.c", ".", "", 0, "abc", "abc"},
        {"", "a", "b", 0, "", ""},
        {"http://a/http://b", "http://", "", 0, "a/b", "a/b"},
        {"hthttp://tp://x", "http://", "", 0, "x", "http://x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + " / " + c.oldValue + " -> " + c.newValue);
        std::string all = c.text, distinct = c.text;
        EXPECT_EQ(&STRING_UTIL::ReplaceAll(all, c.oldValue, c.newValue, c.start), &all); // the caller's
        EXPECT_EQ(all, c.all);
        EXPECT_EQ(&STRING_UTIL::ReplaceAllDistinct(distinct, c.oldValue, c.newValue), &distinct);
        EXPECT_EQ(distinct, c.distinct);
        // The wide forms follow the same rules.
        std::wstring w(c.text.begin(), c.text.end()), o(c.oldValue.begin(), c.oldValue.end()),
            n(c.newValue.begin(), c.newValue.end()), wd = w;
        EXPECT_EQ(STRING_UTIL::ReplaceAll(w, o, n, c.start), std::wstring(c.all.begin(), c.all.end()));
        EXPECT_EQ(o, std::wstring(c.oldValue.begin(), c.oldValue.end())); // arguments left alone
        EXPECT_EQ(STRING_UTIL::ReplaceAllDistinct(wd, o, n),
                  std::wstring(c.distinct.begin(), c.distinct.end()));
    }
    std::string s = "aXbXc";
    EXPECT_EQ(STRING_UTIL::ReplaceAll(s, "X", "Y"), "aYbYc"); // start defaults to 0
}

TEST(TextStringOps, FormattersMeasureThenFormat) {
    EXPECT_EQ(STRING_UTIL::StdFormatA(nullptr), "");
    EXPECT_EQ(STRING_UTIL::StdFormatA("%s", ""), "");
    EXPECT_EQ(STRING_UTIL::StdFormatA("%s|%5s|%-3d|%c", "ab", "x", 7, 'z'), "ab|    x|7  |z");
    EXPECT_EQ(STRING_UTIL::StdFormatA("a%cb", 0), "a"); // the text ends at its first NUL
    // Long output: the second pass walks a fresh copy of the arguments and the buffer fits.
    std::string big(100000, 'q');
    EXPECT_EQ(STRING_UTIL::StdFormatA("[%s|%s|%d]", big.c_str(), "tail", 42), "[" + big + "|tail|42]");

    EXPECT_EQ(STRING_UTIL::StdFormatW(nullptr), L"");
    EXPECT_EQ(STRING_UTIL::StdFormatW(L""), L"");
    // %s is a narrow string by the C standard (Linux); Windows' runtime reads %s as wide and %hs as
    // narrow, in measuring and in printing alike.
    if (zoth_test::kWindows) {
        EXPECT_EQ(STRING_UTIL::StdFormatW(L"%s-%hs-%d", L"wide", "narrow", -3), L"wide-narrow--3");
    } else {
        EXPECT_EQ(STRING_UTIL::StdFormatW(L"%ls-%s-%d", L"wide", "narrow", -3), L"wide-narrow--3");
    }
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"%ls", L"\u4e2d\u6587\u00e9"), L"\u4e2d\u6587\u00e9"); // any locale
    std::wstring wbig(50000, L'\u00fc');
    EXPECT_EQ(STRING_UTIL::StdFormatW(L"<%ls>%d", wbig.c_str(), 9), L"<" + wbig + L">9");
}

TEST(TextStringOps, NumbersAndText) {
    EXPECT_EQ(STRING_UTIL::Int2String(INT_MIN), "-2147483648");
    EXPECT_EQ(STRING_UTIL::Int642String(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(STRING_UTIL::Int642String(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(STRING_UTIL::Float2String(1.5), "1.50");
    EXPECT_EQ(STRING_UTIL::Float2String(-0.004), "-0.00");
    EXPECT_EQ(STRING_UTIL::Float2String(123456.789), "123456.79");

    // String2UnsignInt reads the digits at the end of the text (B9, a Latin-1 superscript one, is no
    // digit), wrapping modulo 2^32 without overflow traps.
    const struct {
        std::string text;
        unsigned int value;
    } numbers[] = {
        {"123", 123},      {"abc123", 123},   {"12a34", 34},
        {"123abc", 0},     {"-5", 5},         {"007", 7},
        {"1 2", 2},        {"\xB9\x35", 5},   {"4294967295", 4294967295u},
        {"4294967296", 0}, {"4294967297", 1},
    };
    for (const auto& c : numbers)
        EXPECT_EQ(STRING_UTIL::String2UnsignInt(c.text), c.value) << c.text;
    EXPECT_EQ(STRING_UTIL::String2UnsignInt(""), 0u);
    EXPECT_EQ(STRING_UTIL::String2UnsignInt("100000000000000000000"), 1661992960u); // 10^20 mod 2^32

    // SubString: the text between the first begin mark and the first end mark behind it.
    const struct {
        std::string text, begin, end, result;
    } marks[] = {
        {"x[abc]y", "[", "]", "abc"}, {"x[]y", "[", "]", ""}, {"x[]y]z", "[", "]", "]y"},
        {"x[a", "[", "]", ""},        {"xa]", "[", "]", ""},  {"", "[", "]", ""},
        {"x[a]", "", "]", ""},        {"x[a]", "[", "", ""},  {"x[", "[", "]", ""},
        {"a]x[b]", "[", "]", "b"},
    };
    for (const auto& c : marks)
        EXPECT_EQ(STRING_UTIL::SubString(c.text, c.begin, c.end), c.result) << c.text;
    EXPECT_EQ(STRING_UTIL::SubString("<b>bold</b><b>2</b>", "<b>", "</b>"), "bold");

    // Trim removes spaces only and leaves its argument; the case changes are ASCII-only and in place.
    const std::pair<std::string, std::string> trims[] = {
        {"  ab c  ", "ab c"}, {"   ", "   "}, {"\tab\n", "\tab\n"}, {"", ""}, {" x", "x"}};
    for (const auto& [in, out] : trims) {
        std::string s = in;
        EXPECT_EQ(STRING_UTIL::Trim(s), out) << in;
        EXPECT_EQ(s, in);
    }
    std::string s = "aBc1\xE4z";
    EXPECT_EQ(STRING_UTIL::ToUpper(s), "ABC1\xE4Z");
    EXPECT_EQ(s, "ABC1\xE4Z");
    s = "AbC-\xC4Z\0Q"s;
    EXPECT_EQ(STRING_UTIL::ToLower(s), "abc-\xC4z\0q"s);
    EXPECT_EQ(s, "abc-\xC4z\0q"s);
}

TEST(TextStringOps, GuidTextIsUniqueUpperHex) {
    // Callers on several threads at once (a task registry makes ids concurrently).
    std::vector<std::string> ids(4 * 250);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&ids, t] {
            for (int i = 0; i < 250; ++i)
                ids[t * 250 + i] = STRING_UTIL::GetGuid();
        });
    for (auto& th : threads)
        th.join();
    for (const std::string& id : ids) {
        ASSERT_EQ(id.size(), 32u) << id;
        ASSERT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos) << id;
        ASSERT_EQ(id[12], '4') << id;                                         // version digit
        ASSERT_NE(std::string("89AB").find(id[16]), std::string::npos) << id; // variant digit
    }
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

#if !defined(_WIN32)
TEST(TextStringOps, GuidsAfterForkDifferFromTheParents) {
    // GUIDs come from a per-thread batch of random bytes; a forked child must not hand out the ones
    // its parent has still to give.
    STRING_UTIL::GetGuid();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::string id = STRING_UTIL::GetGuid();
        _exit(write(fds[1], id.data(), id.size()) == 32 ? 0 : 1);
    }
    close(fds[1]);
    std::string fromChild(32, '\0');
    EXPECT_EQ(read(fds[0], fromChild.data(), 32), 32);
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_NE(fromChild, STRING_UTIL::GetGuid());
}
#endif
