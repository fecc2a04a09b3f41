// MultiByteToWideChar / WideCharToMultiByte of the platform layer: sizes, buffers, parameters, the
// UTF-8 replacement rules and the settable ANSI code page.
#include "zoth/platform/Win32Text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

std::wstring ToWide(UINT codePage, const std::string& bytes, DWORD flags = 0) {
    wchar_t buffer[256];
    int n = MultiByteToWideChar(codePage, flags, bytes.data(), static_cast<int>(bytes.size()), buffer, 256);
    return std::wstring(buffer, n > 0 ? n : 0);
}

std::string ToNarrow(UINT codePage, const std::wstring& wide, DWORD flags = 0) {
    char buffer[256];
    int n = WideCharToMultiByte(codePage, flags, wide.data(), static_cast<int>(wide.size()), buffer, 256,
                                nullptr, nullptr);
    return std::string(buffer, n > 0 ? n : 0);
}

class AnsiCodePage {
public:
    explicit AnsiCodePage(UINT codePage) : saved_(GetACP()) { EXPECT_TRUE(ZothSetAnsiCodePage(codePage)); }
    ~AnsiCodePage() { ZothSetAnsiCodePage(saved_); }

private:
    UINT saved_;
};

const std::wstring kFffd(1, static_cast<wchar_t>(0xFFFD));

} // namespace

TEST(PlatformCodePage, SizesAndTerminator) {
    const char* utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"; // a é 中 😀: 10 bytes, 5 units
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, 10, nullptr, 0), 5);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0), 6); // the NUL counts
    wchar_t wide[8];
    std::fill(wide, wide + 8, L'#');
    ASSERT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, -1, wide, 8), 6);
    EXPECT_EQ(wide[5], L'\0');
    EXPECT_EQ(wide[6], L'#');

    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, 5, nullptr, 0, nullptr, nullptr), 10);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr), 11);
    char narrow[16];
    ASSERT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow, 16, nullptr, nullptr), 11);
    EXPECT_STREQ(narrow, utf8);

    // The ANSI road measures the same way.
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "caf\xE9", -1, nullptr, 0), 5);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"caf\u00e9", -1, nullptr, 0, nullptr, nullptr), 5);
}

TEST(PlatformCodePage, TooSmallBufferWritesNothingBeyondIt) {
    const char* utf8 = "abcdefghij\xE4\xB8\xAD"; // 11 units
    wchar_t wide[16];
    std::fill(wide, wide + 16, L'#');
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, -1, wide, 11), 0); // 12 needed with the NUL
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    for (int i = 11; i < 16; ++i)
        EXPECT_EQ(wide[i], L'#') << i;

    // A surrogate pair does not fit into the last unit.
    std::fill(wide, wide + 16, L'#');
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xF0\x9F\x98\x80", 4, wide, 1), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(wide[1], L'#');

    char narrow[16];
    std::fill(narrow, narrow + 16, '#');
    const wchar_t source[] = {0x4E2D, 0x6587, 0};
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, source, 2, narrow, 5, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(narrow[5], '#');
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, source, 2, narrow, 6, nullptr, nullptr), 6);

    SetLastError(0);
    std::fill(wide, wide + 16, L'#');
    std::fill(narrow, narrow + 16, '#');
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "abcdef", 6, wide, 3), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(wide[3], L'#');
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"abcdef", 6, narrow, 3, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(narrow[3], '#');
}

