// STRING_UTIL Base64: the RFC 4648 alphabet and padding, no line breaks. The encoder and decoder
// cores work on plain buffers; the exported operations wrap them and hand them the result string's
// own storage as the block to fill, so the output is written once, in place, with no copy.
//
// Decoding keeps the behaviour callers rely on: "=" passes validation anywhere and then counts as
// 255 in 8-bit arithmetic; the low bits of the last real character are ignored; a NUL ends input.
#include "zoth/text/STRING_UTIL.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <new>

#if (defined(__GNUC__) || defined(__clang__)) && defined(__x86_64__)
#include <tmmintrin.h>
#define ZOTH_BASE64_SSSE3 1 // chosen at run time, when the processor has it
#endif

namespace ZOTH {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kNotBase64 = 255;

// Byte value -> position in the alphabet, 255 for every other byte, "=" included.
constexpr std::array<unsigned char, 256> MakeDecodeTable() {
    std::array<unsigned char, 256> table{};
    for (auto& entry : table)
        entry = kNotBase64;
    for (int i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    return table;
}
constexpr std::array<unsigned char, 256> kDecode = MakeDecodeTable();

// 12 input bits -> the two characters that encode them, so a group of 3 bytes takes two lookups.
struct CharPair {
    char c[2];
};
constexpr std::array<CharPair, 4096> MakePairTable() {
    std::array<CharPair, 4096> table{};
    for (int i = 0; i < 4096; ++i)
        table[i] = CharPair{{kAlphabet[i >> 6], kAlphabet[i & 63]}};
    return table;
}
constexpr std::array<CharPair, 4096> kPairs = MakePairTable();

// The decode table spread to the output bits of each of the four positions of a group: OR-ing the
// four entries gives the three bytes (first byte lowest). Bit 24 marks a byte outside the alphabet,
// which sends the group to the exact 8-bit path.
constexpr uint32_t kBadFlag = 1u << 24;
constexpr std::array<std::array<uint32_t, 256>, 4> MakeSpreadTables() {
    std::array<std::array<uint32_t, 256>, 4> tables{};
    for (int c = 0; c < 256; ++c) {
        uint32_t v = kDecode[c];
        if (v == kNotBase64) {
            for (auto& table : tables)
                table[c] = kBadFlag;
            continue;
        }
        tables[0][c] = v << 2;
        tables[1][c] = (v >> 4) | ((v & 0x0F) << 12);
        tables[2][c] = ((v >> 2) << 8) | ((v & 0x03) << 22);
        tables[3][c] = v << 16;
    }
    return tables;
}
constexpr std::array<std::array<uint32_t, 256>, 4> kSpread = MakeSpreadTables();

inline uint64_t LoadBig64(const unsigned char* p) {
    // Written out so that compilers turn it into one load and a byte swap.
    return static_cast<uint64_t>(p[0]) << 56 | static_cast<uint64_t>(p[1]) << 48 |
           static_cast<uint64_t>(p[2]) << 40 | static_cast<uint64_t>(p[3]) << 32 |
           static_cast<uint64_t>(p[4]) << 24 | static_cast<uint64_t>(p[5]) << 16 |
           static_cast<uint64_t>(p[6]) << 8 | static_cast<uint64_t>(p[7]);
}

inline uint16_t PairBits(uint64_t index) {
    uint16_t pair;
    std::memcpy(&pair, kPairs[index & 0xFFF].c, 2);
    return pair;
}

// Writes the eight characters of the top 48 bits of `bits`.
inline void StoreChars8(char* out, uint64_t bits) {
    if constexpr (std::endian::native == std::endian::little) {
        uint64_t chars = static_cast<uint64_t>(PairBits(bits >> 52)) |
                         static_cast<uint64_t>(PairBits(bits >> 40)) << 16 |
                         static_cast<uint64_t>(PairBits(bits >> 28)) << 32 |
                         static_cast<uint64_t>(PairBits(bits >> 16)) << 48;
        std::memcpy(out, &chars, 8);
    } else {
        std::memcpy(out, kPairs[(bits >> 52) & 0xFFF].c, 2);
        std::memcpy(out + 2, kPairs[(bits >> 40) & 0xFFF].c, 2);
        std::memcpy(out + 4, kPairs[(bits >> 28) & 0xFFF].c, 2);
        std::memcpy(out + 6, kPairs[(bits >> 16) & 0xFFF].c, 2);
    }
}

// Stores the low three bytes of `word` lowest first, and one byte more.
inline void StoreLittle32(unsigned char* p, uint32_t word) {
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(p, &word, 4);
    } else {
        for (int i = 0; i < 4; ++i)
            p[i] = static_cast<unsigned char>(word >> (8 * i));
    }
}

#if defined(ZOTH_BASE64_SSSE3)
// Encodes 12 bytes (of 16 read) into 16 characters with byte shuffles.
__attribute__((target("ssse3"))) void EncodeTwelve(const unsigned char* in, char* out) {
    __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    // Each 32-bit lane gets bytes 1, 0, 2, 1 of its group, so that two multiplies move each 6-bit
    // field into a byte of its own.
    bytes = _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    const __m128i first =
        _mm_mulhi_epu16(_mm_and_si128(bytes, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i second =
        _mm_mullo_epi16(_mm_and_si128(bytes, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i indices = _mm_or_si128(first, second);

    // Index -> character: pick the offset of its range (A-Z, a-z, 0-9, +, /) by a small table.
    __m128i range = _mm_subs_epu8(indices, _mm_set1_epi8(51));
    range = _mm_or_si128(range, _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), indices), _mm_set1_epi8(13)));
    const __m128i offsets =
        _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m128i text = _mm_add_epi8(_mm_shuffle_epi8(offsets, range), indices);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), text);
}

