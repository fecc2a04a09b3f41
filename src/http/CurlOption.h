// Sets one libcurl option and keeps its result where the caller records result codes.
#pragma once

#include <curl/curl.h>

namespace ZOTH::http {

// true when the option was taken; the code goes to `result` either way.
template <typename T> inline bool SetCurlOption(CURL* curl, CURLcode& result, CURLoption option, T value) {
    result = curl_easy_setopt(curl, option, value);
    return result == CURLE_OK;
}

// The value for CURLOPT_ACCEPT_ENCODING that offers every encoding this libcurl decodes: the list
// libcurl's own "" stands for, made once per process (AcceptEncoding.cpp).
const char* AcceptEncodingList();

} // namespace ZOTH::http
