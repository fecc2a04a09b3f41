// Conversions at their edges: inputs of hundreds of MiB, the int limits of the platform calls, and a
// code point above U+FFFF in the caller's buffer; and the zoth tool on standard input longer than
// 4 GiB, streamed.
#include "zoth/text/STRING_UTIL.h"
#include "zoth/win32.h"

#include "Portable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

using ZOTH::STRING_UTIL;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

} // namespace

// The caller's buffer of the documented size 3(n+1): a code point above U+FFFF is written whole, or
// the answer is false; never true with nothing written.
TEST(TextBigInput, CallerBufferTakesCodePointsAboveTheBmpOrRefuses) {
    const struct {
        const wchar_t* text;
        const char* utf8;
    } cases[] = {
        {L"\U0001F600", "\xF0\x9F\x98\x80"},
        {L"a\U0001F600", "a\xF0\x9F\x98\x80"},
        {L"\U0001F600\U0001F600\U0001F600", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
        {L"\u00fc\u4e16", "\xC3\xBC\xE4\xB8\x96"},
    };
    for (const auto& c : cases) {
        std::wstring text = c.text;
        SCOPED_TRACE(c.utf8);
        DWORD size = static_cast<DWORD>(3 * (text.size() + 1));
        std::string buffer(size, 'x');
        if (STRING_UTIL::Unicode2Utf8(text, buffer.data(), &size)) {
            ASSERT_EQ(std::strlen(c.utf8), size);
            EXPECT_EQ(0, std::memcmp(buffer.data(), c.utf8, size));
            EXPECT_EQ('\0', buffer[size]);
        } else {
            EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
            EXPECT_EQ('\0', buffer[0]); // nothing cut is left for a careless reader
        }
    }
    // Two units per code point where wchar_t is 16-bit, so 3(n+1) always holds it there.
    std::wstring one = L"\U0001F600";
    DWORD size = static_cast<DWORD>(3 * (one.size() + 1));
    char buffer[16] = {};
    EXPECT_EQ(sizeof(wchar_t) == 2 || one.size() == 1, STRING_UTIL::Unicode2Utf8(one, buffer, &size));
    EXPECT_EQ(4u, size);
}

// 600 MiB converts in full (its result needs n + 1 units only); past a conversion's own limit the
// answer is "" with ERROR_NOT_ENOUGH_MEMORY, never an empty success.
TEST(TextBigInput, HundredsOfMiBConvertOrFailWithAnError) {
    if (kSanitized) GTEST_SKIP() << "gigabytes through the sanitizers take too long";
    std::string text(600u << 20, 'a');
    text[12345] = 'Z';
    text.back() = 'q';
    {
        std::wstring wide = STRING_UTIL::Utf82Unicode(text);
        ASSERT_EQ(text.size(), wide.size());
        EXPECT_EQ(L'Z', wide[12345]);
        EXPECT_EQ(L'q', wide.back());
    }
    {
        std::wstring wide = STRING_UTIL::Asci2Unicode(text);
        ASSERT_EQ(text.size(), wide.size());
        EXPECT_EQ(L'Z', wide[12345]);
        EXPECT_EQ(L'q', wide.back());
    }
    text.resize(700u << 20, 'b'); // past (INT_MAX - 3) / 3 bytes: ANSI to UTF-8 cannot be counted
    SetLastError(0);
    EXPECT_EQ("", STRING_UTIL::Asci2Utf8(text));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY), GetLastError());
}

#if defined(ZOTH_TOOL) && !defined(_WIN32)
namespace {

// Runs a shell pipeline and gives what it printed; `status` its exit status.
std::string Shell(const std::string& command, int& status) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[512];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    status = pclose(pipe);
    return out;
}

} // namespace

// 4 GiB + 3 bytes of standard input, generated on the fly: `md5 -` and `base64` stream it in constant
// memory (a 512 MiB address-space limit) and give what coreutils give.
TEST(TextToolStream, Md5AndBase64OfMoreThanFourGiBFromStandardInput) {
    if (kSanitized) GTEST_SKIP() << "the release run only";
    const std::string tool = ZOTH_TOOL;
    const std::string source = "yes 'zoth stream 0123456789' | head -c 4294967299";
    const std::string limit = "ulimit -v 524288; ";
    int status = -1;
    // First across a few of the tool's pieces, against coreutils' text: 1 MB + 1 byte (a group
    // split between pieces), read back with its line break, and refused when cut or padded early.
    const std::string small = "yes 'zoth piece' | head -c 1000001";
    EXPECT_EQ(Shell(small + " | base64 -w0; echo", status),
              Shell(small + " | " + tool + " base64 encode", status));
    EXPECT_EQ(Shell(small + " | md5sum", status),
              Shell(small + " | base64 -w0 | " + tool + " base64 decode | md5sum", status));
    for (const char* bad : {"QUJD\\nQUJD", "QQ==QUJD", "QUJDQ"}) {
        Shell(std::string("printf '") + bad + "' | " + tool + " base64 decode 2>/dev/null", status);
        EXPECT_EQ(1, WEXITSTATUS(status)) << bad;
    }

    const std::string digest = Shell(source + " | md5sum | cut -c1-32", status);
    ASSERT_EQ(0, status);
    ASSERT_EQ(33u, digest.size());
    std::string got = Shell(source + " | (" + limit + tool + " md5 -)", status);
    EXPECT_EQ(0, status);
    std::transform(got.begin(), got.end(), got.begin(),
                   [](char c) { return static_cast<char>(std::tolower(c)); });
    EXPECT_EQ(digest.substr(0, 32) + "  -\n", got);

    // Encoded and decoded back to the same bytes.
    got = Shell(source + " | (" + limit + tool + " base64 encode) | (" + limit + tool +
                    " base64 decode) | md5sum | cut -c1-32",
                status);
    EXPECT_EQ(digest, got);
}
#endif
