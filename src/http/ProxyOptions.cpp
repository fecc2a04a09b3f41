// Which proxy a transfer goes through: the proxy argument, else the system's choice when the object
// asks for it; the system's list is tried in order.
#include "zoth/http/CHttpClientCurl.h"

#include "http/CurlOption.h"
#include "http/ProxySettings.h"
#include "platform/SystemProxy.h"

namespace ZOTH {

using http::SetCurlOption;

namespace http {

std::string StripCredentials(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t end = url.find_first_of("/?#", start);
    const size_t at = url.rfind('@', end == std::string::npos ? std::string::npos : end);
    if (at == std::string::npos || at < start) return url;
    return url.substr(0, start) + url.substr(at + 1);
}

namespace {

// The system's answer as libcurl proxy strings: "" for a direct connection; schemes libcurl does not
// speak are left out.
std::vector<std::string> Candidates(const std::vector<std::string>& proxies) {
    std::vector<std::string> candidates;
    for (const std::string& proxy : proxies) {
        if (proxy == "direct://") {
            candidates.emplace_back();
            continue;
        }
        for (const char* scheme :
             {"http://", "https://", "socks4://", "socks4a://", "socks5://", "socks5h://"})
            if (proxy.rfind(scheme, 0) == 0) {
                candidates.push_back(proxy);
                break;
            }
    }
    return candidates;
}

// Failures that mean the transfer never reached a server through this candidate, so the next one
// may be tried.
bool TryNext(CURLcode code) {
    return code == CURLE_COULDNT_RESOLVE_PROXY || code == CURLE_COULDNT_CONNECT || code == CURLE_PROXY;
}

} // namespace
} // namespace http

bool CHttpClientCurl::SetProxyOptions(const std::string& url, const std::string& proxy) {
    http::ProxySettings& p = EditProxy();
    p.candidates.clear();
    p.strLastProxy.clear();
    // Any scheme the proxy offers; libcurl sends them to a proxy only, never to the origin. An empty
    // user lets libcurl take the logged-in user's own (SSPI on Windows, a Kerberos ticket elsewhere).
    if (p.bCredentials &&
        (!SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROXYUSERNAME, p.strUser.c_str()) ||
         !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROXYPASSWORD, p.strPassword.c_str()) ||
         !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROXYAUTH, static_cast<unsigned long>(CURLAUTH_ANY))))
        return false;
    if (!proxy.empty()) {
        p.strLastProxy = http::StripCredentials(proxy);
        return SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROXY, proxy.c_str());
    }
    if (!p.bSystemProxy) return true; // libcurl's own reading of http_proxy and its kin, as ever
    p.candidates = http::Candidates(platform::SystemProxiesFor(url));
    if (p.candidates.empty()) p.candidates.emplace_back(); // nothing usable: direct
    return true;
}

CURLcode CHttpClientCurl::PerformThroughProxies() {
    http::ProxySettings& p = EditProxy();
    CURLcode code = CURLE_OK;
    if (p.candidates.empty()) {
        if (!http::WatchTransfer(m_pCurl, p.last, code)) return code;
        code = curl_easy_perform(m_pCurl);
        http::FinishTransfer(p.last);
        return code;
    }
    for (const std::string& candidate : p.candidates) {
        // An empty string turns every proxy off, the environment's included.
        code = curl_easy_setopt(m_pCurl, CURLOPT_PROXY, candidate.c_str());
        if (code != CURLE_OK || !http::WatchTransfer(m_pCurl, p.last, code)) break;
        p.strLastProxy = http::StripCredentials(candidate);
        code = curl_easy_perform(m_pCurl);
        http::FinishTransfer(p.last);
        if (!http::TryNext(code)) break;
    }
    return code;
}

void CHttpClientCurl::SetSystemProxy(bool use) {
    EditProxy().bSystemProxy = use;
}

void CHttpClientCurl::SetProxyCredentials(std::string user, std::string password) {
    http::ProxySettings& p = EditProxy();
    p.bCredentials = true;
    p.strUser = std::move(user);
    p.strPassword = std::move(password);
}

std::string CHttpClientCurl::GetLastProxy() {
    return m_pSettings ? EditProxy().strLastProxy : std::string();
}

} // namespace ZOTH
