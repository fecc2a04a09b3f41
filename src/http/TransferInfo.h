// What the latest transfer of an object found out about its connection: whether one was made or
// reused, and the TLS version it spoke.
#pragma once

#include <curl/curl.h>

namespace ZOTH::http {

struct TransferInfo {
    CURL* handle = nullptr; // the handle of the transfer being watched, set before it runs
    bool connected = false; // a connection was ready: made or taken from the pool
    bool reused = false;    // ... and it was taken from the pool
    const char* tls = "";   // the TLS version of that connection ("TLSv1.3"); "" for none or unknown
};

// Prepares `info` for a transfer on `handle` and has libcurl report to it once the connection is
// ready. False, with libcurl's code in `code`, when an option failed.
bool WatchTransfer(CURL* handle, TransferInfo& info, CURLcode& code);
// Completes `info` after curl_easy_perform returned.
void FinishTransfer(TransferInfo& info);

} // namespace ZOTH::http
