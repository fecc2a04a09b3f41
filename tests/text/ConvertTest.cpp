// STRING_UTIL code-page conversions: sizes, capacity rules, NUL handling and the ANSI code page.
#include "zoth/platform/Win32Text.h"
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using ZOTH::STRING_UTIL;

namespace {

// Switches the process's ANSI code page for one test and puts the old one back.
class AnsiCodePage {
public:
    explicit AnsiCodePage(UINT codePage) : saved_(GetACP()) { EXPECT_TRUE(ZothSetAnsiCodePage(codePage)); }
    ~AnsiCodePage() { ZothSetAnsiCodePage(saved_); }

private:
    UINT saved_;
};

const std::string kUtf8Mixed = "h\xC3\xA9llo \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80!"; // héllo 中文 😀!
const std::wstring kWideMixed = {L'h',   0xE9,   L'l', L'l',   L'o',   L' ',
                                 0x4E2D, 0x6587, L' ', 0xD83D, 0xDE00, L'!'};

} // namespace

TEST(TextConvert, EmptyAndNullInput) {
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring()), "");
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(static_cast<const wchar_t*>(nullptr)), "");
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(L""), "");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(std::string()), L"");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(static_cast<const char*>(nullptr)), L"");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(""), L"");
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(""), "");
    EXPECT_EQ(STRING_UTIL::Utf82Asci(""), "");
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(L""), "");
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(""), L"");
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci(""));
}

TEST(TextConvert, Utf8AndWideRoundTrip) {
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(kUtf8Mixed), kWideMixed);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(kUtf8Mixed.c_str()), kWideMixed);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(kWideMixed), kUtf8Mixed);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(kWideMixed.c_str()), kUtf8Mixed);

    // Long pure-ASCII text exercises the wide fast paths and their tails.
    std::string ascii;
    for (int i = 0; i < 1003; ++i)
        ascii += static_cast<char>(0x20 + i % 95);
    std::wstring wide = STRING_UTIL::Utf82Unicode(ascii);
    ASSERT_EQ(wide.size(), ascii.size());
    for (size_t i = 0; i < ascii.size(); ++i)
        ASSERT_EQ(wide[i], static_cast<wchar_t>(ascii[i]));
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(wide), ascii);

    // Accented text with ASCII stretches of every length between the 2-byte characters.
    std::string latin;
    std::wstring latinWide;
    for (int i = 0; i < 60; ++i) {
        latin += "\xC3\xA9" + std::string(i % 35, 'x');
        latinWide += static_cast<wchar_t>(0xE9) + std::wstring(i % 35, L'x');
    }
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(latin), latinWide);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(latinWide), latin);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(latin + "\xC3"), latinWide + static_cast<wchar_t>(0xFFFD));

    // Invalid UTF-8 is replaced, not dropped and not fatal.
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(std::string("a\xFF"
                                                    "b")),
              (std::wstring{L'a', 0xFFFD, L'b'}));
    // An unpaired surrogate becomes U+FFFD on the way to UTF-8.
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring{L'x', 0xD800}), "x\xEF\xBF\xBD");

    if (sizeof(wchar_t) == 4) {
        // A wide element holding a whole code point counts as that code point; five of them need 20
        // bytes, more than three per element.
        std::wstring faces(5, static_cast<wchar_t>(0x1F600));
        std::string expected;
        for (int i = 0; i < 5; ++i)
            expected += "\xF0\x9F\x98\x80";
        EXPECT_EQ(STRING_UTIL::Unicode2Utf8(faces), expected);
    }
}

TEST(TextConvert, EmbeddedNul) {
    std::wstring wide(L"ab\0cd", 5);
    std::string narrow("ab\0cd", 5);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(wide), narrow);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(narrow), wide);
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(narrow), narrow);
    EXPECT_EQ(STRING_UTIL::Utf82Asci(narrow), narrow);
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(wide), "ab");
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(narrow), L"ab");
    // The pointer forms measure up to the NUL.
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(narrow.c_str()), L"ab");
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(wide.c_str()), "ab");
}

TEST(TextConvert, Unicode2Utf8CallerBuffer) {
    char buffer[64];
    std::memset(buffer, 0x55, sizeof buffer);

    // The capacity test, 3(n+1), comes first, also for empty text.
    DWORD size = 2;
    EXPECT_FALSE(STRING_UTIL::Unicode2Utf8(std::wstring(), buffer, &size));
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(buffer[0], 0x55);
    size = 3;
    EXPECT_TRUE(STRING_UTIL::Unicode2Utf8(std::wstring(), buffer, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 0x55);

    // Pure ASCII would fit in n+1, but 3(n+1) is asked all the same.
    std::memset(buffer, 0x55, sizeof buffer);
    size = 11;
    EXPECT_FALSE(STRING_UTIL::Unicode2Utf8(L"abc", buffer, &size));
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(buffer[0], 0x55);
    size = 20;
    ASSERT_TRUE(STRING_UTIL::Unicode2Utf8(L"abc", buffer, &size));
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buffer, "abc");
    for (int i = 3; i < 20; ++i)
        EXPECT_EQ(buffer[i], '\0') << i; // zeroed up to the capacity given
    for (int i = 20; i < 64; ++i)
        EXPECT_EQ(buffer[i], 0x55) << i; // and not beyond

    size = sizeof buffer;
    ASSERT_TRUE(STRING_UTIL::Unicode2Utf8(kWideMixed, buffer, &size));
    EXPECT_EQ(std::string(buffer, size), kUtf8Mixed);
    EXPECT_EQ(buffer[size], '\0');
}

