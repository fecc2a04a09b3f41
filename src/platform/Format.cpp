// Measuring formatters. The narrow one is vsnprintf's measuring mode; the wide family has none, so
// the text is formatted into a growing wide memory stream, which keeps wide characters as they are
// (no conversion to the locale's multibyte form that could fail).
#include "zoth/platform/Win32Format.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>

int _vscprintf(const char* format, va_list args) {
    if (format == nullptr) return -1;
    return std::vsnprintf(nullptr, 0, format, args);
}

int _vscwprintf(const wchar_t* format, va_list args) {
    if (format == nullptr) return -1;
    wchar_t* text = nullptr;
    size_t length = 0;
    FILE* stream = open_wmemstream(&text, &length);
    if (stream == nullptr) return -1;
    int count = std::vfwprintf(stream, format, args);
    std::fclose(stream);
    std::free(text);
    return count;
}
