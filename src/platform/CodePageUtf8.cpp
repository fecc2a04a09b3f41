// UTF-8 <-> UTF-16 without iconv.
//
// Decoding follows the Unicode "maximal subpart" rule, as current Windows does: a byte sequence that
// cannot be completed is replaced by one U+FFFD for its longest valid prefix, and decoding resumes at
// the byte that broke it. So a truncated E4 B8 before 'A' gives U+FFFD 'A'; a stray continuation
// byte, a lead byte C0, C1 or F5-FF, and the first byte of an overlong form (E0 80, F0 80), of an
// encoded surrogate (ED A0) or of a code point above U+10FFFF (F4 90) each give one U+FFFD per byte.
#include "platform/CodePage.h"

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define ZOTH_CODEPAGE_SSE2 1
#endif

namespace ZOTH::platform {

namespace {

inline bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// Widens a run of ASCII bytes; returns how many it took (a multiple of 16, or of 8 without SSE2).
// With `kWrite` false it only measures the run.
template <bool kWrite> size_t WidenAscii(const unsigned char* s, size_t left, wchar_t* d) {
    size_t done = 0;
#if defined(ZOTH_CODEPAGE_SSE2)
    const __m128i zero = _mm_setzero_si128();
    for (; left - done >= 16; done += 16) {
        __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + done));
        if (_mm_movemask_epi8(bytes) != 0) break;
        if constexpr (kWrite) {
            __m128i low = _mm_unpacklo_epi8(bytes, zero);
            __m128i high = _mm_unpackhi_epi8(bytes, zero);
            __m128i* to = reinterpret_cast<__m128i*>(d + done);
            if constexpr (sizeof(wchar_t) == 4) {
                _mm_storeu_si128(to, _mm_unpacklo_epi16(low, zero));
                _mm_storeu_si128(to + 1, _mm_unpackhi_epi16(low, zero));
                _mm_storeu_si128(to + 2, _mm_unpacklo_epi16(high, zero));
                _mm_storeu_si128(to + 3, _mm_unpackhi_epi16(high, zero));
            } else {
                _mm_storeu_si128(to, low);
                _mm_storeu_si128(to + 1, high);
            }
        }
    }
#else
    for (; left - done >= 8; done += 8) {
        uint64_t word;
        std::memcpy(&word, s + done, 8);
        if (word & 0x8080808080808080ull) break;
        if constexpr (kWrite)
            for (int i = 0; i < 8; ++i)
                d[done + i] = static_cast<wchar_t>(s[done + i]);
    }
#endif
    return done;
}

// Narrows a run of wide elements below 0x80; returns how many it took.
template <bool kWrite> size_t NarrowAscii(const wchar_t* s, size_t left, char* d) {
    size_t done = 0;
#if defined(ZOTH_CODEPAGE_SSE2)
    if constexpr (sizeof(wchar_t) == 4) {
        const __m128i high = _mm_set1_epi32(~0x7F);
        const __m128i zero = _mm_setzero_si128();
        for (; left - done >= 16; done += 16) {
            const __m128i* from = reinterpret_cast<const __m128i*>(s + done);
            __m128i a = _mm_loadu_si128(from), b = _mm_loadu_si128(from + 1);
            __m128i c = _mm_loadu_si128(from + 2), e = _mm_loadu_si128(from + 3);
            __m128i any = _mm_and_si128(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, e)), high);
            if (_mm_movemask_epi8(_mm_cmpeq_epi32(any, zero)) != 0xFFFF) break;
            if constexpr (kWrite) {
                __m128i packed = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, e));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d + done), packed);
            }
        }
    }
#endif
    for (; left - done >= 8; done += 8) {
        uint32_t any = 0;
        for (int i = 0; i < 8; ++i)
            any |= static_cast<uint32_t>(s[done + i]);
        if (any >= 0x80) break;
        if constexpr (kWrite)
            for (int i = 0; i < 8; ++i)
                d[done + i] = static_cast<char>(s[done + i]);
    }
    return done;
}

