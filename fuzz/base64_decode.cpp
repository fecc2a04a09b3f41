// Base64Decode on arbitrary text: never reads past the input, fails whole or decodes to the length
// the text announces, and encode -> decode gives back any bytes.
#include "zoth/text/STRING_UTIL.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

using ZOTH::STRING_UTIL;

namespace {

bool InAlphabetOrPad(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    std::string decoded = STRING_UTIL::Base64Decode(input);

    // What the decoder must have seen: the text up to the first NUL.
    size_t length = std::strlen(input.c_str());
    bool valid = length > 0 && length % 4 == 0;
    for (size_t i = 0; valid && i < length; ++i)
        valid = InAlphabetOrPad(static_cast<unsigned char>(input[i]));
    if (!valid) {
        if (!decoded.empty()) std::abort();
    } else {
        size_t pad = input[length - 1] != '=' ? 0 : input[length - 2] == '=' ? 2 : 1;
        if (decoded.size() != length / 4 * 3 - pad) std::abort();
    }

    // Any bytes, NULs included, survive a round trip.
    std::string text = STRING_UTIL::Base64Encode(input);
    if (text.size() != (size + 2) / 3 * 4) std::abort();
    if (STRING_UTIL::Base64Decode(text) != input) std::abort();
    return 0;
}
