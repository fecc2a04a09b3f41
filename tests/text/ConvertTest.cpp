// STRING_UTIL code-page conversions: sizes, capacity rules, NUL handling and the ANSI code page.
#include "zoth/platform/Win32Text.h"
#include "zoth/text/STRING_UTIL.h"

#include "Portable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using ZOTH::STRING_UTIL;
using std::string_literals::operator""s;

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

TEST(TextConvert, Utf8AndWide) {
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(static_cast<const wchar_t*>(nullptr)), "");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(static_cast<const char*>(nullptr)), L"");
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring()), "");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(std::string()), L"");
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(kUtf8Mixed), kWideMixed);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(kUtf8Mixed.c_str()), kWideMixed);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(kWideMixed), kUtf8Mixed);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(kWideMixed.c_str()), kUtf8Mixed);
    // Embedded NULs pass in the string forms; the pointer forms measure up to the NUL.
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring(L"ab\0cd", 5)), "ab\0cd"s);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode("ab\0cd"s), std::wstring(L"ab\0cd", 5));
    EXPECT_EQ(STRING_UTIL::Utf82Unicode("ab\0cd"), L"ab");
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(L"ab\0cd"), "ab");

    // Long ASCII text exercises the fast paths and their tails.
    std::string ascii;
    for (int i = 0; i < 1003; ++i)
        ascii += static_cast<char>(0x20 + i % 95);
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(ascii), std::wstring(ascii.begin(), ascii.end()));
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring(ascii.begin(), ascii.end())), ascii);
    // Accented text with ASCII stretches of every length between the 2-byte characters.
    std::string latin;
    std::wstring latinWide;
    for (int i = 0; i < 60; ++i) {
        latin += "\xC3\xA9" + std::string(i % 35, 'x');
        latinWide += static_cast<wchar_t>(0xE9) + std::wstring(i % 35, L'x');
    }
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(latin), latinWide);
    EXPECT_EQ(STRING_UTIL::Unicode2Utf8(latinWide), latin);

    // A sequence cut at the end of a long run is replaced (the replacement rules are the platform's).
    EXPECT_EQ(STRING_UTIL::Utf82Unicode(latin + "\xC3"), latinWide + static_cast<wchar_t>(0xFFFD));
    if (sizeof(wchar_t) == 4) { // elements holding whole code points: 20 bytes, over three per element
        EXPECT_EQ(STRING_UTIL::Unicode2Utf8(std::wstring(5, static_cast<wchar_t>(0x1F600))),
                  "\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80");
    }
}

