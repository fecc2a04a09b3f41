// The object, its libcurl handle, GET/POST/PUT and the callbacks that every transfer shares.

#include "zoth/http/CHttpClientCurl.h"

#include "zoth/platform/MemoryHint.h"

#include "http/CurlOption.h"
#include "http/CurlShare.h"
#include "http/DownloadSettings.h"
#include "http/RetryPolicy.h"
#include "http/KeptHandle.h"
#include "http/ProxySettings.h"
#include "http/TlsTrust.h"
#include "http/TransferReport.h"

#include <algorithm>
#include <filesystem>
#include <new>

namespace ZOTH {

using http::SetCurlOption;

std::string g_strLookupHost = kDefaultLookupHost;

namespace {
// Set once, by the first InitCurl of the process; libcurl is never cleaned up globally.
std::atomic<bool> s_bCurlGlobalInitDone{false};
// Connections the shared pool may hold, busy and idle together: more than a client's threads.
constexpr long kPooledConnections = 64;
} // namespace

namespace {
// Where the connections of a transfer with these settings live: the shared pool unless reuse is off
// or no share could be made. A connection authenticated to a proxy stays there too: libcurl matches
// proxy credentials when it picks a pooled connection.
template <typename S> http::Pool PoolOf(const S& s) {
    if (!s.bReuseConnections) return http::Pool::None;
    return http::ProcessShare() != nullptr ? http::Pool::Shared : http::Pool::None;
}
} // namespace

struct CHttpClientCurl::Settings {
    bool bReuseConnections = true;
    bool bTlsVerify = false;
    std::string strCaPath; // empty: the system's trust store
    http::DownloadSettings download;

    // The handle kept across transfers (KeptHandle.h); not copied with the settings.
    http::KeptHandle keptHandle;

    // The system's proxy and the last transfer's proxy (ProxyOptions.cpp).
    http::ProxySettings proxy;