// The decoder. `kWrite` false only counts; `kCheck` false means the caller made sure the
// destination holds at least one unit per input byte, which is the most UTF-8 can need.
template <bool kWrite, bool kCheck>
long long DecodeUtf8(const unsigned char* s, const unsigned char* end, wchar_t* destination, size_t capacity,
                     bool strict) {
    size_t out = 0;
    while (s < end) {
        if (*s < 0x80) {
            // ASCII: whole blocks, then byte by byte up to the next non-ASCII byte.
            size_t run = kCheck ? 0 : WidenAscii<kWrite>(s, static_cast<size_t>(end - s), destination + out);
            s += run;
            out += run;
            while (s < end && *s < 0x80) {
                if constexpr (kWrite) {
                    if (kCheck && out >= capacity) return kBufferTooSmall;
                    destination[out] = static_cast<wchar_t>(*s);
                }
                ++out;
                ++s;
            }
            continue;
        }

        // Runs of well-formed 2-byte sequences (Latin, Greek, Cyrillic...) with the short ASCII
        // stretches between them, or of 3-byte sequences (CJK).
        const unsigned char* runStart = s;
        int asciiStretch = 0; // a long ASCII stretch goes back to the block path above
        while (end - s >= 2) {
            unsigned char c = s[0];
            if (c < 0x80) {
                if (++asciiStretch > 16) break;
                if constexpr (kWrite) {
                    if (kCheck && out >= capacity) return kBufferTooSmall;
                    destination[out] = static_cast<wchar_t>(c);
                }
                ++out;
                ++s;
                continue;
            }
            if ((c & 0xE0) != 0xC0 || c < 0xC2 || !IsContinuation(s[1])) break;
            asciiStretch = 0;
            if constexpr (kWrite) {
                if (kCheck && out >= capacity) return kBufferTooSmall;
                destination[out] = static_cast<wchar_t>(((c & 0x1Fu) << 6) | (s[1] & 0x3Fu));
            }
            ++out;
            s += 2;
        }
        if constexpr (std::endian::native == std::endian::little) {
            // One 4-byte load tests and assembles a whole sequence.
            while (end - s >= 4) {
                uint32_t word;
                std::memcpy(&word, s, 4);
                if ((word & 0x00C0C0F0u) != 0x008080E0u) break;
                uint32_t cp = (word & 0x0Fu) << 12 | (word & 0x3F00u) >> 2 | (word & 0x3F0000u) >> 16;
                if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) break; // overlong or surrogate
                if constexpr (kWrite) {
                    if (kCheck && out >= capacity) return kBufferTooSmall;
                    destination[out] = static_cast<wchar_t>(cp);
                }
                ++out;
                s += 3;
            }
        }
        while (end - s >= 3 && (s[0] & 0xF0) == 0xE0 && IsContinuation(s[1]) && IsContinuation(s[2])) {
            uint32_t cp = ((s[0] & 0x0Fu) << 12) | ((s[1] & 0x3Fu) << 6) | (s[2] & 0x3Fu);
            if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) break; // overlong or surrogate
            if constexpr (kWrite) {
                if (kCheck && out >= capacity) return kBufferTooSmall;
                destination[out] = static_cast<wchar_t>(cp);
            }
            ++out;
            s += 3;
        }
        if (s != runStart) continue;

        // Everything else, one sequence or ill-formed subpart at a time.
        unsigned char c = *s;
        size_t left = static_cast<size_t>(end - s);
        uint32_t cp = 0;
        size_t length = 1; // bytes taken, also for an ill-formed subpart
        bool valid = false;
        if (c >= 0xC2 && c <= 0xDF) {
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
            if constexpr (kWrite) {
                if (kCheck && out >= capacity) return kBufferTooSmall;
                destination[out] = static_cast<wchar_t>(cp);
            }
            out += 1;
        } else {
            if constexpr (kWrite) {
                if (kCheck && capacity - out < 2) return kBufferTooSmall;
                cp -= 0x10000;
                destination[out] = static_cast<wchar_t>(0xD800 + (cp >> 10));
                destination[out + 1] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
            }
            out += 2;
        }
    }
    return static_cast<long long>(out);
}