// Decodes 16 characters into 12 bytes with byte shuffles, storing 16 (the last four spare). False,
// with nothing written, when any of them is outside the alphabet ("=" included).
__attribute__((target("ssse3"))) bool DecodeSixteen(const unsigned char* in, unsigned char* out) {
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i high = _mm_and_si128(_mm_srli_epi32(c, 4), _mm_set1_epi8(0x0F));
    const __m128i low = _mm_and_si128(c, _mm_set1_epi8(0x0F));
    // Bit h of entry l is set when the byte 0xhl belongs to the alphabet; no byte from 0x80 does.
    const __m128i validByLow =
        _mm_setr_epi8(static_cast<char>(0xA8), static_cast<char>(0xF8), static_cast<char>(0xF8),
                      static_cast<char>(0xF8), static_cast<char>(0xF8), static_cast<char>(0xF8),
                      static_cast<char>(0xF8), static_cast<char>(0xF8), static_cast<char>(0xF8),
                      static_cast<char>(0xF8), static_cast<char>(0xF0), 0x54, 0x50, 0x50, 0x50, 0x54);
    const __m128i bitOfHigh = _mm_setr_epi8(0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, static_cast<char>(0x80),
                                            0, 0, 0, 0, 0, 0, 0, 0);
    const __m128i hits = _mm_and_si128(_mm_shuffle_epi8(validByLow, low), _mm_shuffle_epi8(bitOfHigh, high));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(hits, _mm_setzero_si128())) != 0) return false;

    // Character -> 6-bit value by an offset chosen by the high nibble; "/" shares its nibble with "+".
    const __m128i offsetByHigh =
        _mm_setr_epi8(0, 0, 62 - '+', 52 - '0', -'A', -'A', 26 - 'a', 26 - 'a', 0, 0, 0, 0, 0, 0, 0, 0);
    __m128i offset = _mm_shuffle_epi8(offsetByHigh, high);
    offset = _mm_add_epi8(
        offset, _mm_and_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('/')), _mm_set1_epi8((63 - '/') - (62 - '+'))));
    const __m128i values = _mm_add_epi8(c, offset);

    // a, b, c, d of each group -> a<<18 | b<<12 | c<<6 | d, then the three bytes high first.
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i bits = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    const __m128i bytes =
        _mm_shuffle_epi8(bits, _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    return true;
}
#endif

// Encodes `length` bytes into a block of the caller's `allocate`; null for a length below 1 or when
// the allocation fails.
template <typename Allocate>
char* Base64EncodeBuffer(const unsigned char* data, int32_t length, Allocate allocate) {
    if (length <= 0) return nullptr;
    size_t count = static_cast<size_t>(length);
    size_t pad = count % 3 == 0 ? 0 : 3 - count % 3;
    size_t textLength = (count + pad) / 3 * 4;
    char* text = static_cast<char*>(allocate(textLength + 1));
    if (text == nullptr) return nullptr;

    const unsigned char* in = data;
    char* out = text;
#if defined(ZOTH_BASE64_SSSE3)
    if (__builtin_cpu_supports("ssse3"))
        for (; count - static_cast<size_t>(in - data) >= 16; in += 12, out += 16)
            EncodeTwelve(in, out);
#endif
    // Four groups per step from two 8-byte reads, while 14 bytes remain to be read; eight characters
    // go out in one store.
    for (; count - static_cast<size_t>(in - data) >= 14; in += 12, out += 16) {
        uint64_t first = LoadBig64(in);
        uint64_t second = LoadBig64(in + 6);
        StoreChars8(out, first);
        StoreChars8(out + 8, second);
    }
    for (size_t groups = (count - static_cast<size_t>(in - data)) / 3; groups > 0; --groups) {
        uint32_t bits = static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(in[1]) << 8 | in[2];
        std::memcpy(out, kPairs[bits >> 12].c, 2);
        std::memcpy(out + 2, kPairs[bits & 0xFFF].c, 2);
        in += 3;
        out += 4;
    }
    // The last group reads only the bytes that exist; missing bits are zero.
    if (pad == 1) {
        uint32_t bits = static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(in[1]) << 8;
        out[0] = kAlphabet[bits >> 18];
        out[1] = kAlphabet[(bits >> 12) & 63];
        out[2] = kAlphabet[(bits >> 6) & 63];
        out[3] = '=';
    } else if (pad == 2) {
        out[0] = kAlphabet[in[0] >> 2];
        out[1] = kAlphabet[(in[0] & 0x03) << 4];
        out[2] = '=';
        out[3] = '=';
    }
    text[textLength] = '\0';
    return text;
}