TEST(TextConvert, Utf82UnicodeCallerBuffer) {
    const std::string text = "\xE6\x97\xA5\xE6\x9C\xAC"; // 日本: 6 bytes, 2 units
    wchar_t buffer[12];
    std::wmemset(buffer, L'#', 12);

    DWORD size = 6;
    EXPECT_FALSE(STRING_UTIL::Utf82Unicode(text, buffer, &size));
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(buffer[0], L'#');

    size = 12;
    ASSERT_TRUE(STRING_UTIL::Utf82Unicode(text, buffer, &size));
    EXPECT_EQ(size, 2u); // below n for multi-byte text
    EXPECT_EQ(buffer[0], 0x65E5);
    EXPECT_EQ(buffer[1], 0x672C);
    for (int i = 2; i <= 6; ++i)
        EXPECT_EQ(buffer[i], L'\0') << i; // the first n+1 units are cleared
    for (int i = 7; i < 12; ++i)
        EXPECT_EQ(buffer[i], L'#') << i; // units behind index n are untouched

    size = 7;
    EXPECT_TRUE(STRING_UTIL::Utf82Unicode(text, buffer, &size));
    size = 0;
    EXPECT_FALSE(STRING_UTIL::Utf82Unicode(std::string(), buffer, &size));
    size = 1;
    EXPECT_TRUE(STRING_UTIL::Utf82Unicode(std::string(), buffer, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(buffer[0], L'\0');
}

TEST(TextConvert, AnsiDefaultCodePage1252) {
    ASSERT_EQ(GetACP(), 1252u);
    const std::string ansi = "caf\xE9 \x80"; // café €
    const std::string utf8 = "caf\xC3\xA9 \xE2\x82\xAC";
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(ansi), utf8);
    EXPECT_EQ(STRING_UTIL::Utf82Asci(utf8), ansi);
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(ansi), (std::wstring{L'c', L'a', L'f', 0xE9, L' ', 0x20AC}));
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(std::wstring{L'c', L'a', L'f', 0xE9, L' ', 0x20AC}), ansi);

    // Characters the page lacks become its default character.
    EXPECT_EQ(STRING_UTIL::Utf82Asci("x\xE4\xB8\xAD"
                                     "y"),
              "x?y");
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(std::wstring{0x4E2D, 0x6587}), "??");

    // Every byte is text in 1252, including the five it leaves undefined.
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci("\xD6"));
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci("\x81\x8D\x8F\x90\x9D"));
    std::string all;
    for (int b = 1; b < 256; ++b)
        all += static_cast<char>(b);
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci(all));
    EXPECT_EQ(STRING_UTIL::Utf82Asci(STRING_UTIL::Asci2Utf8(all)), all);
}

TEST(TextConvert, AnsiDoubleByteCodePage936) {
    AnsiCodePage gbk(936);
    const std::string ansi = "\xD6\xD0\xCE\xC4 ok"; // 中文 ok
    const std::string utf8 = "\xE4\xB8\xAD\xE6\x96\x87 ok";
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(ansi), utf8);
    EXPECT_EQ(STRING_UTIL::Utf82Asci(utf8), ansi);
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(ansi), (std::wstring{0x4E2D, 0x6587, L' ', L'o', L'k'}));
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(std::wstring{0x4E2D, 0x6587, L' ', L'o', L'k'}), ansi);

    // Valid double-byte text passes; a lead byte without its trail byte does not.
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci(ansi));
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci("plain"));
    EXPECT_FALSE(STRING_UTIL::IsvalidAsci("\xD6"));
    EXPECT_FALSE(STRING_UTIL::IsvalidAsci("ab\xD6"));
    EXPECT_FALSE(STRING_UTIL::IsvalidAsci("\xD6\xD0\x81"));
    // Under flags 0 the same input converts with a replacement instead of failing.
    EXPECT_EQ(STRING_UTIL::Asci2Utf8("ab\xD6"), "ab?");

    // Two bytes per unit fill the 2n+2 destination; three UTF-8 bytes per character fit 3(n+1).
    std::string ansiLong, utf8Long;
    for (int i = 0; i < 100; ++i) {
        ansiLong += "\xD6\xD0";
        utf8Long += "\xE4\xB8\xAD";
    }
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(std::wstring(100, static_cast<wchar_t>(0x4E2D))), ansiLong);
    EXPECT_EQ(STRING_UTIL::Utf82Asci(utf8Long), ansiLong);
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(ansiLong), utf8Long);
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(ansiLong), std::wstring(100, static_cast<wchar_t>(0x4E2D)));
    // The NUL rules hold for double-byte text too.
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(std::string("\xD6\xD0\0\xCE\xC4", 5)), std::wstring(1, 0x4E2D));
    EXPECT_EQ(STRING_UTIL::Asci2Utf8(std::string("\xD6\xD0\0\xCE\xC4", 5)),
              std::string("\xE4\xB8\xAD\0\xE6\x96\x87", 7));
}