// The encoder. `kCheck` false means the destination holds 4 bytes per input element.
template <bool kWrite, bool kCheck>
long long EncodeUtf8(const wchar_t* s, const wchar_t* end, char* destination, size_t capacity, bool strict) {
    size_t out = 0;
    while (s < end) {
        uint32_t cp = static_cast<uint32_t>(*s);
        if (cp < 0x80) {
            size_t run = kCheck ? 0 : NarrowAscii<kWrite>(s, static_cast<size_t>(end - s), destination + out);
            s += run;
            out += run;
            while (s < end && static_cast<uint32_t>(*s) < 0x80) {
                if constexpr (kWrite) {
                    if (kCheck && out >= capacity) return kBufferTooSmall;
                    destination[out] = static_cast<char>(*s);
                }
                ++out;
                ++s;
            }
            continue;
        }
        // Runs of BMP characters outside the surrogates: 3 bytes from 0x800 (CJK), 2 below.
        const wchar_t* runStart = s;
        if constexpr (kWrite && !kCheck && std::endian::native == std::endian::little) {
            // Two at a time, each with one 4-byte store: unchecked, 4 bytes per element remain at
            // any point, and each store's spare byte is written over next.
            auto threeBytes = [](uint32_t unit) {
                return unit - 0x800 < 0xD800 - 0x800 || unit - 0xE000 < 0x2000;
            };
            auto encode = [](uint32_t unit) {
                return (0xE0 | (unit >> 12)) | (0x80 | ((unit >> 6) & 0x3F)) << 8 |
                       (0x80 | (unit & 0x3F)) << 16;
            };
            for (; end - s >= 2; s += 2, out += 6) {
                uint32_t first = static_cast<uint32_t>(s[0]), second = static_cast<uint32_t>(s[1]);
                if (!threeBytes(first) || !threeBytes(second)) break;
                uint32_t words[2] = {encode(first), encode(second)};
                std::memcpy(destination + out, &words[0], 4);
                std::memcpy(destination + out + 3, &words[1], 4);
            }
        }
        for (; s < end; ++s) {
            uint32_t unit = static_cast<uint32_t>(*s);
            if (!(unit - 0x800 < 0xD800 - 0x800 || unit - 0xE000 < 0x2000)) break;
            if constexpr (kWrite) {
                if (kCheck && capacity - out < 3) return kBufferTooSmall;
                char* d = destination + out;
                if (!kCheck && std::endian::native == std::endian::little) {
                    // Unchecked, 4 bytes per element remain at any point, so one 4-byte store
                    // fits; its spare byte is written over next.
                    uint32_t word = (0xE0 | (unit >> 12)) | (0x80 | ((unit >> 6) & 0x3F)) << 8 |
                                    (0x80 | (unit & 0x3F)) << 16;
                    std::memcpy(d, &word, 4);
                } else {
                    d[0] = static_cast<char>(0xE0 | (unit >> 12));
                    d[1] = static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
                    d[2] = static_cast<char>(0x80 | (unit & 0x3F));
                }
            }
            out += 3;
        }
        // 2-byte characters with the short ASCII stretches between them.
        int asciiStretch = 0; // a long ASCII stretch goes back to the block path above
        for (; s < end; ++s) {
            uint32_t unit = static_cast<uint32_t>(*s);
            if (unit < 0x80) {
                if (++asciiStretch > 16) break;
                if constexpr (kWrite) {
                    if (kCheck && out >= capacity) return kBufferTooSmall;
                    destination[out] = static_cast<char>(unit);
                }
                out += 1;
                continue;
            }
            if (unit >= 0x800) break;
            asciiStretch = 0;
            if constexpr (kWrite) {
                if (kCheck && capacity - out < 2) return kBufferTooSmall;
                destination[out] = static_cast<char>(0xC0 | (unit >> 6));
                destination[out + 1] = static_cast<char>(0x80 | (unit & 0x3F));
            }
            out += 2;
        }
        if (s != runStart) continue;

        // Surrogates and elements beyond the BMP.
        ++s;
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

        size_t length = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        if constexpr (kWrite) {
            if (kCheck && capacity - out < length) return kBufferTooSmall;
            char* d = destination + out;
            if (length == 2) {
                d[0] = static_cast<char>(0xC0 | (cp >> 6));
                d[1] = static_cast<char>(0x80 | (cp & 0x3F));
            } else if (length == 3) {
                d[0] = static_cast<char>(0xE0 | (cp >> 12));
                d[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
                d[2] = static_cast<char>(0x80 | (cp & 0x3F));
            } else {
                d[0] = static_cast<char>(0xF0 | (cp >> 18));
                d[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
                d[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
                d[3] = static_cast<char>(0x80 | (cp & 0x3F));
            }
        }
        out += length;
    }
    return static_cast<long long>(out);
}

} // namespace

long long Utf8ToUtf16(const char* source, size_t count, wchar_t* destination, size_t capacity, bool strict) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(source);
    if (capacity == 0) return DecodeUtf8<false, false>(s, s + count, nullptr, 0, strict);
    if (capacity >= count) return DecodeUtf8<true, false>(s, s + count, destination, capacity, strict);
    return DecodeUtf8<true, true>(s, s + count, destination, capacity, strict);
}

long long Utf16ToUtf8(const wchar_t* source, size_t count, char* destination, size_t capacity, bool strict) {
    if (capacity == 0) return EncodeUtf8<false, false>(source, source + count, nullptr, 0, strict);
    if (capacity / 4 >= count)
        return EncodeUtf8<true, false>(source, source + count, destination, capacity, strict);
    return EncodeUtf8<true, true>(source, source + count, destination, capacity, strict);
}

} // namespace ZOTH::platform