// Decodes one group with the exact 8-bit arithmetic, "=" counting as 255. False for a byte outside
// the alphabet.
bool DecodeGroupSlowly(const unsigned char* group, unsigned char bytes[3]) {
    unsigned char v[4];
    for (int i = 0; i < 4; ++i) {
        v[i] = kDecode[group[i]];
        if (v[i] == kNotBase64 && group[i] != '=') return false;
    }
    bytes[0] = static_cast<unsigned char>(static_cast<unsigned char>(v[0] << 2) + (v[1] >> 4));
    bytes[1] = static_cast<unsigned char>(static_cast<unsigned char>(v[1] << 4) + (v[2] >> 2));
    bytes[2] = static_cast<unsigned char>(static_cast<unsigned char>(v[2] << 6) + v[3]);
    return true;
}

// Decodes the text up to its NUL. Null for empty text, a length that is no multiple of 4, a byte
// outside the alphabet or a failed allocation. Otherwise the bytes followed by a NUL, with *size the
// byte count plus 1, in a block of the caller's `allocate`. Validation runs along with decoding, so
// a text found invalid gives its block back through `release`.
template <typename Allocate, typename Release>
unsigned char* Base64DecodeBuffer(const char* text, size_t* size, Allocate allocate, Release release) {
    size_t length = std::strlen(text);
    if (length == 0 || length % 4 != 0) return nullptr;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    size_t pad = in[length - 1] != '=' ? 0 : in[length - 2] == '=' ? 2 : 1;

    *size = length - (length - 4) / 4 - pad;
    unsigned char* bytes = static_cast<unsigned char*>(allocate(*size));
    if (bytes == nullptr) return nullptr;

    unsigned char* out = bytes;
    size_t groups = length / 4;
    // Every group but the last stores four bytes; the fourth lands where the next group's output
    // begins and is written over by it.
    size_t g = 0;
#if defined(ZOTH_BASE64_SSSE3)
    // Four groups per step with byte shuffles while two more groups follow to take the spare bytes
    // of the 16-byte store; a block with any byte outside the alphabet goes on below.
    if (__builtin_cpu_supports("ssse3"))
        for (; g + 5 < groups && DecodeSixteen(in, out); g += 4, in += 16, out += 12) {
        }
#endif
    if constexpr (std::endian::native == std::endian::little) {
        // Two groups per step with one 8-byte store, while two more groups follow to write over
        // its two spare bytes.
        for (; g + 3 < groups; g += 2, in += 8, out += 6) {
            uint32_t first = kSpread[0][in[0]] | kSpread[1][in[1]] | kSpread[2][in[2]] | kSpread[3][in[3]];
            uint32_t second = kSpread[0][in[4]] | kSpread[1][in[5]] | kSpread[2][in[6]] | kSpread[3][in[7]];
            if ((first | second) & kBadFlag) break;
            uint64_t six = static_cast<uint64_t>(first) | static_cast<uint64_t>(second) << 24;
            std::memcpy(out, &six, 8);
        }
    }
    for (; g + 1 < groups; ++g, in += 4, out += 3) {
        uint32_t word = kSpread[0][in[0]] | kSpread[1][in[1]] | kSpread[2][in[2]] | kSpread[3][in[3]];
        if (word & kBadFlag) {
            unsigned char group[3];
            if (!DecodeGroupSlowly(in, group)) {
                release(bytes);
                return nullptr;
            }
            std::memcpy(out, group, 3);
        } else {
            StoreLittle32(out, word);
        }
    }
    // The last group writes only the bytes its padding leaves.
    unsigned char group[3];
    if (!DecodeGroupSlowly(in, group)) {
        release(bytes);
        return nullptr;
    }
    std::memcpy(out, group, 3 - pad);
    bytes[*size - 1] = '\0';
    return bytes;
}

} // namespace

std::string STRING_UTIL::Base64Encode(const std::string& bytes) {
    if (bytes.size() > static_cast<size_t>(INT32_MAX)) return std::string(); // beyond the core's length
    std::string result;
    // The block is the result's storage: size - 1 characters and its terminator.
    auto intoResult = [&result](size_t size) -> void* {
        try {
            result.resize(size - 1);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        return result.data();
    };
    if (Base64EncodeBuffer(reinterpret_cast<const unsigned char*>(bytes.data()),
                           static_cast<int32_t>(bytes.size()), intoResult) == nullptr)
        return std::string();
    return result;
}

std::string STRING_UTIL::Base64Decode(const std::string& text) {
    size_t size = 0;
    std::string result;
    auto intoResult = [&result](size_t size) -> void* {
        try {
            result.resize(size - 1); // the decoded bytes, counted, NULs among them
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        return result.data();
    };
    auto discard = [&result](void*) { result.clear(); };
    if (Base64DecodeBuffer(text.c_str(), &size, intoResult, discard) == nullptr) return std::string();
    return result;
}

} // namespace ZOTH
