// STRING_UTIL's URL text operations: escaping, host part and query parameters. Plain text
// operations on bytes; nothing is validated and only the http and https heads are known.
#include "zoth/text/STRING_UTIL.h"

#include "text/Bits.h"

#include <bit>
#include <cctype>
#include <cstdint>
#include <cstring>

// The escaping walks take sixteen bytes at a time where SSE2 is there (every x86-64); elsewhere the
// byte-by-byte walk below does all of it.
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define ZOTH_URL_SSE2 1
#else
#define ZOTH_URL_SSE2 0
#endif

namespace ZOTH {

namespace {

// Escape digit values: 0-9, then A-Z and a-z as 10-35; every other byte counts as 0.
struct DigitTable {
    unsigned char value[256] = {};
    constexpr DigitTable() {
        for (int c = '0'; c <= '9'; ++c)
            value[c] = static_cast<unsigned char>(c - '0');
        for (int c = 'A'; c <= 'Z'; ++c)
            value[c] = static_cast<unsigned char>(c - 'A' + 10);
        for (int c = 'a'; c <= 'z'; ++c)
            value[c] = static_cast<unsigned char>(c - 'a' + 10);
    }
};
constexpr DigitTable kDigits;

// The value of one escape digit; a position past the end of the text counts as 0, so nothing beyond
// the input is ever read.
unsigned int EscapeDigit(const unsigned char* text, size_t size, size_t position) {
    return position < size ? kDigits.value[text[position]] : 0;
}

// What UrlEncode writes for each byte: its characters (up to three; a fourth slot lets every entry be
// copied as four bytes) and their count. ASCII letters and digits and - _ . ~ stand for themselves
// (what isalnum gives below 0x80 in every locale), a space is "+", every other byte "%" and two
// upper-case hex digits. Bytes from 0x80 up are escapes here; HighLetters may keep them.
struct EscapeTable {
    char code[256][4];
    unsigned char length[256];
};

// Which bytes from 0x80 up isalnum accepts in the process's locale, asked once per byte value and
// call, so the measuring and the writing pass of one call always agree.
class HighLetters {
public:
    HighLetters() { std::memset(m_known, -1, sizeof(m_known)); }

    bool operator()(unsigned char byte) {
        signed char& known = m_known[byte - 0x80];
        if (known < 0) known = std::isalnum(byte) != 0;
        return known != 0;
    }

private:
    signed char m_known[0x80];
};

constexpr EscapeTable MakeEscapeTable() {
    const char hex[] = "0123456789ABCDEF";
    EscapeTable table{};
    for (int b = 0; b < 256; ++b) {
        bool letter = b < 0x80 && (b | 0x20) >= 'a' && (b | 0x20) <= 'z';
        if (letter || (b >= '0' && b <= '9') || b == '-' || b == '_' || b == '.' || b == '~') {
            table.code[b][0] = static_cast<char>(b);
            table.length[b] = 1;
        } else if (b == ' ') {
            table.code[b][0] = '+';
            table.length[b] = 1;
        } else {
            table.code[b][0] = '%';
            table.code[b][1] = hex[b >> 4];
            table.code[b][2] = hex[b & 0x0F];
            table.length[b] = 3;
        }
    }
    return table;
}
constexpr EscapeTable kEscapes = MakeEscapeTable();

#if ZOTH_URL_SSE2
// Per byte of v: all ones where it lies in [low, high] (unsigned), else zero.
inline __m128i InRange(__m128i v, unsigned char low, unsigned char high) {
    __m128i shifted = _mm_add_epi8(v, _mm_set1_epi8(static_cast<char>(0x80 - low)));
    return _mm_cmplt_epi8(shifted, _mm_set1_epi8(static_cast<char>(0x80 + (high - low) + 1)));
}

// Bit i set where byte i of v is an ASCII byte that UrlEncode leaves as it is.
inline unsigned int AsciiPassMask(__m128i v) {
    __m128i letter = InRange(_mm_or_si128(v, _mm_set1_epi8(0x20)), 'a', 'z');
    __m128i pass = _mm_or_si128(letter, InRange(v, '0', '9'));
    pass = _mm_or_si128(pass, _mm_cmpeq_epi8(v, _mm_set1_epi8('-')));
    pass = _mm_or_si128(pass, _mm_cmpeq_epi8(v, _mm_set1_epi8('_')));
    pass = _mm_or_si128(pass, _mm_cmpeq_epi8(v, _mm_set1_epi8('.')));
    pass = _mm_or_si128(pass, _mm_cmpeq_epi8(v, _mm_set1_epi8('~')));
    return static_cast<unsigned int>(_mm_movemask_epi8(pass));
}

// Bit i set where byte i of v needs more than a copy from UrlEncode: not passing, not a space.
inline unsigned int EncodeStops(__m128i v) {
    unsigned int space = static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(' '))));
    return ~(AsciiPassMask(v) | space) & 0xFFFF;
}

