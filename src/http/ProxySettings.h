// An object's proxy settings beyond the per-request proxy argument, the proxy decision of its
// transfer, and what that transfer found out about its connection.
#pragma once

#include "http/TransferInfo.h"

#include <string>
#include <vector>

namespace ZOTH::http {

struct ProxySettings {
    bool bSystemProxy = false; // ask the system for a proxy when no proxy argument is given
    // Set by the transfer being prepared: the proxies to try in order ("" for none). Empty: the
    // transfer runs once as its options stand.
    std::vector<std::string> candidates;
    std::string strLastProxy; // the last transfer's proxy, credentials stripped; "" for none
    // Credentials for any proxy.
    bool bCredentials = false;
    std::string strUser, strPassword;
    // The last transfer's connection (TransferInfo.cpp).
    TransferInfo last;
};

// url without the "user:password@" of its authority; a URL without a scheme ("host:port") too.
std::string StripCredentials(const std::string& url);

} // namespace ZOTH::http
