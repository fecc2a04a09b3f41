// The MD5 context behind STRING_UTIL's digests, for callers inside the library that digest a message
// piece by piece (a file read in chunks) and must get the same digest as one call on the whole.
#pragma once

#include <cstdint>

namespace ZOTH::text {

struct Md5Context {
    uint32_t countLow;  // message bits taken in, low word
    uint32_t countHigh; // and high word
    uint32_t state[4];  // chaining words A, B, C, D
    unsigned char block[64];
    unsigned char digest[16];
};

// Starts a new message.
void Md5Init(Md5Context& context);
// Takes `length` more bytes of the message; `data` is not read when `length` is 0.
void Md5Update(Md5Context& context, const unsigned char* data, unsigned int length);
// Ends the message (up to 2^64 - 1 bits long) and leaves its digest in context.digest.
void Md5Final(Md5Context& context);

} // namespace ZOTH::text
