// ANSI text on a process that never chose a code page: Windows-1252.
#include "zoth/platform/Win32Text.h"
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

using ZOTH::STRING_UTIL;

TEST(TextDefaults, AnsiIsWindows1252UntilSomeoneSetsIt) {
    // Bytes 0x80-0x9F are where 1252 differs from Latin-1 and from every other page.
    const std::string ansi = "caf\xE9 \x80 \x8A\x9F";
    const std::wstring wide = {L'c', L'a', L'f', 0x00E9, L' ', 0x20AC, L' ', 0x0160, 0x0178};
    const std::string utf8 = "caf\xC3\xA9 \xE2\x82\xAC \xC5\xA0\xC5\xB8";
    EXPECT_EQ(1252u, GetACP());
    EXPECT_EQ(wide, STRING_UTIL::Asci2Unicode(ansi));
    EXPECT_EQ(ansi, STRING_UTIL::Unicode2Asci(wide));
    EXPECT_EQ(utf8, STRING_UTIL::Asci2Utf8(ansi));
    EXPECT_EQ(ansi, STRING_UTIL::Utf82Asci(utf8));
}