// Bit i set where byte i of v is a "%".
inline unsigned int DecodeStops(__m128i v) {
    return static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('%'))));
}

// The stop bits of the 64 bytes at `in`.
template <typename Stops> uint64_t StopMask64(const unsigned char* in, Stops stops) {
    uint64_t mask = 0;
    for (int block = 0; block < 4; ++block)
        mask |= uint64_t{stops(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16 * block)))}
                << (16 * block);
    return mask;
}

// Copies `length` bytes from `in` to `out` sixteen at a time, each `from` byte turned into `to`. It
// reads and writes up to 15 bytes beyond the run: the callers keep that much room on both sides.
inline void CopyRun(const unsigned char* in, size_t length, char* out, char from, char to) {
    for (size_t k = 0; k < length; k += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + k));
        __m128i hit = _mm_cmpeq_epi8(v, _mm_set1_epi8(from));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k),
                         _mm_or_si128(_mm_andnot_si128(hit, v), _mm_and_si128(hit, _mm_set1_epi8(to))));
    }
}
#endif

// The URL without its scheme head: every "https://" when the URL holds "https" anywhere, else every
// "http://".
std::string WithoutHead(const std::string& url) {
    std::string result = url;
    if (url.find("https") != std::string::npos)
        STRING_UTIL::ReplaceAll(result, "https://", "", 0);
    else
        STRING_UTIL::ReplaceAll(result, "http://", "", 0);
    return result;
}

} // namespace

// Letters and digits (by isalnum) and - _ . ~ pass; a space becomes "+"; every other byte becomes
// "%" and two upper-case hex digits.
std::string STRING_UTIL::UrlEncode(const std::string& text) {
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text.data());
    const size_t size = text.size();
    HighLetters highLetters;
    auto lengthOf = [&](unsigned char byte) -> size_t {
        return byte >= 0x80 && highLetters(byte) ? 1 : kEscapes.length[byte];
    };

    // First pass: the exact length, so the result is allocated once.
    size_t length = 0, i = 0;
#if ZOTH_URL_SSE2
    for (; i + 16 <= size; i += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        __m128i space = _mm_cmpeq_epi8(v, _mm_set1_epi8(' '));
        unsigned int stop =
            ~(AsciiPassMask(v) | static_cast<unsigned int>(_mm_movemask_epi8(space))) & 0xFFFF;
        length += 16 + 2 * text::BitsOf16(stop);
        for (unsigned int high = static_cast<unsigned int>(_mm_movemask_epi8(v)); high != 0; high &= high - 1)
            length -= 3 - lengthOf(in[i + static_cast<unsigned int>(std::countr_zero(high))]);
    }
#endif
    for (; i < size; ++i)
        length += lengthOf(in[i]);

    std::string result(length + 3, '\0'); // room for the last entry's four-byte copy
    char* out = result.data();
    auto escape = [&](unsigned char byte) {
        if (byte >= 0x80 && highLetters(byte)) {
            *out++ = static_cast<char>(byte);
        } else {
            std::memcpy(out, kEscapes.code[byte], 4);
            out += kEscapes.length[byte];
        }
    };
    i = 0;
