// What the libcurl commands share: their options (curl's -f, -i, -L, the TLS, proxy and download
// options, wherever they stand), the count of their other arguments, and the answer printed by curl's
// conventions.
#pragma once

#include "Commands.h"
#include "ProxyFlags.h"

#include "zoth/http/CHttpClientCurl.h"

#include <string>

namespace zoth_cli {

// curl's conventions beside the TLS and proxy options.
struct HttpFlags {
    bool fail = false;    // -f, --fail: a status of 400 or more exits 22, the body unprinted
    bool include = false; // -i, --include: the response head before the body
};

// Which options a command takes beyond the TLS and proxy options and -L.
enum : unsigned { kResponseFlags = 1, kDownloadFlags = 2 };

// Takes the options wherever they stand before a "--" and applies them to client; the other
// arguments go to positional in order ("-" alone is one: standard input). Empty when well formed,
// else the message for Fail, naming the argument.
std::string TakeOptions(const Args& args, unsigned accept, ZOTH::CHttpClientCurl& client, HttpFlags& flags,
                        Args& positional);
// Fails unless positional holds from `least` to `most` arguments, naming what is missing or extra.
std::string CheckCount(const Args& positional, size_t least, size_t most, const char* usage);
// "get failed: Couldn't connect to server: Failed to connect to ... (libcurl code 7)" on stderr; 1.
int TransferFailed(const char* what, ZOTH::CHttpClientCurl& client);
// Writes the body to standard output as bytes; 0.
int PrintBody(const std::string& body);
// The answer of a request or an upload by curl's conventions: a status of 400 or more under -f is a
// failure with exit code 22; -i puts the head before the body.
int Answer(const char* name, ZOTH::CHttpClientCurl& client, const HttpFlags& flags, const std::string& body);

// The commands that move files or measure (HttpTransfers.cpp).
int RunDownload(const Args& args);
int RunUpload(const Args& args);
int RunSpeed(const Args& args);

// Shown in the usage of every libcurl command.
#define TLS_OPTIONS_HELP                                                                                     \
    "\n  -L, --location follow redirects as a browser does (https never to http, credentials kept"           \
    "\n                 to the first origin, at most 10)"                                                    \
    "\n  --verify       verify the HTTPS server's certificate and host name (system trust store)"            \
    "\n  --cacert FILE  trust the CA certificates in FILE (or a hashed folder) instead; implies --verify"    \
    "\nWithout them HTTPS is encrypted but not authenticated: any certificate is "                           \
    "accepted. Only http:// and https:// URLs are taken." PROXY_OPTIONS_HELP
#define RESPONSE_OPTIONS_HELP                                                                                \
    "\n  -f, --fail     a status of 400 or more prints the status on stderr, not the body, and exits 22"     \
    "\n  -i, --include  print the response head before the body (with -L the final response's only)"
#define DOWNLOAD_OPTIONS_HELP                                                                                \
    "\n  --resume       keep what a cut download received and continue from there next time"                 \
    "\n  --sha256 HEX, --md5 HEX  the digest the file must have; else FILE is left as it was"                \
    "\n  --retry N      try a passing failure (no connection, timeout, 408, 429, 5xx) N more times"          \
    "\n  --retry-max-time S  within S seconds"
#define COMMON_OPTIONS                                                                                       \
    "[-L] [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] "

} // namespace zoth_cli
