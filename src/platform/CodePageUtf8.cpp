// UTF-8 <-> UTF-16 without iconv.
//
// Decoding follows the Unicode "maximal subpart" rule, as current Windows does: a byte sequence that
// cannot be completed is replaced by one U+FFFD for its longest valid prefix, and decoding resumes at
// the byte that broke it. So a truncated E4 B8 before 'A' gives U+FFFD 'A'; a stray continuation
// byte, a lead byte C0, C1 or F5-FF, and the first byte of an overlong form (E0 80, F0 80), of an
// encoded surrogate (ED A0) or of a code point above U+10FFFF (F4 90) each give one U+FFFD per byte.
#include "platform/CodePage.h"

#include <cstdint>
#include <cstring>

namespace ZOTH::platform {

namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ull;

inline bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

} // namespace

long long Utf8ToUtf16(const char* source, size_t count, wchar_t* destination, size_t capacity, bool strict) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(source);
    const unsigned char* end = s + count;
    const bool counting = capacity == 0;
    size_t out = 0;

    while (s < end) {
        // ASCII runs eight bytes at a time: the common case for paths, markup and identifiers.
        while (end - s >= 8) {
            uint64_t word;
            std::memcpy(&word, s, 8);
            if (word & kHighBits) break;
            if (!counting) {
                if (capacity - out < 8) break;
                for (int i = 0; i < 8; ++i)
                    destination[out + i] = static_cast<wchar_t>(s[i]);
            }
            out += 8;
            s += 8;
        }
        if (s == end) break;

        unsigned char c = *s;
        uint32_t cp = 0;
        size_t length = 1; // bytes taken, also for an ill-formed subpart
        bool valid = false;
        size_t left = static_cast<size_t>(end - s);
        if (c < 0x80) {
            cp = c;
            valid = true;
        } else if (c >= 0xC2 && c <= 0xDF) {
            if (left >= 2 && IsContinuation(s[1])) {
                cp = ((c & 0x1Fu) << 6) | (s[1] & 0x3Fu);
                length = 2;
                valid = true;
            }
        } else if (c >= 0xE0 && c <= 0xEF) {
            // The second byte's range excludes overlong forms (E0) and surrogates (ED).
            unsigned char low = c == 0xE0 ? 0xA0 : 0x80;
            unsigned char high = c == 0xED ? 0x9F : 0xBF;
            if (left >= 2 && s[1] >= low && s[1] <= high) {
                length = 2;
                if (left >= 3 && IsContinuation(s[2])) {
                    cp = ((c & 0x0Fu) << 12) | ((s[1] & 0x3Fu) << 6) | (s[2] & 0x3Fu);
                    length = 3;
                    valid = true;
                }
            }
        } else if (c >= 0xF0 && c <= 0xF4) {
            // The second byte's range excludes overlong forms (F0) and values above U+10FFFF (F4).
            unsigned char low = c == 0xF0 ? 0x90 : 0x80;
            unsigned char high = c == 0xF4 ? 0x8F : 0xBF;
            if (left >= 2 && s[1] >= low && s[1] <= high) {
                length = 2;
                if (left >= 3 && IsContinuation(s[2])) {
                    length = 3;
                    if (left >= 4 && IsContinuation(s[3])) {
                        cp = ((c & 0x07u) << 18) | ((s[1] & 0x3Fu) << 12) | ((s[2] & 0x3Fu) << 6) |
                             (s[3] & 0x3Fu);
                        length = 4;
                        valid = true;
                    }
                }
            }
        }
        if (!valid) {
            if (strict) return kInvalidInput;
            cp = 0xFFFD;
        }
        s += length;

        if (cp < 0x10000) {
            if (!counting) {
                if (out >= capacity) return kBufferTooSmall;
                destination[out] = static_cast<wchar_t>(cp);
            }
            out += 1;
        } else {
            if (!counting) {
                if (capacity - out < 2) return kBufferTooSmall;
                cp -= 0x10000;
                destination[out] = static_cast<wchar_t>(0xD800 + (cp >> 10));
                destination[out + 1] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
            }
            out += 2;
        }
    }
    return static_cast<long long>(out);
}

long long Utf16ToUtf8(const wchar_t* source, size_t count, char* destination, size_t capacity, bool strict) {
    const wchar_t* s = source;
    const wchar_t* end = s + count;
    const bool counting = capacity == 0;
    size_t out = 0;

    while (s < end) {
        // ASCII runs eight units at a time.
        while (end - s >= 8) {
            uint32_t any = 0;
            for (int i = 0; i < 8; ++i)
                any |= static_cast<uint32_t>(s[i]);
            if (any >= 0x80) break;
            if (!counting) {
                if (capacity - out < 8) break;
                for (int i = 0; i < 8; ++i)
                    destination[out + i] = static_cast<char>(s[i]);
            }
            out += 8;
            s += 8;
        }
        if (s == end) break;

        uint32_t cp = static_cast<uint32_t>(*s++);
        if (cp >= 0xD800 && cp <= 0xDFFF) {
            uint32_t next = s < end ? static_cast<uint32_t>(*s) : 0;
            if (cp <= 0xDBFF && next >= 0xDC00 && next <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (next - 0xDC00);
                ++s;
            } else {
                if (strict) return kInvalidInput;
                cp = 0xFFFD;
            }
        } else if (cp > 0x10FFFF) {
            // wchar_t holds more than 21 bits here; such an element is no character.
            if (strict) return kInvalidInput;
            cp = 0xFFFD;
        }

        unsigned char bytes[4];
        size_t length;
        if (cp < 0x80) {
            bytes[0] = static_cast<unsigned char>(cp);
            length = 1;
        } else if (cp < 0x800) {
            bytes[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
            bytes[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
            length = 2;
        } else if (cp < 0x10000) {
            bytes[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
            bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
            bytes[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
            length = 3;
        } else {
            bytes[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
            bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
            bytes[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
            bytes[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
            length = 4;
        }
        if (!counting) {
            if (capacity - out < length) return kBufferTooSmall;
            for (size_t i = 0; i < length; ++i)
                destination[out + i] = static_cast<char>(bytes[i]);
        }
        out += length;
    }
    return static_cast<long long>(out);
}

} // namespace ZOTH::platform
