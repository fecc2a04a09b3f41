// The Accept-Encoding list a request offers, worked out once per process.
#include "http/CurlOption.h"

#include <string>

namespace ZOTH::http {

const char* AcceptEncodingList() {
    // The encodings this libcurl decodes, in the order its own "" would list them. libcurl works
    // that list out anew on every CURLOPT_ACCEPT_ENCODING "" (about 1.3k instructions), and a kept
    // handle is reset and given its options before every transfer. Built once; a forked child
    // inherits it unchanged, which is right, since it runs the same libcurl.
    static const std::string list = [] {
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        const int features = info != nullptr ? info->features : 0;
        std::string names;
        const auto add = [&names](const char* name) {
            if (!names.empty()) names += ", ";
            names += name;
        };
        if (features & CURL_VERSION_LIBZ) {
            add("deflate");
            add("gzip");
        }
        if (features & CURL_VERSION_BROTLI) add("br");
        if (features & CURL_VERSION_ZSTD) add("zstd");
        return names;
    }();
    // Without any decoder, "" lets libcurl say what it does then.
    return list.c_str();
}

} // namespace ZOTH::http
