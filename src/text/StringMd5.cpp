// STRING_UTIL MD5 digests (RFC 1321, unchanged) and the hex rendering of bytes. One contiguous
// buffer per call; the context lives on the caller's stack.
#include "zoth/text/STRING_UTIL.h"

#include "text/Md5.h"

#include <cstdint>
#include <cstring>

namespace ZOTH {

using text::Md5Context;
using text::Md5Final;
using text::Md5Init;
using text::Md5Update;

void STRING_UTIL::Buffer2Md5(unsigned char* data, unsigned int length, unsigned char* const digest) {
    Md5Context context;
    Md5Init(context);
    Md5Update(context, data, length);
    Md5Final(context);
    std::memcpy(digest, context.digest, 16);
}

unsigned int STRING_UTIL::Buffer2Md5(unsigned char* data, unsigned int length) {
    Md5Context context;
    Md5Init(context);
    Md5Update(context, data, length);
    Md5Final(context);
    return context.state[0];
}

void STRING_UTIL::String2Md5(const char* text, unsigned char* const digest) {
    Md5Context context;
    Md5Init(context);
    Md5Update(context, reinterpret_cast<const unsigned char*>(text),
              static_cast<unsigned int>(std::strlen(text)));
    Md5Final(context);
    std::memcpy(digest, context.digest, 16);
}

void STRING_UTIL::String2Md5(const std::string& text, unsigned char* const digest) {
    Buffer2Md5(reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
               static_cast<unsigned int>(text.size()), digest);
}

std::string STRING_UTIL::Hex2String(unsigned char* data, unsigned int length) {
    if (data == nullptr || length == 0) return std::string();
    static const char kDigits[] = "0123456789abcdef";
    std::string text(2 * static_cast<size_t>(length), '\0');
    for (size_t i = 0; i < length; ++i) {
        text[2 * i] = kDigits[data[i] >> 4];
        text[2 * i + 1] = kDigits[data[i] & 0x0F];
    }
    return text;
}

} // namespace ZOTH