    // The latest operation's status and failure text (ErrorText.cpp); schemes and redirects
    // (Redirects.cpp).
    http::TransferReport report;
    http::RedirectSettings redirects;
};

CHttpClientCurl::CHttpClientCurl()
    : m_dwStartTime(0), m_dwEndTime(0), m_nSpeedTimeLimit(0), m_dwTotalSize(0), m_dNetSpeed(0.0),
      m_bSpeedTestRunning(false), m_bStopRequested(false), m_dwTimeOutMax(30000), m_pCurl(nullptr),
      m_resultCode(CURLE_OK), m_pHeaderList(nullptr) {}

// A copy takes the settings and the last results; it starts with no handle of its own.
CHttpClientCurl::CHttpClientCurl(const CHttpClientCurl& other) : CHttpClientCurl() {
    *this = other;
}

CHttpClientCurl& CHttpClientCurl::operator=(const CHttpClientCurl& other) {
    if (this == &other) return *this;
    Clear(); // the handle and list are this object's own; a copy never shares them
    m_dwStartTime = other.m_dwStartTime;
    m_dwEndTime = other.m_dwEndTime;
    m_nSpeedTimeLimit = other.m_nSpeedTimeLimit;
    m_dwTotalSize = other.m_dwTotalSize;
    m_dNetSpeed = other.m_dNetSpeed;
    m_bSpeedTestRunning = other.m_bSpeedTestRunning;
    m_bStopRequested = other.m_bStopRequested.load();
    m_strResponseHeaders = other.m_strResponseHeaders;
    m_strResponseBody = other.m_strResponseBody;
    m_dwTimeOutMax = other.m_dwTimeOutMax;
    m_resultCode = other.m_resultCode;
    m_vecCustomHeaders = other.m_vecCustomHeaders;
    m_progressObserver = other.m_progressObserver;
    m_pSettings = other.m_pSettings ? std::make_unique<Settings>(*other.m_pSettings) : nullptr;
    return *this;
}

CHttpClientCurl::~CHttpClientCurl() {
    Clear();
}

int CHttpClientCurl::InitCurl() {
    if (!s_bCurlGlobalInitDone.exchange(true)) curl_global_init(CURL_GLOBAL_ALL);
    Settings& s = EditSettings();
    BeginReport();
    // Reset or replaced, the handle no longer points at the header list.
    m_pCurl = s.keptHandle.Ready(m_pCurl, PoolOf(s));
    if (m_pHeaderList != nullptr) {
        curl_slist_free_all(m_pHeaderList);
        m_pHeaderList = nullptr;
    }
    return m_pCurl != nullptr ? 1 : 0;
}

void CHttpClientCurl::Clear() {
    if (m_pCurl != nullptr) {
        if (m_pSettings)
            m_pSettings->keptHandle.Release(m_pCurl);
        else
            curl_easy_cleanup(m_pCurl);
        m_pCurl = nullptr;
    }
    if (m_pHeaderList != nullptr) {
        curl_slist_free_all(m_pHeaderList);
        m_pHeaderList = nullptr;
    }
}

void CHttpClientCurl::BeginTransfer() {
    m_strResponseBody.clear();
    m_strResponseHeaders.clear();
}

bool CHttpClientCurl::SetRequestOptions(const std::string& url, const std::string& proxy) {
    const bool verify = m_pSettings && m_pSettings->bTlsVerify;
    const long seconds = static_cast<long>(m_dwTimeOutMax / 1000);
    for (const std::string& line : RequestHeaders()) {
        // A failed append leaves the list as it was rather than losing it.
        curl_slist* grown = curl_slist_append(m_pHeaderList, line.c_str());
        if (grown != nullptr) m_pHeaderList = grown;
    }
    CURL* c = m_pCurl;
    CURLcode& r = m_resultCode;
    // The handle is new or just reset: an option whose value equals libcurl's default (no time
    // limit, verification on, no header list) is left as it stands.
    return SetCurlOption(c, r, CURLOPT_NOSIGNAL, 1L) && SetCurlOption(c, r, CURLOPT_URL, url.c_str()) &&
           SetCurlOption(c, r, CURLOPT_WRITEFUNCTION, &CurlWriteCallback) &&
           SetCurlOption(c, r, CURLOPT_WRITEDATA, static_cast<void*>(this)) &&
           SetCurlOption(c, r, CURLOPT_HEADERDATA, static_cast<void*>(this)) &&
           SetCurlOption(c, r, CURLOPT_HEADERFUNCTION, &CurlWriteHeaderCallback) &&
           SetCurlOption(c, r, CURLOPT_CONNECTTIMEOUT, seconds) &&
           (seconds == 0 || SetCurlOption(c, r, CURLOPT_TIMEOUT, seconds)) &&
           SetCurlOption(c, r, CURLOPT_ACCEPT_ENCODING, http::AcceptEncodingList()) &&
           (verify || (SetCurlOption(c, r, CURLOPT_SSL_VERIFYPEER, 0L) &&
                       SetCurlOption(c, r, CURLOPT_SSL_VERIFYHOST, 0L))) &&
           (m_pHeaderList == nullptr || SetCurlOption(c, r, CURLOPT_HTTPHEADER, m_pHeaderList)) &&
           SetProxyOptions(url, proxy) && SetShareAndTrustOptions() && SetSchemeOptions();
}

bool CHttpClientCurl::SetFetchOptions(const std::string& url) {
    const bool verify = m_pSettings && m_pSettings->bTlsVerify;
    CURL* c = m_pCurl;
    CURLcode& r = m_resultCode;
    const bool set = SetCurlOption(c, r, CURLOPT_URL, url.c_str()) &&
                     SetCurlOption(c, r, CURLOPT_FILETIME, 1L) && SetCurlOption(c, r, CURLOPT_NOSIGNAL, 1L) &&
                     SetCurlOption(c, r, CURLOPT_NOPROGRESS, 0L) &&
                     SetCurlOption(c, r, CURLOPT_PROGRESSFUNCTION, &CurlProgressCallback) &&
                     SetCurlOption(c, r, CURLOPT_PROGRESSDATA, static_cast<void*>(this)) &&
                     SetCurlOption(c, r, CURLOPT_WRITEFUNCTION, &CurlWriteCallback) &&
                     SetCurlOption(c, r, CURLOPT_WRITEDATA, static_cast<void*>(this)) &&
                     SetCurlOption(c, r, CURLOPT_HEADERFUNCTION, &CurlWriteHeaderCallback) &&
                     SetCurlOption(c, r, CURLOPT_HEADERDATA, static_cast<void*>(this)) &&
                     SetCurlOption(c, r, CURLOPT_TIMEOUT, 1000L) &&
                     SetCurlOption(c, r, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L) &&
                     SetCurlOption(c, r, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L) &&
                     SetProxyOptions(url, "") && SetShareAndTrustOptions() && SetSchemeOptions();
    return set;
}

bool CHttpClientCurl::SetShareAndTrustOptions() {
    CURL* c = m_pCurl;
    CURLcode& r = m_resultCode;
    const Settings defaults;
    const Settings& s = m_pSettings ? *m_pSettings : defaults;
    if (s.bTlsVerify) {
        // libcurl takes the CA settings into account when it picks a pooled connection or a cached
        // TLS session, so a verifying transfer never rides on one that was made without verification.
        if (!http::SetTrustOptions(c, r, s.strCaPath)) return false;
    }
    // An https:// proxy's own certificate is checked against the object's CA too, when one is set.
    if (s.bTlsVerify && !http::SetProxyTrustOptions(c, r, s.strCaPath)) return false;
    const http::Pool pool = PoolOf(s);
    CURLSH* share = pool == http::Pool::Shared ? http::ProcessShare() : nullptr;
    // A kept handle keeps its share through the reset: it is set, or cleared, on every transfer,
    // except on a handle kept from a transfer on the same pool, which holds exactly that share
    // (setting it again would only detach and reattach it).
    const bool holdsShare = m_pSettings && m_pSettings->keptHandle.Kept() && share != nullptr;
    if (m_pSettings) m_pSettings->keptHandle.SetPool(pool);
    if (share == nullptr) return SetCurlOption(c, r, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
    // libcurl closes a pooled connection as soon as the pool holds more than MAXCONNECTS, those in
    // use included; at its default of 5, six threads at once would defeat reuse.
    return (holdsShare || SetCurlOption(c, r, CURLOPT_SHARE, share)) &&
           SetCurlOption(c, r, CURLOPT_MAXCONNECTS, kPooledConnections);
}

int CHttpClientCurl::ExecuteRequest(EREQUEST_METHOD_tag method, std::string url, std::string proxy,
                                    std::string postData, std::string& response) {
    // A POST is never sent twice.
    http::RetryClock clock(method == EREQUEST_METHOD_POST ? nullptr : DownloadSettingsOrNull());
    for (;;) {
        const int result = RequestOnce(method, url, proxy, postData, response);
        if (url.empty()) return result; // nothing was sent
        const int again = WaitBeforeRetry(clock);
        if (again <= 0) return again < 0 ? 0 : result;
    }
}

int CHttpClientCurl::RequestOnce(EREQUEST_METHOD_tag method, const std::string& url, const std::string& proxy,
                                 const std::string& postData, std::string& response) {
    return FollowRedirects(url, method, [&](const std::string& at, int hopMethod) {
        return RequestHop(static_cast<EREQUEST_METHOD_tag>(hopMethod), at, proxy, postData, response);
    });
}

int CHttpClientCurl::RequestHop(EREQUEST_METHOD_tag method, const std::string& url, const std::string& proxy,
                                const std::string& postData, std::string& response) {
    if (InitCurl() == 0) return 0;
    if (url.empty()) return 0;
    response.clear();
    BeginTransfer();
    if (!SetRequestOptions(url, proxy)) return 0;

    CURL* c = m_pCurl;
    CURLcode& r = m_resultCode;
    bool methodSet = true;
    // POSTFIELDS points into postData, which lives until this function returns; no size is given,
    // so libcurl sends up to the first NUL.
    switch (method) {
    case EREQUEST_METHOD_GET: // a new or reset handle makes a GET
        break;
    case EREQUEST_METHOD_POST:
        methodSet = SetCurlOption(c, r, CURLOPT_POST, 1L) &&
                    SetCurlOption(c, r, CURLOPT_POSTFIELDS, postData.c_str());
        break;
    case EREQUEST_METHOD_PUT:
        methodSet = SetCurlOption(c, r, CURLOPT_CUSTOMREQUEST, "PUT") &&
                    SetCurlOption(c, r, CURLOPT_POSTFIELDS, postData.c_str());
        break;
    }
    if (!methodSet) return 0;

    m_resultCode = PerformStoppable(false);
    if (m_resultCode != CURLE_OK) return 0;
    response = m_strResponseBody;
    return 1;
}

int CHttpClientCurl::HttpGet(std::string url, std::string proxy, std::string postData,
                             std::string& response) {
    m_bStopRequested = false;
    return ExecuteRequest(EREQUEST_METHOD_GET, std::move(url), std::move(proxy), std::move(postData),
                          response);
}

int CHttpClientCurl::HttpPost(std::string url, std::string proxy, std::string postData,
                              std::string& response) {
    m_bStopRequested = false;
    return ExecuteRequest(EREQUEST_METHOD_POST, std::move(url), std::move(proxy), std::move(postData),
                          response);
}

int CHttpClientCurl::HttpPut(std::string url, std::string proxy, std::string postData,
                             std::string& response) {
    m_bStopRequested = false;
    return ExecuteRequest(EREQUEST_METHOD_PUT, std::move(url), std::move(proxy), std::move(postData),
                          response);
}

void CHttpClientCurl::SetCustomHeaders(std::vector<std::string> headers) {
    m_vecCustomHeaders = std::move(headers);
}

void CHttpClientCurl::SetTimeOutMax(DWORD milliseconds) {
    m_dwTimeOutMax = milliseconds;
}

DWORD CHttpClientCurl::GetStartTime() {
    return m_dwStartTime;
}

DWORD CHttpClientCurl::GetEndTime() {
    return m_dwEndTime;
}

DWORD CHttpClientCurl::GetTotalSize() {
    return m_dwTotalSize;
}

CURLcode CHttpClientCurl::GetResultCode() {
    return m_resultCode;
}

std::string CHttpClientCurl::GetResponseHeaders() {
    return m_strResponseHeaders;
}

size_t CHttpClientCurl::CurlWriteCallback(char* data, size_t size, size_t count, void* user) {
    auto* self = static_cast<CHttpClientCurl*>(user);
    const size_t n = size * count;
    if (!self->m_bSpeedTestRunning) {
        try {
            self->ReserveForBody(n);
            self->m_strResponseBody.append(data, n);
        } catch (const std::bad_alloc&) {
            return 0; // no exception may cross libcurl: the transfer fails as a failed write
        }
        self->m_dwTotalSize += static_cast<DWORD>(n);
    } else {
        self->m_dwTotalSize += static_cast<DWORD>(n);
        self->m_dwEndTime = GetTickCount();
        // 32-bit unsigned throughout, so a tick wrap during the probe does no harm.
        const DWORD limit = static_cast<DWORD>(self->m_nSpeedTimeLimit) * 1000u;
        if (self->m_dwStartTime != 0 && self->m_dwEndTime - self->m_dwStartTime >= limit) return 0;
    }
    if (self->m_bStopRequested) return 0;
    return n;
}

void CHttpClientCurl::ReserveForBody(size_t incoming) {
    // Doubling keeps appending linear. An announced length caps each step, so an honest body ends
    // with no spare room, while a false one (10^12 announced, 10 bytes sent) reserves no more than
    // 1 MiB or twice what actually came.
    constexpr size_t kFirstStep = size_t{1} << 20;
    std::string& body = m_strResponseBody;
    const size_t needed = body.size() + incoming;
    if (needed <= body.capacity()) return;
    size_t target = std::max(needed, 2 * body.capacity());
    curl_off_t announced = -1;
    if (m_pCurl != nullptr &&
        curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) == CURLE_OK &&
        announced >= 0 && static_cast<unsigned long long>(announced) >= needed)
        target = static_cast<size_t>(std::min<unsigned long long>(
            std::max(target, kFirstStep), static_cast<unsigned long long>(announced)));
    body.reserve(target);
    AdviseLargeBuffer(body.data(), body.capacity());
}

size_t CHttpClientCurl::CurlWriteHeaderCallback(char* data, size_t size, size_t count, void* user) {
    auto* self = static_cast<CHttpClientCurl*>(user);
    const size_t n = size * count;
    self->m_strResponseHeaders.append(data, n);
    return n;
}

int CHttpClientCurl::CurlProgressCallback(void* user, double dltotal, double dlnow, double, double) {
    auto* self = static_cast<CHttpClientCurl*>(user);
    if (self != nullptr && self->m_progressObserver) self->m_progressObserver(dltotal, dlnow);
    return 0;
}

void CHttpClientCurl::Stop() {
    m_bStopRequested = true;
}

CURLcode CHttpClientCurl::PerformStoppable(bool tellObserver) {
    CURLcode code = CURLE_WRITE_ERROR;
    http::TransferReport& report = Report();
    // A stop made while no transfer ran ends this one before it begins.
    if (m_bStopRequested.exchange(false)) {
        SetErrorText("Stopped: Stop() was called before the transfer began");
    } else {
        // The write callback sees a stop only when a chunk comes; this callback runs about once a
        // second even when nothing does.
        const auto callback = tellObserver ? &CurlStopProgressCallback : &CurlStopCallback;
        CURLcode set = CURLE_OK;
        report.errorBuffer[0] = '\0';
        if (SetCurlOption(m_pCurl, set, CURLOPT_XFERINFOFUNCTION, callback) &&
            SetCurlOption(m_pCurl, set, CURLOPT_XFERINFODATA, static_cast<void*>(this)) &&
            SetCurlOption(m_pCurl, set, CURLOPT_NOPROGRESS, 0L) &&
            SetCurlOption(m_pCurl, set, CURLOPT_ERRORBUFFER, report.errorBuffer))
            code = PerformThroughProxies();
        else
            code = set;
        long status = 0;
        if (curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK) report.status = status;
        // A stop made during the transfer belongs to it, whether it ended the transfer or came late.
        if (m_bStopRequested.exchange(false) && code != CURLE_OK)
            SetErrorText("Stopped: the transfer was ended by Stop()");
        // Ended from the progress callback or from the write callback: one code for a stopped transfer.
        if (code == CURLE_ABORTED_BY_CALLBACK) code = CURLE_WRITE_ERROR;
    }
    // What a bogus length or the last doubling left unused is not kept for the object's life.
    constexpr size_t kMaxSpare = size_t{4} << 20;
    if (m_strResponseBody.capacity() - m_strResponseBody.size() > kMaxSpare)
        m_strResponseBody.shrink_to_fit();
    return code;
}

int CHttpClientCurl::CurlStopCallback(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<CHttpClientCurl*>(user)->m_bStopRequested ? 1 : 0;
}

int CHttpClientCurl::CurlStopProgressCallback(void* user, curl_off_t dltotal, curl_off_t dlnow,
                                              curl_off_t ultotal, curl_off_t ulnow) {
    CurlProgressCallback(user, static_cast<double>(dltotal), static_cast<double>(dlnow),
                         static_cast<double>(ultotal), static_cast<double>(ulnow));
    return CurlStopCallback(user, dltotal, dlnow, ultotal, ulnow);
}

void CHttpClientCurl::SetProgressObserver(ProgressObserver observer) {
    m_progressObserver = std::move(observer);
}

CHttpClientCurl::Settings& CHttpClientCurl::EditSettings() {
    if (!m_pSettings) m_pSettings = std::make_unique<Settings>();
    return *m_pSettings;
}

http::TransferReport& CHttpClientCurl::Report() {
    return EditSettings().report;
}

http::RedirectSettings& CHttpClientCurl::EditRedirects() {
    return EditSettings().redirects;
}

http::ProxySettings& CHttpClientCurl::EditProxy() {
    return EditSettings().proxy;
}

void CHttpClientCurl::SetConnectionReuse(bool reuse) {
    EditSettings().bReuseConnections = reuse;
}

void CHttpClientCurl::SetTlsVerify(bool verify) {
    EditSettings().bTlsVerify = verify;
}

void CHttpClientCurl::SetTlsCaPath(std::string path) {
    Settings& s = EditSettings();
    if (!path.empty()) s.bTlsVerify = true;
    s.strCaPath = std::move(path);
}

const http::DownloadSettings* CHttpClientCurl::DownloadSettingsOrNull() const {
    return m_pSettings ? &m_pSettings->download : nullptr;
}

http::DownloadSettings& CHttpClientCurl::EditDownloadSettings() {
    return EditSettings().download;
}

} // namespace ZOTH
