// What the latest transfer found out about its connection (reused or new, TLS version), read while
// the connection is the transfer's own: libcurl lets go of it when curl_easy_perform returns.
#include "http/TransferInfo.h"

#include "zoth/http/CHttpClientCurl.h"

#include "http/CurlOption.h"
#include "http/ProxySettings.h"
#include "platform/TlsVersion.h"

namespace ZOTH {

namespace http {

namespace {

// libcurl's call once the connection, new or pooled, is ready and before the request goes out.
int ConnectionReady(void* user, char*, char*, int, int) {
    auto* info = static_cast<TransferInfo*>(user);
    info->connected = true;
    curl_tlssessioninfo* session = nullptr;
    if (curl_easy_getinfo(info->handle, CURLINFO_TLS_SSL_PTR, &session) == CURLE_OK && session != nullptr)
        info->tls = platform::TlsVersionOf(*session);
    return CURL_PREREQFUNC_OK;
}

} // namespace

bool WatchTransfer(CURL* handle, TransferInfo& info, CURLcode& code) {
    info = TransferInfo{};
    info.handle = handle;
    return SetCurlOption(handle, code, CURLOPT_PREREQFUNCTION, &ConnectionReady) &&
           SetCurlOption(handle, code, CURLOPT_PREREQDATA, static_cast<void*>(&info));
}

void FinishTransfer(TransferInfo& info) {
    // The connections this transfer opened: none when it ran on a pooled one.
    long opened = 0;
    if (info.connected && curl_easy_getinfo(info.handle, CURLINFO_NUM_CONNECTS, &opened) == CURLE_OK)
        info.reused = opened == 0;
}

} // namespace http

int CHttpClientCurl::GetLastConnectionReused() {
    if (!m_pSettings) return -1;
    const http::TransferInfo& info = EditProxy().last;
    if (!info.connected) return -1;
    return info.reused ? 1 : 0;
}

std::string CHttpClientCurl::GetLastTlsVersion() {
    return m_pSettings ? EditProxy().last.tls : "";
}

} // namespace ZOTH
