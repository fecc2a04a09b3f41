// The proxies the system's settings name for one URL.
#pragma once

#include <string>
#include <vector>

namespace ZOTH::platform {

// The proxies to try for url, in order, as URLs libcurl takes ("http://host:port", "socks5://...");
// "direct://" stands for no proxy. Read from the system's settings on every call (the environment,
// desktop settings, a PAC script); empty when they name none or cannot be read. Any thread may call.
std::vector<std::string> SystemProxiesFor(const std::string& url);

} // namespace ZOTH::platform
