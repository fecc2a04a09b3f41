// Whole-file download, streamed: the body goes to a temporary file beside the target while it
// arrives, and that file takes the target's place only once the answer has proved complete. The
// object keeps none of the body, so memory stays constant whatever the file's size.

#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include "http/CurlOption.h"
#include "http/DownloadSettings.h"
#include "http/RetryPolicy.h"

#include <cstdint>

namespace ZOTH {

using http::SetCurlOption;

int CHttpClientCurl::DownloadFile(std::string url, std::string filePath, std::string md5) {
    http::DownloadCheck check;
    const bool checkable =
        http::TakeDownloadCheck(m_pSettings ? &EditDownloadSettings() : nullptr, md5, check);
    http::RetryClock clock(DownloadSettingsOrNull());
    for (;;) {
        if (!checkable) {
            // A binding md5 argument that is no MD5: refused before anything is fetched.
            if (InitCurl() == 0) return 0;
            m_resultCode = CURLE_BAD_FUNCTION_ARGUMENT;
            return 0;
        }
        const int result = DownloadOnce(url, filePath, check);
        if (result == 1 || url.empty() || filePath.empty()) return result;
        if (WaitBeforeRetry(clock) <= 0) return 0;
    }
}

int CHttpClientCurl::DownloadOnce(const std::string& url, const std::string& filePath,
                                  const http::DownloadCheck& check) {
    if (InitCurl() == 0) return 0;
    if (url.empty() || filePath.empty()) return 0;
    BeginTransfer();

    if (!SetFetchOptions(url)) return 0;

    // Refused targets (a folder, a dangling link, a read-only file, a missing folder) fail before
    // anything is fetched, with the code a failed write gives.
    HANDLE temp = CreateTemporaryFileA(filePath.c_str(), "zdl");
    if (temp == INVALID_HANDLE_VALUE) {
        m_resultCode = CURLE_WRITE_ERROR;
        return 0;
    }
    // Deletes the file on every way out, unless it took the target's place.
    struct Discard {
        HANDLE& file;
        ~Discard() {
            if (file != INVALID_HANDLE_VALUE) DiscardTemporaryFile(file);
        }
    } discard{temp};

    struct Sink {
        CHttpClientCurl* client;
        HANDLE file;
        uint64_t written;
        text::StreamDigest digest;
    } sink{this, temp, 0, text::StreamDigest(check.kind)};
    // Each chunk goes to the temporary file as it arrives. A failed write (a full disk, a size
    // limit) ends the transfer with CURLE_WRITE_ERROR, as a stop does.
    curl_write_callback write = [](char* data, size_t size, size_t count, void* user) -> size_t {
        auto* to = static_cast<Sink*>(user);
        const size_t n = size * count; // at most libcurl's buffer size, far below 4 GiB
        DWORD done = 0;
        if (!WriteFile(to->file, data, static_cast<DWORD>(n), &done, nullptr) || done != n) return 0;
        to->digest.Update(data, n); // while the chunk is still in the cache
        to->written += n;
        to->client->m_dwTotalSize += static_cast<DWORD>(n);
        return to->client->m_bStopRequested ? 0 : n;
    };
    // Chunks of 100 KiB, as curl's own tool receives them: a sixth of the calls of the default.
    if (!SetCurlOption(m_pCurl, m_resultCode, CURLOPT_WRITEFUNCTION, write) ||
        !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_WRITEDATA, static_cast<void*>(&sink)) ||
        !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_BUFFERSIZE, 100L * 1024))
        return 0;

    m_resultCode = PerformStoppable(true);
    if (m_resultCode != CURLE_OK) return 0;

    long status = 0;
    m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &status);
    if (m_resultCode != CURLE_OK || status != 200) return 0;

    // -1 when the server announced no length (chunked): such a body is never trusted.
    double announced = 0.0;
    m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &announced);
    if (m_resultCode != CURLE_OK) return 0;
    if (static_cast<double>(sink.written) != announced) return 0;
    // The content the caller named, or the target stays as it was.
    if (check.kind != text::DigestKind::None && sink.digest.FinishHex() != check.hex) {
        m_resultCode = CURLE_BAD_CONTENT_ENCODING;
        return 0;
    }

    // Durable: the data reaches the disk before the rename and the folder's entry after it, so that
    // after a crash the target is the old file or the whole new one. A folder flush that fails after
    // the rename still leaves the new file in place: the result stays 1.
    const bool durable = DownloadSettingsOrNull() == nullptr || DownloadSettingsOrNull()->durable;
    if (durable && !FlushFileBuffers(temp)) {
        m_resultCode = CURLE_WRITE_ERROR;
        return 0;
    }
    const BOOL placed = CommitTemporaryFileEx(temp, durable ? MOVEFILE_WRITE_THROUGH : 0); // closes it
    temp = INVALID_HANDLE_VALUE;
    if (!placed) m_resultCode = CURLE_WRITE_ERROR;
    return placed ? 1 : 0;
}

void CHttpClientCurl::SetDownloadDurable(bool durable) {
    EditDownloadSettings().durable = durable;
}

int CHttpClientCurl::CheckFileMd5(std::string filePath, std::string) {
    return PathFileExistsA(filePath.c_str()) ? 1 : 0;
}

} // namespace ZOTH
