// MultiByteToWideChar / WideCharToMultiByte: capacity rules, errors, UTF-8 replacement, ANSI pages.
#include "PlatformTestSupport.h"
#include "zoth/platform/Win32Text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

std::wstring ToWide(UINT codePage, const std::string& bytes) {
    wchar_t buffer[256];
    int n = MultiByteToWideChar(codePage, 0, bytes.data(), static_cast<int>(bytes.size()), buffer, 256);
    return std::wstring(buffer, n > 0 ? n : 0);
}

std::string ToNarrow(UINT codePage, const std::wstring& wide) {
    char buffer[256];
    int n = WideCharToMultiByte(codePage, 0, wide.data(), static_cast<int>(wide.size()), buffer, 256, nullptr,
                                nullptr);
    return std::string(buffer, n > 0 ? n : 0);
}

// Makes `page` the ANSI code page for a scope; the tests start from the default, 1252.
struct AnsiCodePage {
    explicit AnsiCodePage(UINT page) { EXPECT_TRUE(ZothSetAnsiCodePage(page)); }
    ~AnsiCodePage() { ZothSetAnsiCodePage(1252); }
};

const DWORD kParam = ERROR_INVALID_PARAMETER, kFlags = ERROR_INVALID_FLAGS, kRoom = ERROR_INSUFFICIENT_BUFFER;
const wchar_t kBad = 0xFFFD;

} // namespace

// Capacity 0 asks for the size (count -1 includes the NUL); one short fails with
// ERROR_INSUFFICIENT_BUFFER and writes nothing past the capacity; the exact size fits.
TEST(PlatformCodePage, CapacityRules) {
    const char* mixed = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"; // a é 中 😀: 10 bytes, 5 units
    // In the first case one unit short leaves room for half the surrogate pair, which must not be written.
    const std::tuple<UINT, const char*, int, int> toWide[] = {
        {CP_UTF8, mixed, 10, 5}, {CP_UTF8, mixed, -1, 6}, {CP_ACP, "caf\xE9", -1, 5}};
    for (auto [page, bytes, count, needed] : toWide) {
        SCOPED_TRACE(testing::Message() << page << " " << bytes << " " << count);
        wchar_t wide[16];
        std::fill(wide, wide + 16, L'#');
        EXPECT_EQ(MultiByteToWideChar(page, 0, bytes, count, nullptr, 0), needed);
        EXPECT_FAILS_WITH(MultiByteToWideChar(page, 0, bytes, count, wide, needed - 1), 0, kRoom);
        EXPECT_EQ(std::wstring(wide + needed - 1, wide + 16), std::wstring(17 - needed, L'#'));
        EXPECT_EQ(MultiByteToWideChar(page, 0, bytes, count, wide, needed), needed);
    }
    const std::tuple<UINT, const wchar_t*, int, int> toNarrow[] = {
        {CP_UTF8, L"\u4e2d\u6587", 2, 6}, {CP_UTF8, L"\u4e2d\u6587", -1, 7}, {CP_ACP, L"caf\u00e9", -1, 5}};
    for (auto [page, wide, count, needed] : toNarrow) {
        SCOPED_TRACE(testing::Message() << page << " " << count);
        char narrow[16];
        std::fill(narrow, narrow + 16, '#');
        EXPECT_EQ(WideCharToMultiByte(page, 0, wide, count, nullptr, 0, nullptr, nullptr), needed);
        EXPECT_FAILS_WITH(WideCharToMultiByte(page, 0, wide, count, narrow, needed - 1, nullptr, nullptr), 0,
                          kRoom);
        EXPECT_EQ(std::string(narrow + needed - 1, narrow + 16), std::string(17 - needed, '#'));
        EXPECT_EQ(WideCharToMultiByte(page, 0, wide, count, narrow, needed, nullptr, nullptr), needed);
    }
}

