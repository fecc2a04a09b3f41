// The raw libcurl side of the small-GET comparisons: one easy handle set up as HttpGet sets its own.
#pragma once

#include <curl/curl.h>

#include <atomic>
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

// What an object must do beyond the request on the wire, done on a raw handle: keep the response
// head, let a stop flag end a transfer that receives nothing, keep libcurl's error text, and pool
// its connection in `share`. Set once; the handle is then used as it stands.
struct SameWork {
    std::string headers;
    std::atomic<bool> stop{false};
    char errors[CURL_ERROR_SIZE] = {};
};

inline size_t AppendHead(char* data, size_t size, size_t count, void* user) {
    static_cast<SameWork*>(user)->headers.append(data, size * count);
    return size * count;
}

inline int StopRequested(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<SameWork*>(user)->stop ? 1 : 0;
}

inline void SetSameWorkOptions(CURL* curl, SameWork& work, CURLSH* share) {
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &AppendHead);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, static_cast<void*>(&work));
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &StopRequested);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, static_cast<void*>(&work));
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, work.errors);
    curl_easy_setopt(curl, CURLOPT_SHARE, share);
    curl_easy_setopt(curl, CURLOPT_MAXCONNECTS, 64L);
}

} // namespace zoth_bench