TEST(PlatformCodePage, InvalidParameters) {
    wchar_t wide[8];
    char narrow[8];
    auto expectError = [](int result, DWORD error) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(GetLastError(), error);
    };
    expectError(MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, wide, 8), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(CP_UTF8, 0, "abc", 0, wide, 8), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(CP_UTF8, 0, "abc", -2, wide, 8), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, wide, -1), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 8), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(12345, 0, "abc", 3, wide, 8), ERROR_INVALID_PARAMETER);
    expectError(MultiByteToWideChar(CP_UTF8, 0x100, "abc", 3, wide, 8), ERROR_INVALID_FLAGS);
    expectError(WideCharToMultiByte(CP_UTF8, 0, nullptr, 3, narrow, 8, nullptr, nullptr),
                ERROR_INVALID_PARAMETER);
    expectError(WideCharToMultiByte(CP_UTF8, 0, L"abc", 0, narrow, 8, nullptr, nullptr),
                ERROR_INVALID_PARAMETER);
    expectError(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, nullptr, 8, nullptr, nullptr),
                ERROR_INVALID_PARAMETER);
    expectError(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, narrow, 8, "?", nullptr), ERROR_INVALID_PARAMETER);
    BOOL used = FALSE;
    expectError(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, narrow, 8, nullptr, &used),
                ERROR_INVALID_PARAMETER);
    expectError(WideCharToMultiByte(CP_UTF8, 0x1, L"abc", 3, narrow, 8, nullptr, nullptr),
                ERROR_INVALID_FLAGS);
    expectError(WideCharToMultiByte(CP_ACP, WC_ERR_INVALID_CHARS, L"abc", 3, narrow, 8, nullptr, nullptr),
                ERROR_INVALID_FLAGS);
    expectError(WideCharToMultiByte(1200, 0, L"abc", 3, narrow, 8, nullptr, nullptr),
                ERROR_INVALID_PARAMETER);
}

