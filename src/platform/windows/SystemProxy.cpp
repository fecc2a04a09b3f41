// The system's proxy settings on Windows through WinHTTP: the user's Internet Options (a fixed
// proxy list with its bypass list, a PAC script's URL, auto-detection), with a PAC script or WPAD
// run by WinHttpGetProxyForUrl.
#include "platform/SystemProxy.h"

#include <windows.h>
#include <winhttp.h>

#include <cwctype>

namespace ZOTH::platform {

namespace {

std::wstring Wide(const std::string& text) {
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(n), L'\0');
    if (n > 0) MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), n);
    return wide;
}

std::string Narrow(const std::wstring& text) {
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                      nullptr, nullptr);
    std::string narrow(static_cast<size_t>(n), '\0');
    if (n > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), n, nullptr,
                            nullptr);
    return narrow;
}

// Takes a string WinHTTP allocated, and frees it.
std::wstring Take(LPWSTR text) {
    std::wstring taken = text != nullptr ? text : L"";
    if (text != nullptr) GlobalFree(text);
    return taken;
}

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

// Entries of a WinHTTP list: separated by ';' or white space.
std::vector<std::wstring> Entries(const std::wstring& list) {
    std::vector<std::wstring> entries;
    std::wstring entry;
    for (wchar_t c : list + L";") {
        if (c == L';' || std::iswspace(c)) {
            if (!entry.empty()) entries.push_back(entry);
            entry.clear();
        } else {
            entry += c;
        }
    }
    return entries;
}

// The scheme and host of url, lower case.
void SchemeAndHost(const std::string& url, std::wstring& scheme, std::wstring& host) {
    const std::wstring wide = Lower(Wide(url));
    const size_t colon = wide.find(L"://");
    scheme = colon == std::wstring::npos ? L"http" : wide.substr(0, colon);
    size_t start = colon == std::wstring::npos ? 0 : colon + 3;
    const size_t end = wide.find_first_of(L"/?#", start);
    std::wstring authority = wide.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start);
    const size_t at = authority.rfind(L'@');
    if (at != std::wstring::npos) authority.erase(0, at + 1);
    const size_t port = authority.rfind(L':');
    host = port != std::wstring::npos && authority.find(L']') == std::wstring::npos
               ? authority.substr(0, port)
               : authority;
}

// A bypass pattern against a host: '*' matches any run of characters; "<local>" matches host
// names without a dot.
bool Matches(const std::wstring& pattern, const std::wstring& host) {
    if (pattern == L"<local>") return host.find(L'.') == std::wstring::npos;
    size_t p = 0, h = 0, star = std::wstring::npos, resume = 0;
    while (h < host.size()) {
        if (p < pattern.size() && pattern[p] == L'*') {
            star = p++;
            resume = h;
        } else if (p < pattern.size() && pattern[p] == host[h]) {
            ++p;
            ++h;
        } else if (star != std::wstring::npos) {
            p = star + 1;
            h = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == L'*')
        ++p;
    return p == pattern.size();
}

// A WinHTTP proxy list for url as libcurl proxy URLs: entries for the URL's scheme ("https=host:port")
// and plain ones ("host:port") are HTTP proxies, "socks=" ones SOCKS4 proxies.
std::vector<std::string> ProxiesOf(const std::wstring& list, const std::wstring& scheme) {
    std::vector<std::string> proxies;
    for (const std::wstring& entry : Entries(list)) {
        const size_t equals = entry.find(L'=');
        std::wstring kind = equals == std::wstring::npos ? L"" : Lower(entry.substr(0, equals));
        std::wstring address = equals == std::wstring::npos ? entry : entry.substr(equals + 1);
        const size_t given = address.find(L"://");
        if (given != std::wstring::npos) address.erase(0, given + 3);
        if (address.empty()) continue;
        if (kind.empty() || kind == scheme)
            proxies.push_back("http://" + Narrow(address));
        else if (kind == L"socks")
            proxies.push_back("socks4://" + Narrow(address));
    }
    return proxies;
}

} // namespace

std::vector<std::string> SystemProxiesFor(const std::string& url) {
    std::wstring scheme, host;
    SchemeAndHost(url, scheme, host);

    WINHTTP_CURRENT_USER_IE_PROXY_CONFIG ie{};
    if (!WinHttpGetIEProxyConfigForCurrentUser(&ie)) return {};
    const std::wstring autoConfigUrl = Take(ie.lpszAutoConfigUrl);
    const std::wstring fixed = Take(ie.lpszProxy);
    const std::wstring bypass = Take(ie.lpszProxyBypass);

    // A PAC script or auto-detection decides first; the fixed list applies when neither answers.
    if (ie.fAutoDetect || !autoConfigUrl.empty()) {
        HINTERNET session = WinHttpOpen(L"ZOTH", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                                        WINHTTP_NO_PROXY_BYPASS, 0);
        if (session != nullptr) {
            WINHTTP_AUTOPROXY_OPTIONS options{};
            if (!autoConfigUrl.empty()) {
                options.dwFlags |= WINHTTP_AUTOPROXY_CONFIG_URL;
                options.lpszAutoConfigUrl = autoConfigUrl.c_str();
            }
            if (ie.fAutoDetect) {
                options.dwFlags |= WINHTTP_AUTOPROXY_AUTO_DETECT;
                options.dwAutoDetectFlags = WINHTTP_AUTO_DETECT_TYPE_DHCP | WINHTTP_AUTO_DETECT_TYPE_DNS_A;
            }
            options.fAutoLogonIfChallenged = TRUE;
            WINHTTP_PROXY_INFO info{};
            const std::wstring wideUrl = Wide(url);
            const BOOL found = WinHttpGetProxyForUrl(session, wideUrl.c_str(), &options, &info);
            const std::wstring list = Take(info.lpszProxy);
            Take(info.lpszProxyBypass);
            WinHttpCloseHandle(session);
            if (found) {
                if (info.dwAccessType != WINHTTP_ACCESS_TYPE_NAMED_PROXY || list.empty())
                    return {"direct://"};
                std::vector<std::string> proxies = ProxiesOf(list, scheme);
                if (proxies.empty()) proxies.emplace_back("direct://");
                return proxies;
            }
        }
    }
    if (fixed.empty()) return {};
    for (const std::wstring& pattern : Entries(Lower(bypass)))
        if (Matches(pattern, host)) return {"direct://"};
    return ProxiesOf(fixed, scheme);
}

} // namespace ZOTH::platform