TEST(TextConvert, CallerBufferCapacityRules) {
    // Unicode2Utf8 asks 3(n+1) bytes, even for empty or pure-ASCII text; a refusal touches nothing.
    char buffer[64];
    std::memset(buffer, 0x55, sizeof buffer);
    DWORD size = 2;
    EXPECT_FALSE(STRING_UTIL::Unicode2Utf8(std::wstring(), buffer, &size));
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(buffer[0], 0x55);
    size = 3;
    EXPECT_TRUE(STRING_UTIL::Unicode2Utf8(std::wstring(), buffer, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(std::string(buffer, 2), "\0\x55"s);
    size = 11;
    EXPECT_FALSE(STRING_UTIL::Unicode2Utf8(L"abc", buffer, &size));
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(buffer[0], '\0');
    std::memset(buffer, 0x55, sizeof buffer);
    size = 20;
    ASSERT_TRUE(STRING_UTIL::Unicode2Utf8(L"abc", buffer, &size));
    EXPECT_EQ(size, 3u);
    // Zeroed behind the text up to the capacity given, and not beyond.
    EXPECT_EQ(std::string(buffer, 64), "abc" + std::string(17, '\0') + std::string(44, '\x55'));
    size = sizeof buffer;
    ASSERT_TRUE(STRING_UTIL::Unicode2Utf8(kWideMixed, buffer, &size));
    EXPECT_EQ(std::string(buffer, size + 1), kUtf8Mixed + '\0');

    // Utf82Unicode asks n+1 units for n bytes, and clears those n+1 units only.
    const std::string text = "\xE6\x97\xA5\xE6\x9C\xAC"; // 日本: 6 bytes, 2 units
    wchar_t wide[12];
    std::wmemset(wide, L'#', 12);
    size = 6;
    EXPECT_FALSE(STRING_UTIL::Utf82Unicode(text, wide, &size));
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(wide[0], L'#');
    size = 12;
    ASSERT_TRUE(STRING_UTIL::Utf82Unicode(text, wide, &size));
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(std::wstring(wide, 12),
              (std::wstring{0x65E5, 0x672C, 0, 0, 0, 0, 0, L'#', L'#', L'#', L'#', L'#'}));
    size = 7;
    EXPECT_TRUE(STRING_UTIL::Utf82Unicode(text, wide, &size));
    size = 0;
    EXPECT_FALSE(STRING_UTIL::Utf82Unicode(std::string(), wide, &size));
    size = 1;
    EXPECT_TRUE(STRING_UTIL::Utf82Unicode(std::string(), wide, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(wide[0], L'\0');
}

TEST(TextConvert, AnsiCodePages) {
    ASSERT_EQ(GetACP(), 1252u); // the default
    const struct {
        UINT page;
        std::string ansi, utf8;
        std::wstring wide;
    } pages[] = {
        {1252, "caf\xE9 \x80", "caf\xC3\xA9 \xE2\x82\xAC", {L'c', L'a', L'f', 0xE9, L' ', 0x20AC}}, // café €
        {936,
         "\xD6\xD0\xCE\xC4 ok",
         "\xE4\xB8\xAD\xE6\x96\x87 ok",
         {0x4E2D, 0x6587, L' ', L'o', L'k'}}, // 中文 ok
    };
    for (const auto& p : pages) {
        SCOPED_TRACE(p.page);
        if (zoth_test::kWindows && p.page != GetACP()) continue; // Windows fixes the page for the system
        AnsiCodePage page(p.page);
        EXPECT_EQ(STRING_UTIL::Asci2Utf8(p.ansi), p.utf8);
        EXPECT_EQ(STRING_UTIL::Utf82Asci(p.utf8), p.ansi);
        EXPECT_EQ(STRING_UTIL::Asci2Unicode(p.ansi), p.wide);
        EXPECT_EQ(STRING_UTIL::Unicode2Asci(p.wide), p.ansi);
        EXPECT_TRUE(STRING_UTIL::IsvalidAsci(p.ansi));
        // NULs pass between ANSI and UTF-8; the wide forms stop at the first one.
        EXPECT_EQ(STRING_UTIL::Asci2Utf8(p.ansi + '\0' + p.ansi), p.utf8 + '\0' + p.utf8);
        EXPECT_EQ(STRING_UTIL::Utf82Asci(p.utf8 + '\0' + p.utf8), p.ansi + '\0' + p.ansi);
        EXPECT_EQ(STRING_UTIL::Asci2Unicode(p.ansi + '\0' + p.ansi), p.wide);
        EXPECT_EQ(STRING_UTIL::Unicode2Asci(p.wide + L'\0' + p.wide), p.ansi);
        // Long text: two bytes per unit fill the 2n+2 destination, three UTF-8 bytes per character
        // fit 3(n+1).
        std::string ansiLong, utf8Long;
        std::wstring wideLong;
        for (int i = 0; i < 100; ++i) {
            ansiLong += p.ansi;
            utf8Long += p.utf8;
            wideLong += p.wide;
        }
        EXPECT_EQ(STRING_UTIL::Asci2Utf8(ansiLong), utf8Long);
        EXPECT_EQ(STRING_UTIL::Utf82Asci(utf8Long), ansiLong);
        EXPECT_EQ(STRING_UTIL::Asci2Unicode(ansiLong), wideLong);
        EXPECT_EQ(STRING_UTIL::Unicode2Asci(wideLong), ansiLong);
    }
    EXPECT_EQ(STRING_UTIL::Asci2Utf8("") + STRING_UTIL::Utf82Asci("") + STRING_UTIL::Unicode2Asci(L""), "");
    EXPECT_EQ(STRING_UTIL::Asci2Unicode(""), L"");
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci(""));

    // 1252: characters the page lacks become its default character; every byte is text, the five the
    // page leaves undefined included.
    EXPECT_EQ(STRING_UTIL::Utf82Asci("x\xE4\xB8\xAD!"), "x?!");
    EXPECT_EQ(STRING_UTIL::Unicode2Asci(std::wstring{0x4E2D, 0x6587}), "??");
    std::string all;
    for (int b = 1; b < 256; ++b)
        all += static_cast<char>(b);
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci("\x81\x8D\x8F\x90\x9D"));
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci(all));
    EXPECT_EQ(STRING_UTIL::Utf82Asci(STRING_UTIL::Asci2Utf8(all)), all);

    // 936: a lead byte without its trail byte is invalid text, which flags 0 convert with a replacement.
    if (zoth_test::kWindows && GetACP() != 936) return; // Windows fixes the page for the system
    AnsiCodePage gbk(936);
    EXPECT_TRUE(STRING_UTIL::IsvalidAsci("plain"));
    for (const char* bad : {"\xD6", "ab\xD6", "\xD6\xD0\x81"})
        EXPECT_FALSE(STRING_UTIL::IsvalidAsci(bad)) << bad;
    EXPECT_EQ(STRING_UTIL::Asci2Utf8("ab\xD6"), "ab?");
}