TEST(PlatformCodePage, Utf8ReplacementRules) {
    const struct {
        const char* name;
        std::string bytes;
        std::wstring expected;
    } cases[] = {
        {"valid 4-byte", "\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
        {"valid 3-byte", "\xE2\x82\xAC", {0x20AC}},
        {"highest", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
        {"stray continuation", "\x80", kFffd},
        {"lead FF",
         "a\xFF"
         "b",
         {L'a', 0xFFFD, L'b'}},
        {"overlong 2-byte", "\xC0\x80", {0xFFFD, 0xFFFD}},
        {"overlong 3-byte", "\xE0\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD}},
        {"overlong 4-byte", "\xF0\x80\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}},
        {"encoded surrogate", "\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}},
        {"above U+10FFFF", "\xF4\x90\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}},
        {"truncated 3-byte",
         "\xE4\xB8"
         "A",
         {0xFFFD, L'A'}},
        {"truncated 4-byte at end", "x\xF0\x9F\x98", {L'x', 0xFFFD}},
        {"lead then lead", "\xC3\xC3\xA9", {0xFFFD, 0xE9}},
        {"embedded NUL", std::string("a\0b", 3), {L'a', L'\0', L'b'}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToWide(CP_UTF8, c.bytes), c.expected) << c.name;
        bool valid = c.expected.find(static_cast<wchar_t>(0xFFFD)) == std::wstring::npos;
        SetLastError(0);
        int strict = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, c.bytes.data(),
                                         static_cast<int>(c.bytes.size()), nullptr, 0);
        if (valid) {
            EXPECT_EQ(strict, static_cast<int>(c.expected.size())) << c.name;
        } else {
            EXPECT_EQ(strict, 0) << c.name;
            EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION) << c.name;
        }
    }
}

TEST(PlatformCodePage, WideToUtf8Rules) {
    EXPECT_EQ(ToNarrow(CP_UTF8, {0xD83D, 0xDE00}), "\xF0\x9F\x98\x80");
    EXPECT_EQ(ToNarrow(CP_UTF8, {0xD800, L'a'}), "\xEF\xBF\xBD"
                                                 "a");
    EXPECT_EQ(ToNarrow(CP_UTF8, {L'a', 0xDC00}), "a\xEF\xBF\xBD");
    EXPECT_EQ(ToNarrow(CP_UTF8, {0xDE00, 0xD83D}), "\xEF\xBF\xBD\xEF\xBF\xBD"); // reversed pair
    EXPECT_EQ(ToNarrow(CP_UTF8, {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}),
              "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
    if (sizeof(wchar_t) == 4) {
        EXPECT_EQ(ToNarrow(CP_UTF8, {static_cast<wchar_t>(0x1F600)}), "\xF0\x9F\x98\x80");
        EXPECT_EQ(ToNarrow(CP_UTF8, {static_cast<wchar_t>(0x110000)}), "\xEF\xBF\xBD");
    }
    char narrow[8];
    const wchar_t lone[] = {L'a', 0xD800};
    SetLastError(0);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 2, narrow, 8, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 1, narrow, 8, nullptr, nullptr), 1);
}

TEST(PlatformCodePage, AnsiCodePageSetter) {
    EXPECT_EQ(GetACP(), 1252u);
    EXPECT_FALSE(ZothSetAnsiCodePage(12345));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(ZothSetAnsiCodePage(CP_UTF8));
    EXPECT_FALSE(ZothSetAnsiCodePage(CP_ACP));
    EXPECT_EQ(GetACP(), 1252u);

    for (UINT page :
         {932u, 936u, 949u, 950u, 1250u, 1251u, 1252u, 1253u, 1254u, 1255u, 1256u, 1257u, 1258u}) {
        AnsiCodePage set(page);
        EXPECT_EQ(GetACP(), page);
        EXPECT_EQ(ToWide(CP_ACP, "Az09"), L"Az09") << page;
    }
    EXPECT_EQ(GetACP(), 1252u);

    {
        AnsiCodePage sjis(932);
        EXPECT_EQ(ToWide(CP_ACP, "\x82\xA0"), std::wstring(1, 0x3042)); // あ
        EXPECT_EQ(ToNarrow(CP_ACP, std::wstring(1, 0x3042)), "\x82\xA0");
    }
    // Explicit code pages work whatever CP_ACP stands for.
    EXPECT_EQ(ToWide(949, "\xB0\xA1"), std::wstring(1, 0xAC00)); // 가
    EXPECT_EQ(ToWide(950, "\xA4\xA4"), std::wstring(1, 0x4E2D)); // 中
    EXPECT_EQ(ToWide(1251, "\xC0"), std::wstring(1, 0x0410));    // А
    EXPECT_EQ(ToNarrow(936, {0x4E2D}), "\xD6\xD0");
    EXPECT_EQ(ToWide(CP_ACP, "\xC0"), std::wstring(1, 0x00C0)); // still 1252
}

TEST(PlatformCodePage, AnsiInvalidAndUnmappable) {
    AnsiCodePage gbk(936);
    // A lead byte cut off by the end, or followed by no valid trail byte.
    EXPECT_EQ(ToWide(CP_ACP, "ab\xD6"), L"ab?");
    EXPECT_EQ(ToWide(CP_ACP, "\x81 x"), L"? x");
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, "ab\xD6", 3, nullptr, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, "\xD6\xD0", 2, nullptr, 0), 1);

    // What the page lacks becomes the default character, and the caller may be told.
    const wchar_t text[] = {L'a', 0x00E9, 0xD83D, 0xDE00, 0xDC00, L'b'}; // é is not in GBK's single bytes
    char narrow[32];
    BOOL used = FALSE;
    int n = WideCharToMultiByte(CP_ACP, 0, text, 6, narrow, 32, nullptr, &used);
    EXPECT_EQ(used, TRUE);
    std::string result(narrow, n > 0 ? n : 0);
    EXPECT_EQ(result.front(), 'a');
    EXPECT_EQ(result.back(), 'b');
    EXPECT_EQ(result.substr(result.size() - 3), "??b"); // the pair and the lone surrogate
    n = WideCharToMultiByte(CP_ACP, 0, text + 4, 2, narrow, 32, "*", &used);
    EXPECT_EQ(std::string(narrow, n), "*b");
    used = TRUE;
    n = WideCharToMultiByte(CP_ACP, 0, L"plain", 5, narrow, 32, nullptr, &used);
    EXPECT_EQ(used, FALSE);
}

TEST(PlatformCodePage, ConcurrentConversions) {
    // Each call has its own iconv descriptor; threads converting at once must not disturb each other.
    AnsiCodePage gbk(936);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures, t] {
            for (int i = 0; i < 300; ++i) {
                if (t % 2 == 0) {
                    if (ToWide(CP_ACP, "\xD6\xD0\xCE\xC4") != std::wstring{0x4E2D, 0x6587}) ++failures;
                } else {
                    if (ToNarrow(CP_ACP, {0x4E2D, 0x6587}) != "\xD6\xD0\xCE\xC4") ++failures;
                }
                if (ToWide(CP_UTF8, "\xE4\xB8\xAD") != std::wstring(1, 0x4E2D)) ++failures;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}
