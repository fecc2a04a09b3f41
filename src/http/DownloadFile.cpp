// Whole-file download: the body is held in memory and written only once it has proved complete.
#define CURL_DISABLE_DEPRECATION // CURLINFO_CONTENT_LENGTH_DOWNLOAD and the progress callback
#include "zoth/file/CFileHepler.h"
#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32Path.h"

namespace ZOTH {

int CHttpClientCurl::DownloadFile(std::string url, std::string filePath, std::string) {
    if (InitCurl() == 0) return 0;
    if (url.empty() || filePath.empty()) return 0;
    BeginTransfer();

    if (!SetFetchOptions(url)) return 0;

    m_resultCode = PerformStoppable(true);
    if (m_resultCode != CURLE_OK) return 0;

    long status = 0;
    m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &status);
    if (m_resultCode != CURLE_OK || status != 200) return 0;

    // -1 when the server announced no length (chunked): such a body is never trusted.
    double announced = 0.0;
    m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &announced);
    if (m_resultCode != CURLE_OK) return 0;
    if (static_cast<double>(m_strResponseBody.size()) != announced) return 0;

    // The pointer form writes the same bytes without a second copy of a body that may be large.
    return CFileHepler::WriteDataToFile(m_strResponseBody.data(), static_cast<int>(m_strResponseBody.size()),
                                        filePath, CREATE_ALWAYS) != 0
               ? 1
               : 0;
}

int CHttpClientCurl::CheckFileMd5(std::string filePath, std::string) {
    return PathFileExistsA(filePath.c_str()) ? 1 : 0;
}

} // namespace ZOTH
