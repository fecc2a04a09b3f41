// Url2Params and the host-part operations on arbitrary text: no crash, and the shape of every
// result holds (pairs come from the query, host parts hold no "/", heads are the known ones).
#include "zoth/text/STRING_UTIL.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ZOTH::STRING_UTIL;
    std::string url(reinterpret_cast<const char*>(data), size);

    auto params = STRING_UTIL::Url2Params(url);
    size_t mark = url.find('?');
    std::string query = mark == std::string::npos ? url : url.substr(mark + 1);
    size_t ampersands = 0;
    for (char c : query)
        ampersands += c == '&';
    if (!query.empty() && params.size() > ampersands + 1) std::abort();
    if (query.empty() && !params.empty()) std::abort();
    for (const auto& [key, value] : params) {
        if (key.find_first_of("&=") != std::string::npos) std::abort();
        if (value.find_first_of("&=") != std::string::npos) std::abort();
        // The pair stands in the query as a whole piece, bounded by '&' or the ends.
        std::string piece = "&" + key + "=" + value + "&";
        if (("&" + query + "&").find(piece) == std::string::npos) std::abort();
    }

    std::string host = STRING_UTIL::Url2Domain(url);
    if (host.find('/') != std::string::npos || host.size() > size) std::abort();
    std::string typed = STRING_UTIL::Url2DomainHasHttpType(url);
    std::string head = url.find("https") != std::string::npos ? "https://" : "http://";
    if (typed != head + host) std::abort();
    std::string rest = STRING_UTIL::UrlDeleteHttpHead(url);
    if (rest.size() > size || rest.find(head) != std::string::npos) std::abort();
    if (host != rest.substr(0, rest.find('/'))) std::abort();
    return 0;
}
