// The proxy options of the libcurl commands: --proxy URL, --proxy-user USER:PASS, --system-proxy,
// and -v, which reports the proxy a transfer went through, its connection and its TLS version.
#pragma once

#include "Commands.h"

#include "zoth/http/CHttpClientCurl.h"

#include <string>

namespace zoth_cli {

// Takes the proxy option or -v at args[used] (and its value), applies it to client and moves used
// past it. 1 when taken, 0 when args[used] is no such option, -1 when malformed (message in error).
int TakeProxyOption(const Args& args, size_t& used, ZOTH::CHttpClientCurl& client, std::string& error);
// The --proxy URL given, or "" for none.
const std::string& ProxyArgument();
// With -v, says on stderr which proxy the latest transfer went through, whether its connection was
// reused or new ("none" when it reached no server), and its TLS version ("none" for plain HTTP).
void ReportProxy(ZOTH::CHttpClientCurl& client);

// Shown in the usage of every libcurl command.
#define PROXY_OPTIONS_HELP                                                                                   \
    "\n  --proxy URL    through this proxy (http://, https://, socks5://; get, post, put, upload)"           \
    "\n  --proxy-user USER:PASS  credentials for the proxy (Basic, Digest, NTLM, Negotiate)"                 \
    "\n  --system-proxy the system's proxy settings (environment, desktop, PAC) when no --proxy is given"    \
    "\n  -v             say on stderr the proxy used, the connection (new or reused) and the TLS version"

} // namespace zoth_cli
