// The raw libcurl side of the small-GET comparisons: one easy handle set up as HttpGet sets its own.
#pragma once

#include <curl/curl.h>

#include <string>

namespace zoth_bench {

inline size_t Append(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

// The same request on the wire as HttpGet makes, with the same options, so only the wrapper differs.
inline void SetRawOptions(CURL* curl, const std::string& url, std::string& response) {
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(&response));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
}

} // namespace zoth_bench
