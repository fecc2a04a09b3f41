// STRING_UTIL's URL text operations: escaping, host part and query parameters. Plain text
// operations on bytes; nothing is validated and only the http and https heads are known.
#include "zoth/text/STRING_UTIL.h"

#include <cctype>

namespace ZOTH {

namespace {

// The value of one escape digit: 0-9, then A-Z and a-z as 10-35. Anything else, and a position
// past the end of the text, counts as 0, so nothing beyond the input is ever read.
unsigned int EscapeDigit(const std::string& text, size_t position) {
    if (position >= text.size()) return 0;
    char c = text[position];
    if (c >= '0' && c <= '9') return static_cast<unsigned int>(c - '0');
    if (c >= 'A' && c <= 'Z') return static_cast<unsigned int>(c - 'A' + 10);
    if (c >= 'a' && c <= 'z') return static_cast<unsigned int>(c - 'a' + 10);
    return 0;
}

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
    static const char kHex[] = "0123456789ABCDEF";
    std::string result;
    result.reserve(text.size() * 3);
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || c == '-' || c == '_' || c == '.' || c == '~') {
            result += c;
        } else if (c == ' ') {
            result += '+';
        } else {
            result += '%';
            result += kHex[byte >> 4];
            result += kHex[byte & 0x0F];
        }
    }
    return result;
}

// "+" gives a space; each "%" takes the next two positions as digits and gives exactly one byte,
// whatever they hold; every other byte passes.
std::string STRING_UTIL::UrlDecode(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '+') {
            result += ' ';
        } else if (c == '%') {
            unsigned int value = EscapeDigit(text, i + 1) * 16 + EscapeDigit(text, i + 2);
            result += static_cast<char>(value & 0xFF);
            i += 2;
        } else {
            result += c;
        }
    }
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
