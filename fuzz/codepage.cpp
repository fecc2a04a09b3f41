// The code-page conversions on arbitrary input: UTF-8 -> UTF-16 -> UTF-8 is the identity on valid
// text, invalid text converts without harm to valid text, and no conversion writes past the
// capacity it is given (every destination is a heap block of exactly that size).
#include "zoth/platform/Win32Text.h"
#include "zoth/text/STRING_UTIL.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

using ZOTH::STRING_UTIL;

namespace {

// Converts into an exact-size block; checks the result against the measured size.
void CheckToWide(UINT codePage, DWORD flags, const std::string& text, int capacity) {
    int needed = MultiByteToWideChar(codePage, flags, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::unique_ptr<wchar_t[]> block(new wchar_t[capacity > 0 ? capacity : 1]);
    int written = MultiByteToWideChar(codePage, flags, text.data(), static_cast<int>(text.size()),
                                      block.get(), capacity);
    if (capacity == 0) {
        if (written != needed) std::abort();
    } else if (needed > 0 && capacity >= needed) {
        if (written != needed) std::abort();
    } else if (written != 0) {
        std::abort();
    }
}

void CheckToNarrow(UINT codePage, const std::wstring& wide, int capacity) {
    int needed = WideCharToMultiByte(codePage, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                     nullptr, nullptr);
    std::unique_ptr<char[]> block(new char[capacity > 0 ? capacity : 1]);
    int written = WideCharToMultiByte(codePage, 0, wide.data(), static_cast<int>(wide.size()), block.get(),
                                      capacity, nullptr, nullptr);
    if (capacity > 0 && needed > 0 && capacity >= needed && written != needed) std::abort();
    if (capacity > 0 && capacity < needed && written != 0) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    int capacity = data[0];
    UINT ansiPage = (data[1] & 1) ? 936u : 1252u;
    std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    if (text.empty()) return 0;

    // UTF-8 round trip.
    std::wstring wide = STRING_UTIL::Utf82Unicode(text);
    std::string back = STRING_UTIL::Unicode2Utf8(wide);
    bool valid = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                     static_cast<int>(text.size()), nullptr, 0) > 0;
    if (valid && back != text) std::abort();
    // Replacement leaves valid UTF-16 and valid UTF-8 behind.
    if (!back.empty() && MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, back.data(),
                                             static_cast<int>(back.size()), nullptr, 0) <= 0)
        std::abort();
    if (!wide.empty() &&
        WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), static_cast<int>(wide.size()),
                            nullptr, 0, nullptr, nullptr) <= 0)
        std::abort();

    // Exact-size destinations of every kind.
    CheckToWide(CP_UTF8, 0, text, capacity);
    CheckToWide(CP_UTF8, MB_ERR_INVALID_CHARS, text, capacity);
    CheckToWide(ansiPage, 0, text, capacity);
    CheckToWide(ansiPage, MB_ERR_INVALID_CHARS, text, capacity);

    // Arbitrary wide elements, four input bytes each, including lone surrogates and values beyond U+10FFFF.
    std::wstring raw;
    for (size_t i = 0; i + 4 <= text.size(); i += 4) {
        uint32_t value = static_cast<unsigned char>(text[i]) | static_cast<unsigned char>(text[i + 1]) << 8;
        if (text[i + 2] & 1) value |= static_cast<uint32_t>(static_cast<unsigned char>(text[i + 3])) << 16;
        raw.push_back(static_cast<wchar_t>(value));
    }
    if (!raw.empty()) {
        CheckToNarrow(CP_UTF8, raw, capacity);
        CheckToNarrow(ansiPage, raw, capacity);
        std::string utf8 = STRING_UTIL::Unicode2Utf8(raw);
        if (!utf8.empty() && MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(),
                                                 static_cast<int>(utf8.size()), nullptr, 0) <= 0)
            std::abort();
    }

    // The caller-buffer forms with exactly the capacity they are told.
    DWORD units = static_cast<DWORD>(capacity);
    std::unique_ptr<wchar_t[]> wideBlock(new wchar_t[units > 0 ? units : 1]);
    if (STRING_UTIL::Utf82Unicode(text, wideBlock.get(), &units) && units > text.size()) std::abort();
    DWORD bytes = static_cast<DWORD>(capacity) * 3;
    std::unique_ptr<char[]> narrowBlock(new char[bytes > 0 ? bytes : 1]);
    if (STRING_UTIL::Unicode2Utf8(raw, narrowBlock.get(), &bytes) &&
        bytes >= static_cast<DWORD>(capacity) * 3)
        std::abort();
    return 0;
}
