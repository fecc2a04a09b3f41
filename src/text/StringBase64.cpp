// STRING_UTIL Base64: the RFC 4648 alphabet and padding, no line breaks. The encoder and decoder
// cores work on plain buffers and return malloc blocks; the exported operations wrap them.
//
// Decoding keeps the behaviour callers rely on: "=" passes validation anywhere and then counts as
// 255 in 8-bit arithmetic; the low bits of the last real character are ignored; a NUL ends input.
#include "zoth/text/STRING_UTIL.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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

// Encodes `length` bytes; null for a length below 1 or when the allocation fails. The caller frees.
char* Base64EncodeBuffer(const unsigned char* data, int32_t length) {
    if (length <= 0) return nullptr;
    size_t count = static_cast<size_t>(length);
    size_t pad = count % 3 == 0 ? 0 : 3 - count % 3;
    size_t textLength = (count + pad) / 3 * 4;
    char* text = static_cast<char*>(std::malloc(textLength + 1));
    if (text == nullptr) return nullptr;

    const unsigned char* in = data;
    char* out = text;
    for (size_t groups = count / 3; groups > 0; --groups) {
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
// byte count plus 1. The caller frees.
unsigned char* Base64DecodeBuffer(const char* text, size_t* size) {
    size_t length = std::strlen(text);
    if (length == 0 || length % 4 != 0) return nullptr;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    size_t pad = in[length - 1] != '=' ? 0 : in[length - 2] == '=' ? 2 : 1;

    *size = length - (length - 4) / 4 - pad;
    unsigned char* bytes = static_cast<unsigned char*>(std::malloc(*size));
    if (bytes == nullptr) return nullptr;

    unsigned char* out = bytes;
    size_t groups = length / 4;
    for (size_t g = 0; g < groups; ++g, in += 4) {
        uint32_t word = kSpread[0][in[0]] | kSpread[1][in[1]] | kSpread[2][in[2]] | kSpread[3][in[3]];
        unsigned char group[3];
        if (word & kBadFlag) {
            if (!DecodeGroupSlowly(in, group)) {
                std::free(bytes);
                return nullptr;
            }
        } else {
            group[0] = static_cast<unsigned char>(word);
            group[1] = static_cast<unsigned char>(word >> 8);
            group[2] = static_cast<unsigned char>(word >> 16);
        }
        size_t take = g + 1 < groups ? 3 : 3 - pad;
        std::memcpy(out, group, take);
        out += take;
    }
    bytes[*size - 1] = '\0';
    return bytes;
}

} // namespace

std::string STRING_UTIL::Base64Encode(const std::string& bytes) {
    if (bytes.size() > static_cast<size_t>(INT32_MAX)) return std::string(); // beyond the core's length
    char* text = Base64EncodeBuffer(reinterpret_cast<const unsigned char*>(bytes.data()),
                                    static_cast<int32_t>(bytes.size()));
    if (text == nullptr) return std::string();
    std::string result(text, (bytes.size() + 2) / 3 * 4); // the text's length up to its NUL
    std::free(text);
    return result;
}

std::string STRING_UTIL::Base64Decode(const std::string& text) {
    size_t size = 0;
    unsigned char* bytes = Base64DecodeBuffer(text.c_str(), &size);
    if (bytes == nullptr) return std::string();
    std::string result(reinterpret_cast<const char*>(bytes), size - 1); // by count: NULs are data
    std::free(bytes);
    return result;
}

} // namespace ZOTH