#if ZOTH_URL_SSE2
    // Windows of 64 bytes: one mask marks the bytes that need more than a copy, and the runs between
    // them are copied sixteen bytes at a time. A window is walked only while 16 more bytes of input
    // follow it, so the copies' overreach stays inside the input, and inside the result, whose room
    // is never less than the input left.
    for (; i + 80 <= size; i += 64) {
        uint64_t stops = StopMask64(in + i, EncodeStops);
        size_t done = 0;
        for (; stops != 0; stops &= stops - 1) {
            size_t at = static_cast<size_t>(std::countr_zero(stops));
            CopyRun(in + i + done, at - done, out, ' ', '+');
            out += at - done;
            escape(in[i + at]);
            done = at + 1;
        }
        CopyRun(in + i + done, 64 - done, out, ' ', '+');
        out += 64 - done;
    }
#endif
    for (; i < size; ++i)
        escape(in[i]);
    result.resize(length);
    return result;
}

// "+" gives a space; each "%" takes the next two positions as digits and gives exactly one byte,
// whatever they hold; every other byte passes.
std::string STRING_UTIL::UrlDecode(const std::string& text) {
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text.data());
    const size_t size = text.size();
    std::string result(size, '\0'); // never longer than the input
    char* out = result.data();
    size_t i = 0;
#if ZOTH_URL_SSE2
    // Windows of 64 bytes as in UrlEncode, "+" turned into a space on the way. An escape near the end
    // of a window takes its digits from the next one, which then starts behind them. The result is
    // written no faster than the input is read, so the copies' overreach stays inside it too.
    while (i + 80 <= size) {
        uint64_t stops = StopMask64(in + i, DecodeStops);
        size_t done = 0;
        while (stops != 0) {
            size_t at = static_cast<size_t>(std::countr_zero(stops));
            CopyRun(in + i + done, at - done, out, '+', ' ');
            out += at - done;
            *out++ = static_cast<char>((kDigits.value[in[i + at + 1]] * 16 + kDigits.value[in[i + at + 2]]) &
                                       0xFF);
            done = at + 3;
            stops = done >= 64 ? 0 : stops & (~uint64_t{0} << done);
        }
        if (done < 64) {
            CopyRun(in + i + done, 64 - done, out, '+', ' ');
            out += 64 - done;
            done = 64;
        }
        i += done;
    }
#endif
    for (; i < size; ++i) {
        char c = static_cast<char>(in[i]);
        if (c == '+') {
            *out++ = ' ';
        } else if (c == '%') {
            *out++ =
                static_cast<char>((EscapeDigit(in, size, i + 1) * 16 + EscapeDigit(in, size, i + 2)) & 0xFF);
            i += 2;
        } else {
            *out++ = c;
        }
    }
    result.resize(static_cast<size_t>(out - result.data()));
    return result;
}

// The host part: the URL without its scheme head, cut at its first "/".
std::string STRING_UTIL::Url2Domain(const std::string& url) {
    std::string result = WithoutHead(url);
    size_t slash = result.find('/');
    if (slash != std::string::npos) result.erase(slash);
    return result;
}

// The host part with "https://" in front when the URL holds "https", else "http://".
std::string STRING_UTIL::Url2DomainHasHttpType(const std::string& url) {
    std::string host = Url2Domain(url);
    return (url.find("https") != std::string::npos ? "https://" : "http://") + host;
}

// The URL without its scheme head; nothing else is touched.
std::string STRING_UTIL::UrlDeleteHttpHead(const std::string& url) {
    return WithoutHead(url);
}

// The pairs of the query (behind the first "?", or the whole text without one), split on "&" and
// then "="; a piece with other than exactly one "=" is skipped, and the first of equal keys stands.
// Nothing is unescaped.
std::map<std::string, std::string> STRING_UTIL::Url2Params(std::string url) {
    std::map<std::string, std::string> params;
    if (url.empty()) return params;
    size_t mark = url.find('?');
    std::string query = mark == std::string::npos ? url : url.substr(mark + 1);
    if (query.empty()) return params;
    std::vector<std::string> pieces;
    SplitStringA(query, '&', pieces, 1);
    for (const std::string& piece : pieces) {
        std::vector<std::string> fields;
        SplitStringA(piece, '=', fields, 1);
        if (fields.size() == 2) params.emplace(fields[0], fields[1]);
    }
    return params;
}

} // namespace ZOTH
