// What an object tells of its latest operation beyond the libcurl code: the HTTP status and the
// words for a failure. Kept with the object's other settings.
#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <vector>

namespace ZOTH::http {

struct TransferReport {
    long status = 0; // the last response's HTTP status; 0 when none came
    // The library's own words for the operation's outcome; when unset, the words come from the
    // libcurl code, the error buffer and the status.
    std::optional<std::string> text;
    char errorBuffer[CURL_ERROR_SIZE] = {}; // libcurl's detail of its last failure
};

// Schemes and redirects of an object's libcurl transfers.
struct RedirectSettings {
    std::string schemes; // libcurl's protocol names, comma-separated; empty: "http,https"
    bool follow = false; // follow 301, 302, 303, 307 and 308 by browser rules
    int maxHops = 10;    // redirects followed at most in one operation
    // During a followed chain: the custom headers left after a hop to another origin dropped the
    // credentials. Unset outside a chain and before any such hop.
    std::optional<std::vector<std::string>> hopHeaders;
};

// "HTTP status 404 Not Found": the status with the reason phrase of the last status line in headers.
std::string StatusText(long status, const std::string& headers);

} // namespace ZOTH::http