TEST(PlatformCodePage, InvalidParametersAndFlags) {
    wchar_t wide[8];
    char narrow[8];
    BOOL used = FALSE;
    EXPECT_FAILS_WITH(MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, wide, 8), 0, kParam);
    EXPECT_FAILS_WITH(MultiByteToWideChar(CP_UTF8, 0, "abc", 0, wide, 8), 0, kParam);
    EXPECT_FAILS_WITH(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 8), 0, kParam);
    EXPECT_FAILS_WITH(MultiByteToWideChar(12345, 0, "abc", 3, wide, 8), 0, kParam);
    EXPECT_FAILS_WITH(MultiByteToWideChar(CP_UTF8, 0x100, "abc", 3, wide, 8), 0, kFlags);
    EXPECT_FAILS_WITH(WideCharToMultiByte(CP_UTF8, 0, L"abc", 0, narrow, 8, nullptr, nullptr), 0, kParam);
    EXPECT_FAILS_WITH(WideCharToMultiByte(1200, 0, L"abc", 3, narrow, 8, nullptr, nullptr), 0, kParam);
    // UTF-8 has no default character, and only UTF-8 knows WC_ERR_INVALID_CHARS.
    EXPECT_FAILS_WITH(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, narrow, 8, "?", nullptr), 0, kParam);
    EXPECT_FAILS_WITH(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, narrow, 8, nullptr, &used), 0, kParam);
    EXPECT_FAILS_WITH(
        WideCharToMultiByte(CP_ACP, WC_ERR_INVALID_CHARS, L"abc", 3, narrow, 8, nullptr, nullptr), 0, kFlags);
}

// Invalid UTF-8 becomes U+FFFD as on Windows; under MB_ERR_INVALID_CHARS it fails instead.
TEST(PlatformCodePage, Utf8ReplacementRules) {
    const std::pair<std::string, std::wstring> cases[] = {
        {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
        {"\xE2\x82\xAC", {0x20AC}},
        {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}}, // the highest code point
        {std::string("a\0b", 3), {L'a', L'\0', L'b'}},
        {"\x80", {kBad}},                  // stray continuation
        {"a\xFF\x62", {L'a', kBad, L'b'}}, // no lead byte
        {"\xC0\x80", {kBad, kBad}},        // overlong
        {"\xE0\x80\x80", {kBad, kBad, kBad}},
        {"\xF0\x80\x80\x80", {kBad, kBad, kBad, kBad}},
        {"\xED\xA0\x80", {kBad, kBad, kBad}},           // encoded surrogate
        {"\xF4\x90\x80\x80", {kBad, kBad, kBad, kBad}}, // above U+10FFFF
        {"\xE4\xB8\x41", {kBad, L'A'}},                 // truncated
        {"x\xF0\x9F\x98", {L'x', kBad}},                // truncated at the end
        {"\xC3\xC3\xA9", {kBad, 0xE9}},                 // lead then lead
    };
    for (const auto& [bytes, expected] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_EQ(ToWide(CP_UTF8, bytes), expected);
        bool valid = expected.find(kBad) == std::wstring::npos;
        int size = static_cast<int>(bytes.size());
        EXPECT_FAILS_WITH(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), size, nullptr, 0),
                          valid ? static_cast<int>(expected.size()) : 0,
                          valid ? 0 : ERROR_NO_UNICODE_TRANSLATION);
    }
}

TEST(PlatformCodePage, WideToUtf8Rules) {
    const std::pair<std::wstring, std::string> cases[] = {
        {{0xD83D, 0xDE00}, "\xF0\x9F\x98\x80"},
        {{0xD800, L'a'}, "\xEF\xBF\xBD\x61"}, // lone high surrogate
        {{L'a', 0xDC00}, "a\xEF\xBF\xBD"},    // lone low surrogate
        {{0xDE00, 0xD83D}, "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {{0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {{static_cast<wchar_t>(0x1F600)}, "\xF0\x9F\x98\x80"}, // a whole code point in one element
        {{static_cast<wchar_t>(0x110000)}, "\xEF\xBF\xBD"},
    };
    for (const auto& [wide, utf8] : cases)
        EXPECT_EQ(ToNarrow(CP_UTF8, wide), utf8);
    const wchar_t lone[] = {L'a', 0xD800};
    char narrow[8];
    EXPECT_FAILS_WITH(
        WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 2, narrow, 8, nullptr, nullptr), 0,
        ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 1, narrow, 8, nullptr, nullptr), 1);
}

