// Proxy options of the libcurl commands.
#include "ProxyFlags.h"

#include <cstdio>

namespace zoth_cli {

namespace {
// One command runs per process: its options live here until it ends.
struct Flags {
    std::string proxy;
    bool verbose = false;
};
Flags& TheFlags() {
    static Flags flags;
    return flags;
}
} // namespace

int TakeProxyOption(const Args& args, size_t& used, ZOTH::CHttpClientCurl& client, std::string& error) {
    const std::string& option = args[used];
    if (option == "-v") {
        TheFlags().verbose = true;
        used += 1;
        return 1;
    }
    if (option == "--system-proxy") {
        client.SetSystemProxy(true);
        used += 1;
        return 1;
    }
    if (option != "--proxy" && option != "--proxy-user") return 0;
    if (used + 1 >= args.size() || args[used + 1].empty()) {
        error = option + (option == "--proxy" ? " needs a URL" : " needs USER:PASS");
        return -1;
    }
    const std::string& value = args[used + 1];
    if (option == "--proxy") {
        TheFlags().proxy = value;
    } else {
        const size_t colon = value.find(':');
        if (colon == std::string::npos) {
            error = "--proxy-user needs USER:PASS";
            return -1;
        }
        client.SetProxyCredentials(value.substr(0, colon), value.substr(colon + 1));
    }
    used += 2;
    return 1;
}

const std::string& ProxyArgument() {
    return TheFlags().proxy;
}

void ReportProxy(ZOTH::CHttpClientCurl& client) {
    if (!TheFlags().verbose) return;
    const std::string proxy = client.GetLastProxy(); // credentials already stripped
    std::fprintf(stderr, "zoth: proxy: %s\n", proxy.empty() ? "none (direct)" : proxy.c_str());
    const int reused = client.GetLastConnectionReused();
    std::fprintf(stderr, "zoth: connection: %s\n", reused > 0 ? "reused" : reused == 0 ? "new" : "none");
    const std::string tls = client.GetLastTlsVersion();
    std::fprintf(stderr, "zoth: tls: %s\n", tls.empty() ? "none" : tls.c_str());
}

} // namespace zoth_cli
