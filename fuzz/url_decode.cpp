// UrlDecode and UrlEncode against small byte-by-byte models of the same rules (the library walks
// 16 bytes at a time), and the encode/decode round trip.
// The input is copied into a buffer of its exact size so that ASan sees any read past its end.
#include "zoth/text/STRING_UTIL.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

int DigitValue(const uint8_t* data, size_t size, size_t i) {
    if (i >= size) return 0;
    uint8_t c = data[i];
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    return 0;
}

std::string Model(const uint8_t* data, size_t size) {
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '+') {
            out += ' ';
        } else if (data[i] == '%') {
            out += static_cast<char>((DigitValue(data, size, i + 1) * 16 + DigitValue(data, size, i + 2)) &
                                     0xFF);
            i += 2;
        } else {
            out += static_cast<char>(data[i]);
        }
    }
    return out;
}

std::string EncodeModel(const uint8_t* data, size_t size) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        uint8_t b = data[i];
        if (std::isalnum(b) || b == '-' || b == '_' || b == '.' || b == '~')
            out += static_cast<char>(b);
        else if (b == ' ')
            out += '+';
        else
            out += {'%', hex[b >> 4], hex[b & 15]};
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string decoded = ZOTH::STRING_UTIL::UrlDecode(text);
    if (decoded.size() > size) std::abort();
    if (decoded != Model(data, size)) std::abort();

    std::string encoded = ZOTH::STRING_UTIL::UrlEncode(text);
    if (encoded != EncodeModel(data, size)) std::abort();
    if (ZOTH::STRING_UTIL::UrlDecode(encoded) != text) std::abort();
    return 0;
}
