// Sets one libcurl option and keeps its result where the caller records result codes.
#pragma once

#include <curl/curl.h>

namespace ZOTH::http {

// true when the option was taken; the code goes to `result` either way.
template <typename T> inline bool SetCurlOption(CURL* curl, CURLcode& result, CURLoption option, T value) {
    result = curl_easy_setopt(curl, option, value);
    return result == CURLE_OK;
}

} // namespace ZOTH::http
