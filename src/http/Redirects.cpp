// The schemes a transfer may use, and redirects followed by hand by browser rules: libcurl's own
// following would keep a custom PUT method after a 303, send a custom Cookie header to any host and
// let https step down to http.
#include "zoth/http/CHttpClientCurl.h"

#include "http/CurlOption.h"
#include "http/TransferReport.h"

#include <algorithm>
#include <cctype>

namespace ZOTH {

using http::SetCurlOption;

namespace {

constexpr const char* kDefaultSchemes = "http,https";

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Scheme, host and port (the scheme's default when none is written) of an absolute URL, lower case;
// false when libcurl cannot parse it.
bool OriginOf(const std::string& url, std::string& scheme, std::string& host, std::string& port) {
    CURLU* parsed = curl_url();
    if (parsed == nullptr) return false;
    bool ok = curl_url_set(parsed, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
    std::string* parts[] = {&scheme, &host, &port};
    const CURLUPart names[] = {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT};
    for (int i = 0; ok && i < 3; ++i) {
        char* value = nullptr;
        ok = curl_url_get(parsed, names[i], &value, CURLU_DEFAULT_PORT) == CURLUE_OK;
        if (ok) *parts[i] = Lower(value);
        curl_free(value);
    }
    curl_url_cleanup(parsed);
    return ok;
}

bool SchemeAllowed(const std::string& scheme, const std::string& list) {
    // Built by appending: g++ 12 at -O3 warns (-Wrestrict) on "," + a temporary string.
    std::string allowed(1, ',');
    allowed += Lower(list.empty() ? kDefaultSchemes : list);
    allowed += ',';
    std::string needle(1, ',');
    needle += scheme;
    needle += ',';
    return allowed.find(needle) != std::string::npos;
}

// A header line that carries credentials or cookies for the origin.
bool IsOriginCredential(const std::string& line) {
    std::string name = Lower(line.substr(0, line.find_first_of(":;")));
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t'))
        name.pop_back();
    return name == "authorization" || name == "cookie";
}

} // namespace

bool CHttpClientCurl::SetSchemeOptions() {
    const http::RedirectSettings& r = EditRedirects();
    // libcurl never follows by itself (FOLLOWLOCATION stays off); the redirect list guards anyway.
    if (r.schemes.empty()) {
        // The handle is reset before every transfer, so the list is set every time: the string form
        // costs a parse of each name against libcurl's scheme table (about 1.2k instructions per
        // transfer), the mask one assignment.
        constexpr long kDefaultMask = CURLPROTO_HTTP | CURLPROTO_HTTPS;
        return SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROTOCOLS, kDefaultMask) &&
               SetCurlOption(m_pCurl, m_resultCode, CURLOPT_REDIR_PROTOCOLS, kDefaultMask);
    }
    const char* schemes = r.schemes.c_str();
    return SetCurlOption(m_pCurl, m_resultCode, CURLOPT_PROTOCOLS_STR, schemes) &&
           SetCurlOption(m_pCurl, m_resultCode, CURLOPT_REDIR_PROTOCOLS_STR, schemes);
}

const std::vector<std::string>& CHttpClientCurl::RequestHeaders() {
    const http::RedirectSettings* r = m_pSettings ? &EditRedirects() : nullptr;
    return r != nullptr && r->hopHeaders ? *r->hopHeaders : m_vecCustomHeaders;
}

void CHttpClientCurl::EndRedirects() {
    if (m_pSettings) EditRedirects().hopHeaders.reset();
}

int CHttpClientCurl::FollowRedirects(std::string url, int method, const RedirectHop& hop) {
    int hops = 0;
    int result = hop(url, method);
    for (int next; (next = FollowRedirect(url, method, hops)) != 0;) {
        if (next < 0) { // refused: code and text tell why
            result = 0;
            break;
        }
        result = hop(url, method);
    }
    EndRedirects();
    return result;
}

int CHttpClientCurl::FollowRedirect(std::string& url, int& method, int& hops) {
    http::RedirectSettings& r = EditRedirects();
    const long status = Report().status;
    if (!r.follow || m_pCurl == nullptr || m_resultCode != CURLE_OK ||
        (status != 301 && status != 302 && status != 303 && status != 307 && status != 308))
        return 0;
    char* location = nullptr; // resolved against the URL asked, as libcurl would follow it
    if (curl_easy_getinfo(m_pCurl, CURLINFO_REDIRECT_URL, &location) != CURLE_OK || location == nullptr ||
        *location == '\0')
        return 0; // a redirect status without a Location is the final answer
    const std::string next = location;
    std::string fromScheme, fromHost, fromPort, toScheme, toHost, toPort;
    const bool parsed =
        OriginOf(url, fromScheme, fromHost, fromPort) && OriginOf(next, toScheme, toHost, toPort);
    if (hops >= r.maxHops) {
        m_resultCode = CURLE_TOO_MANY_REDIRECTS;
        SetErrorText("Number of redirects hit maximum amount: more than " + std::to_string(r.maxHops) +
                     ", the last to " + next);
        return -1;
    }
    if (!parsed || !SchemeAllowed(toScheme, r.schemes)) {
        m_resultCode = CURLE_UNSUPPORTED_PROTOCOL;
        SetErrorText("Unsupported protocol: redirect to a scheme not allowed: " + next);
        return -1;
    }
    if (fromScheme == "https" && toScheme == "http") {
        m_resultCode = CURLE_UNSUPPORTED_PROTOCOL;
        SetErrorText("Unsupported protocol: redirect from https to http refused: " + next);
        return -1;
    }
    // Another origin gets none of the credentials or cookies meant for this one, nor for any after it.
    if (fromScheme != toScheme || fromHost != toHost || fromPort != toPort) {
        std::vector<std::string> kept = RequestHeaders();
        kept.erase(std::remove_if(kept.begin(), kept.end(), IsOriginCredential), kept.end());
        r.hopHeaders = std::move(kept);
    }
    // As browsers do: 303 turns any method into GET, 301 and 302 turn a POST into GET, 307 and 308
    // keep method and body.
    if (status == 303 || (method == EREQUEST_METHOD_POST && (status == 301 || status == 302)))
        method = EREQUEST_METHOD_GET;
    ++hops;
    url = next;
    return 1;
}

void CHttpClientCurl::SetAllowedSchemes(std::string schemes) {
    EditRedirects().schemes = std::move(schemes);
}

void CHttpClientCurl::SetFollowRedirects(bool follow, int maxHops) {
    http::RedirectSettings& r = EditRedirects();
    r.follow = follow;
    r.maxHops = std::max(maxHops, 0);
}

} // namespace ZOTH
