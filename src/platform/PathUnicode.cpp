// UTF-16 <-> UTF-8 for the wide path calls.
#include "platform/PathUnicode.h"

#include <cstdint>

namespace ZOTH::platform {

namespace {

void Append(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

void AppendUnit(std::wstring& out, uint32_t cp) {
    if (cp < 0x10000) {
        out += static_cast<wchar_t>(cp);
    } else {
        cp -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (cp >> 10));
        out += static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
    }
}

} // namespace

bool Utf16ToUtf8(const wchar_t* text, std::string& out) {
    out.clear();
    if (text == nullptr) return false;
    for (const wchar_t* p = text; *p != 0; ++p) {
        uint32_t unit = static_cast<uint32_t>(*p);
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            uint32_t low = static_cast<uint32_t>(p[1]);
            if (low < 0xDC00 || low > 0xDFFF) return false;
            Append(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
            ++p;
        } else if ((unit >= 0xDC00 && unit <= 0xDFFF) || unit > 0x10FFFF) {
            return false;
        } else {
            Append(out, unit);
        }
    }
    return true;
}

std::wstring Utf8ToUtf16(const std::string& text) {
    std::wstring out;
    size_t i = 0, n = text.size();
    while (i < n) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        int extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
        uint32_t cp = extra == 0 ? c : extra == 1 ? (c & 0x1F) : extra == 2 ? (c & 0x0F) : (c & 0x07);
        bool ok = extra >= 0 && i + static_cast<size_t>(extra) < n;
        for (int k = 1; ok && k <= extra; ++k) {
            unsigned char next = static_cast<unsigned char>(text[i + static_cast<size_t>(k)]);
            if ((next & 0xC0) != 0x80) ok = false;
            cp = (cp << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are no UTF-8 either.
        static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (ok && (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
        if (!ok) {
            out += static_cast<wchar_t>(0xFFFD);
            ++i;
            continue;
        }
        AppendUnit(out, cp);
        i += static_cast<size_t>(extra) + 1;
    }
    return out;
}

} // namespace ZOTH::platform