// CP_ACP converts as the page set last; explicit pages work whatever CP_ACP stands for.
TEST(PlatformCodePage, AnsiCodePageSetterAndPages) {
    EXPECT_EQ(GetACP(), 1252u);
    for (UINT page : {12345u, CP_UTF8, CP_ACP})
        EXPECT_FAILS_WITH(ZothSetAnsiCodePage(page), FALSE, kParam);
    EXPECT_EQ(GetACP(), 1252u);
    const std::tuple<UINT, std::string, wchar_t> pages[] = {
        {932, "\x82\xA0", 0x3042}, {936, "\xD6\xD0", 0x4E2D}, {949, "\xB0\xA1", 0xAC00},
        {950, "\xA4\xA4", 0x4E2D}, {1250, "\x8A", 0x0160},    {1251, "\xC0", 0x0410},
        {1252, "\xC0", 0x00C0},    {1253, "\xC1", 0x0391},    {1254, "\xD0", 0x011E},
        {1255, "\xE0", 0x05D0},    {1256, "\xC7", 0x0627},    {1257, "\xC0", 0x0104},
        {1258, "\xC0", 0x00C0}};
    for (const auto& [page, bytes, unit] : pages) {
        std::wstring wide(1, unit);
        EXPECT_EQ(ToWide(page, bytes), wide) << page;
        AnsiCodePage set(page);
        EXPECT_EQ(GetACP(), page);
        EXPECT_EQ(ToWide(CP_ACP, "Az09" + bytes), L"Az09" + wide) << page;
        EXPECT_EQ(ToNarrow(CP_ACP, wide), bytes) << page;
    }
}

TEST(PlatformCodePage, AnsiInvalidAndUnmappable) {
    AnsiCodePage gbk(936);
    // A lead byte cut off by the end, or followed by no valid trail byte.
    EXPECT_EQ(ToWide(CP_ACP, "ab\xD6"), L"ab?");
    EXPECT_EQ(ToWide(CP_ACP, "\x81 x"), L"? x");
    EXPECT_FAILS_WITH(MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, "ab\xD6", 3, nullptr, 0), 0,
                      ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, "\xD6\xD0", 2, nullptr, 0), 1);
    // What the page lacks becomes the default character, and the caller is told.
    const wchar_t text[] = {L'a', 0x00E9, 0xD83D, 0xDE00, 0xDC00, L'b'};
    char narrow[32];
    BOOL used = FALSE;
    int n = WideCharToMultiByte(CP_ACP, 0, text, 6, narrow, 32, nullptr, &used);
    EXPECT_EQ(used, TRUE);
    std::string result(narrow, n > 0 ? n : 0);
    ASSERT_GE(result.size(), 4u);
    EXPECT_EQ(result.front(), 'a');
    EXPECT_EQ(result.substr(result.size() - 3), "??b"); // the pair and the lone surrogate
    n = WideCharToMultiByte(CP_ACP, 0, text + 4, 2, narrow, 32, "*", &used);
    EXPECT_EQ(std::string(narrow, n), "*b");
    WideCharToMultiByte(CP_ACP, 0, L"plain", 5, narrow, 32, nullptr, &used);
    EXPECT_EQ(used, FALSE);
}

// Each conversion has its own iconv descriptor; threads converting at once must not disturb each other.
TEST(PlatformCodePage, ConcurrentConversions) {
    AnsiCodePage gbk(936);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&failures] {
            for (int i = 0; i < 300; ++i)
                failures += (ToWide(CP_ACP, "\xD6\xD0\xCE\xC4") != std::wstring{0x4E2D, 0x6587}) +
                            (ToNarrow(CP_ACP, {0x4E2D, 0x6587}) != "\xD6\xD0\xCE\xC4") +
                            (ToWide(CP_UTF8, "\xE4\xB8\xAD") != std::wstring(1, 0x4E2D));
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}
