// Multipart upload of one file beside the fixed field "reqformat".

#include "zoth/http/CHttpClientCurl.h"

#include "zoth/platform/Win32File.h"

#include "http/CurlOption.h"

namespace ZOTH {

using http::SetCurlOption;

namespace {
// PTRNAME and PTRCONTENTS make libcurl keep these pointers, so they must outlive every transfer.
const char kReqFormatName[] = "reqformat";
const char kReqFormatValue[] = "plain";
const char kFileName[] = "file";
} // namespace

int CHttpClientCurl::HttpPostFile(std::string url, std::string proxy, std::string postData,
                                  std::string filePath, std::string& response) {
    // A followed 307/308 posts the form again; 301, 302 and 303 fetch the new place with GET.
    return FollowRedirects(std::move(url), EREQUEST_METHOD_POST, [&](const std::string& at, int method) {
        return method == EREQUEST_METHOD_POST ? PostFileOnce(at, proxy, postData, filePath, response)
                                              : RequestHop(EREQUEST_METHOD_GET, at, proxy, "", response);
    });
}

int CHttpClientCurl::PostFileOnce(const std::string& url, const std::string& proxy,
                                  const std::string& postData, const std::string& filePath,
                                  std::string& response) {
    if (InitCurl() == 0) return 0;
    if (url.empty()) return 0;
    response.clear();
    BeginTransfer();
    if (!SetRequestOptions(url, proxy)) return 0;
    // POSTFIELDS is overruled by HTTPPOST below; postData stays alive until perform returns anyway.
    if (!SetCurlOption(m_pCurl, m_resultCode, CURLOPT_POST, 1L) ||
        !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_POSTFIELDS, postData.c_str()))
        return 0;

    // libcurl opens the file by name once the transfer runs, and opening a pipe waits for a writer
    // where neither Stop() nor the timeout reaches it. Only a file that opens at once (the layer
    // refuses pipes and sockets, and never waits on one) and gives its first byte (a folder opens on
    // some systems but reads nothing) is handed on; anything else fails here, before anything is
    // sent, as a file libcurl cannot read fails the transfer.
    HANDLE file = CreateFileA(filePath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    char byte = 0;
    DWORD got = 0;
    const bool readable = file != INVALID_HANDLE_VALUE && ReadFile(file, &byte, 1, &got, nullptr);
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    if (!readable) {
        m_resultCode = CURLE_READ_ERROR;
        SetErrorText("cannot read " + filePath + " (missing, a folder, unreadable or not a plain file); " +
                     "nothing sent");
        return 0;
    }

    curl_httppost* first = nullptr;
    curl_httppost* last = nullptr;
    curl_formadd(&first, &last, CURLFORM_PTRNAME, kReqFormatName, CURLFORM_PTRCONTENTS, kReqFormatValue,
                 CURLFORM_END);
    curl_formadd(&first, &last, CURLFORM_PTRNAME, kFileName, CURLFORM_FILE, filePath.c_str(), CURLFORM_END);

    // Whether HTTPPOST itself failed shows in the transfer; the form is released on every path.
    m_resultCode = curl_easy_setopt(m_pCurl, CURLOPT_HTTPPOST, first);
    if (m_resultCode == CURLE_OK) m_resultCode = PerformStoppable(false);
    curl_formfree(first);

    if (m_resultCode != CURLE_OK) return 0;
    response = m_strResponseBody;
    return 1;
}

} // namespace ZOTH
