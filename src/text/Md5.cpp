// The MD5 core (RFC 1321, unchanged): a context that takes a message piece by piece. Built into the
// library and, on its own, into the zoth tool, which digests standard input as it streams by.
#include "text/Md5.h"

#include <cstdint>
#include <cstring>

namespace ZOTH {

namespace {

using text::Md5Context;

const unsigned char kPadding[64] = {0x80};

inline uint32_t LoadLittle(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline uint32_t Rotate(uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}

// The auxiliary functions F, H and I, F in the form that needs one operation less; G is in its step.
#define ZOTH_MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define ZOTH_MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define ZOTH_MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define ZOTH_MD5_STEP(f, a, b, c, d, x, s, t)                                                                \
    a += f(b, c, d) + (x) + static_cast<uint32_t>(t);                                                        \
    a = Rotate(a, s) + b;
// G as two terms that never share a bit, added one by one so the first need not wait for b.
#define ZOTH_MD5_STEP_G(a, b, c, d, x, s, t)                                                                 \
    a += (x) + static_cast<uint32_t>(t) + (~(d) & (c));                                                      \
    a += (d) & (b);                                                                                          \
    a = Rotate(a, s) + b;

void Md5Transform(uint32_t state[4], const uint32_t x[16]) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    ZOTH_MD5_STEP(ZOTH_MD5_F, a, b, c, d, x[0], 7, 0xd76aa478)
    ZOTH_MD5_STEP(ZOTH_MD5_F, d, a, b, c, x[1], 12, 0xe8c7b756)
    ZOTH_MD5_STEP(ZOTH_MD5_F, c, d, a, b, x[2], 17, 0x242070db)
    ZOTH_MD5_STEP(ZOTH_MD5_F, b, c, d, a, x[3], 22, 0xc1bdceee)
    ZOTH_MD5_STEP(ZOTH_MD5_F, a, b, c, d, x[4], 7, 0xf57c0faf)
    ZOTH_MD5_STEP(ZOTH_MD5_F, d, a, b, c, x[5], 12, 0x4787c62a)
    ZOTH_MD5_STEP(ZOTH_MD5_F, c, d, a, b, x[6], 17, 0xa8304613)
    ZOTH_MD5_STEP(ZOTH_MD5_F, b, c, d, a, x[7], 22, 0xfd469501)
    ZOTH_MD5_STEP(ZOTH_MD5_F, a, b, c, d, x[8], 7, 0x698098d8)
    ZOTH_MD5_STEP(ZOTH_MD5_F, d, a, b, c, x[9], 12, 0x8b44f7af)
    ZOTH_MD5_STEP(ZOTH_MD5_F, c, d, a, b, x[10], 17, 0xffff5bb1)
    ZOTH_MD5_STEP(ZOTH_MD5_F, b, c, d, a, x[11], 22, 0x895cd7be)
    ZOTH_MD5_STEP(ZOTH_MD5_F, a, b, c, d, x[12], 7, 0x6b901122)
    ZOTH_MD5_STEP(ZOTH_MD5_F, d, a, b, c, x[13], 12, 0xfd987193)
    ZOTH_MD5_STEP(ZOTH_MD5_F, c, d, a, b, x[14], 17, 0xa679438e)
    ZOTH_MD5_STEP(ZOTH_MD5_F, b, c, d, a, x[15], 22, 0x49b40821)

    ZOTH_MD5_STEP_G(a, b, c, d, x[1], 5, 0xf61e2562)
    ZOTH_MD5_STEP_G(d, a, b, c, x[6], 9, 0xc040b340)
    ZOTH_MD5_STEP_G(c, d, a, b, x[11], 14, 0x265e5a51)
    ZOTH_MD5_STEP_G(b, c, d, a, x[0], 20, 0xe9b6c7aa)
    ZOTH_MD5_STEP_G(a, b, c, d, x[5], 5, 0xd62f105d)
    ZOTH_MD5_STEP_G(d, a, b, c, x[10], 9, 0x02441453)
    ZOTH_MD5_STEP_G(c, d, a, b, x[15], 14, 0xd8a1e681)
    ZOTH_MD5_STEP_G(b, c, d, a, x[4], 20, 0xe7d3fbc8)
    ZOTH_MD5_STEP_G(a, b, c, d, x[9], 5, 0x21e1cde6)
    ZOTH_MD5_STEP_G(d, a, b, c, x[14], 9, 0xc33707d6)
    ZOTH_MD5_STEP_G(c, d, a, b, x[3], 14, 0xf4d50d87)
    ZOTH_MD5_STEP_G(b, c, d, a, x[8], 20, 0x455a14ed)
    ZOTH_MD5_STEP_G(a, b, c, d, x[13], 5, 0xa9e3e905)
    ZOTH_MD5_STEP_G(d, a, b, c, x[2], 9, 0xfcefa3f8)
    ZOTH_MD5_STEP_G(c, d, a, b, x[7], 14, 0x676f02d9)
    ZOTH_MD5_STEP_G(b, c, d, a, x[12], 20, 0x8d2a4c8a)

    ZOTH_MD5_STEP(ZOTH_MD5_H, a, b, c, d, x[5], 4, 0xfffa3942)
    ZOTH_MD5_STEP(ZOTH_MD5_H, d, a, b, c, x[8], 11, 0x8771f681)
    ZOTH_MD5_STEP(ZOTH_MD5_H, c, d, a, b, x[11], 16, 0x6d9d6122)
    ZOTH_MD5_STEP(ZOTH_MD5_H, b, c, d, a, x[14], 23, 0xfde5380c)
    ZOTH_MD5_STEP(ZOTH_MD5_H, a, b, c, d, x[1], 4, 0xa4beea44)
    ZOTH_MD5_STEP(ZOTH_MD5_H, d, a, b, c, x[4], 11, 0x4bdecfa9)
    ZOTH_MD5_STEP(ZOTH_MD5_H, c, d, a, b, x[7], 16, 0xf6bb4b60)
    ZOTH_MD5_STEP(ZOTH_MD5_H, b, c, d, a, x[10], 23, 0xbebfbc70)
    ZOTH_MD5_STEP(ZOTH_MD5_H, a, b, c, d, x[13], 4, 0x289b7ec6)
    ZOTH_MD5_STEP(ZOTH_MD5_H, d, a, b, c, x[0], 11, 0xeaa127fa)
    ZOTH_MD5_STEP(ZOTH_MD5_H, c, d, a, b, x[3], 16, 0xd4ef3085)
    ZOTH_MD5_STEP(ZOTH_MD5_H, b, c, d, a, x[6], 23, 0x04881d05)
    ZOTH_MD5_STEP(ZOTH_MD5_H, a, b, c, d, x[9], 4, 0xd9d4d039)
    ZOTH_MD5_STEP(ZOTH_MD5_H, d, a, b, c, x[12], 11, 0xe6db99e5)
    ZOTH_MD5_STEP(ZOTH_MD5_H, c, d, a, b, x[15], 16, 0x1fa27cf8)
    ZOTH_MD5_STEP(ZOTH_MD5_H, b, c, d, a, x[2], 23, 0xc4ac5665)

    ZOTH_MD5_STEP(ZOTH_MD5_I, a, b, c, d, x[0], 6, 0xf4292244)
    ZOTH_MD5_STEP(ZOTH_MD5_I, d, a, b, c, x[7], 10, 0x432aff97)
    ZOTH_MD5_STEP(ZOTH_MD5_I, c, d, a, b, x[14], 15, 0xab9423a7)
    ZOTH_MD5_STEP(ZOTH_MD5_I, b, c, d, a, x[5], 21, 0xfc93a039)
    ZOTH_MD5_STEP(ZOTH_MD5_I, a, b, c, d, x[12], 6, 0x655b59c3)
    ZOTH_MD5_STEP(ZOTH_MD5_I, d, a, b, c, x[3], 10, 0x8f0ccc92)
    ZOTH_MD5_STEP(ZOTH_MD5_I, c, d, a, b, x[10], 15, 0xffeff47d)
    ZOTH_MD5_STEP(ZOTH_MD5_I, b, c, d, a, x[1], 21, 0x85845dd1)
    ZOTH_MD5_STEP(ZOTH_MD5_I, a, b, c, d, x[8], 6, 0x6fa87e4f)
    ZOTH_MD5_STEP(ZOTH_MD5_I, d, a, b, c, x[15], 10, 0xfe2ce6e0)
    ZOTH_MD5_STEP(ZOTH_MD5_I, c, d, a, b, x[6], 15, 0xa3014314)
    ZOTH_MD5_STEP(ZOTH_MD5_I, b, c, d, a, x[13], 21, 0x4e0811a1)
    ZOTH_MD5_STEP(ZOTH_MD5_I, a, b, c, d, x[4], 6, 0xf7537e82)
    ZOTH_MD5_STEP(ZOTH_MD5_I, d, a, b, c, x[11], 10, 0xbd3af235)
    ZOTH_MD5_STEP(ZOTH_MD5_I, c, d, a, b, x[2], 15, 0x2ad7d2bb)
    ZOTH_MD5_STEP(ZOTH_MD5_I, b, c, d, a, x[9], 21, 0xeb86d391)

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

#undef ZOTH_MD5_F
#undef ZOTH_MD5_H
#undef ZOTH_MD5_I
#undef ZOTH_MD5_STEP
#undef ZOTH_MD5_STEP_G

// Runs the transform on one 64-byte block read as 16 little-endian words.
inline void TransformBlock(uint32_t state[4], const unsigned char* block) {
    uint32_t words[16];
    for (int i = 0; i < 16; ++i)
        words[i] = LoadLittle(block + 4 * i);
    Md5Transform(state, words);
}

} // namespace

namespace text {

void Md5Init(Md5Context& context) {
    context.countLow = 0;
    context.countHigh = 0;
    context.state[0] = 0x67452301;
    context.state[1] = 0xefcdab89;
    context.state[2] = 0x98badcfe;
    context.state[3] = 0x10325476;
}

// Takes `length` more bytes of the message. Whole blocks are transformed straight from the input;
// only a partial block goes through the context's block, which gives the same words in the same order.
void Md5Update(Md5Context& context, const unsigned char* data, unsigned int length) {
    unsigned int index = (context.countLow >> 3) & 0x3F;
    uint32_t bits = static_cast<uint32_t>(length) << 3;
    context.countLow += bits;
    if (context.countLow < bits) ++context.countHigh;
    context.countHigh += static_cast<uint32_t>(length) >> 29;
    if (length == 0) return; // the data pointer is not read at all

    unsigned int taken = 0;
    if (index != 0) {
        unsigned int room = 64 - index;
        taken = length < room ? length : room;
        std::memcpy(context.block + index, data, taken);
        index += taken;
        if (index < 64) return;
        TransformBlock(context.state, context.block);
        index = 0;
    }
    for (; length - taken >= 64; taken += 64)
        TransformBlock(context.state, data + taken);
    if (length > taken) std::memcpy(context.block, data + taken, length - taken);
}

// Pads to 56 bytes mod 64, appends the 64-bit bit count and writes the digest.
void Md5Final(Md5Context& context) {
    uint32_t savedLow = context.countLow;
    uint32_t savedHigh = context.countHigh;
    unsigned int index = (context.countLow >> 3) & 0x3F;
    Md5Update(context, kPadding, index < 56 ? 56 - index : 120 - index);

    uint32_t words[16];
    for (int i = 0; i < 14; ++i)
        words[i] = LoadLittle(context.block + 4 * i);
    words[14] = savedLow;
    words[15] = savedHigh;
    Md5Transform(context.state, words);

    for (int i = 0; i < 4; ++i)
        for (int b = 0; b < 4; ++b)
            context.digest[4 * i + b] = static_cast<unsigned char>(context.state[i] >> (8 * b));
}

} // namespace text

} // namespace ZOTH
