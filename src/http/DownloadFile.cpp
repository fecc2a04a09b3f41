// Whole-file download, streamed: the body goes to a temporary file beside the target while it
// arrives, and that file takes the target's place only once the answer has proved complete. The
// object keeps none of the body, so memory stays constant whatever the file's size.

#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include "http/CurlOption.h"
#include "http/DownloadResume.h"
#include "http/DownloadSettings.h"
#include "http/RetryPolicy.h"
#include "http/TransferReport.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <optional>
#include <vector>

namespace ZOTH {

using http::SetCurlOption;

namespace {

bool SeekTo(HANDLE file, uint64_t position) {
    LONG high = static_cast<LONG>(position >> 32);
    SetLastError(ERROR_SUCCESS);
    const DWORD low = SetFilePointer(file, static_cast<LONG>(position & 0xffffffffu), &high, FILE_BEGIN);
    return low != INVALID_SET_FILE_POINTER || GetLastError() == ERROR_SUCCESS;
}

bool EmptyFile(HANDLE file) {
    return SeekTo(file, 0) && SetEndOfFile(file);
}

// Gives up a kept partial that cannot be used: the download goes on in a temporary file of its own.
HANDLE Drop(HANDLE file) {
    DiscardTemporaryFile(file);
    return INVALID_HANDLE_VALUE;
}

// Reads the `kept` bytes in front into `digest` (none: only moves behind them).
bool DigestKept(HANDLE file, uint64_t kept, text::StreamDigest* digest) {
    if (digest == nullptr) return SeekTo(file, kept);
    constexpr DWORD kChunk = 256u << 10;
    std::vector<char> chunk(kChunk);
    if (!SeekTo(file, 0)) return false;
    for (uint64_t left = kept; left > 0;) {
        const DWORD count = static_cast<DWORD>(std::min<uint64_t>(left, kChunk));
        DWORD read = 0;
        if (!ReadFile(file, chunk.data(), count, &read, nullptr) || read != count) return false;
        digest->Update(chunk.data(), count);
        left -= count;
    }
    return true;
}

// Writes the record behind the kept data and leaves the file for the next run. False (the file
// still open) when the record could not be written.
bool KeepPartial(HANDLE file, const std::string& url, uint64_t length, const std::string& validator,
                 uint64_t kept) {
    http::ResumeRecord record;
    record.urlHash = http::UrlHash(url);
    record.length = length;
    record.validator = validator;
    record.savedAt = static_cast<int64_t>(std::time(nullptr));
    record.kept = kept;
    return kept > 0 && kept <= length && SeekTo(file, kept) && SetEndOfFile(file) &&
           http::AppendRecord(file, record) && KeepTemporaryFile(file);
}

// What becomes of the body, decided at its first byte: 200 (the whole body: a kept part is dropped),
// 206 (the range asked for, behind the kept part), or -1 (an error page or a range not asked for:
// the file is left alone).
int BodyMode(CURL* curl, const std::string& headers, HANDLE file, uint64_t kept) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status == 200) return kept == 0 || EmptyFile(file) ? 200 : -1;
    uint64_t start = 0, total = 0;
    if (status == 206 && kept > 0 && http::ContentRangeOf(headers, start, total) && start == kept) return 206;
    return -1;
}

} // namespace

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
            SetErrorText("not an MD5 digest: \"" + md5 + "\"; nothing fetched");
            return 0;
        }
        // A redirect gives 0 with CURLE_OK and the redirect's status: followed, when asked, from here.
        const int result = FollowRedirects(url, EREQUEST_METHOD_GET, [&](const std::string& at, int) {
            return DownloadOnce(at, filePath, check);
        });
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

    const http::DownloadSettings* settings = DownloadSettingsOrNull();
    const bool resume = settings != nullptr && settings->resume;
    // Refused targets (a folder, a dangling link, a read-only file, a missing folder) fail before
    // anything is fetched, with the code a failed write gives. With resume on, the kept partial is
    // taken; when another download holds it, this one starts over in a file of its own.
    HANDLE temp = INVALID_HANDLE_VALUE;
    http::ResumeRecord record;
    uint64_t kept = 0;
    if (resume) {
        BOOL reused = FALSE;
        temp = OpenKeptTemporaryFileA(filePath.c_str(), http::kKeptSuffix, &reused);
        if (temp == INVALID_HANDLE_VALUE && GetLastError() != ERROR_LOCK_VIOLATION) {
            m_resultCode = CURLE_WRITE_ERROR;
            SetErrorText("cannot write " + filePath +
                         " (a folder, a read-only file or a missing folder); nothing fetched");
            return 0;
        }
        if (temp != INVALID_HANDLE_VALUE && reused && http::TakeRecord(temp, record)) {
            const int64_t age = static_cast<int64_t>(std::time(nullptr)) - record.savedAt;
            // Another URL, an old or inconsistent record: the kept bytes are dropped.
            if (record.urlHash == http::UrlHash(url) && record.kept <= record.length && age >= 0 &&
                age <= static_cast<int64_t>(settings->resumeMaxAgeSeconds))
                kept = record.kept;
        }
        if (temp != INVALID_HANDLE_VALUE && kept == 0 && !EmptyFile(temp)) temp = Drop(temp);
    }
    const bool keepable = temp != INVALID_HANDLE_VALUE && resume;
    if (temp == INVALID_HANDLE_VALUE) temp = CreateTemporaryFileA(filePath.c_str(), "zdl");
    if (temp == INVALID_HANDLE_VALUE) {
        m_resultCode = CURLE_WRITE_ERROR;
        SetErrorText("cannot write " + filePath +
                     " (a folder, a read-only file or a missing folder); nothing fetched");
        return 0;
    }
    // Deletes the file on every way out, unless it took the target's place or was kept.
    struct Discard {
        HANDLE& file;
        ~Discard() {
            if (file != INVALID_HANDLE_VALUE) DiscardTemporaryFile(file);
        }
    } discard{temp};

    struct Sink {
        CHttpClientCurl* client;
        HANDLE file;
        uint64_t kept;    // bytes of an earlier run in front
        uint64_t written; // bytes of this answer's body in the file
        std::optional<text::StreamDigest> digest;
        text::DigestKind kind;
        int mode; // 0 until the first chunk; 200 or 206 when the body goes to the file; -1 when not
    } sink{this, temp, kept, 0, std::nullopt, check.kind, 0};
    sink.digest.emplace(check.kind);
    // The kept bytes are digested once, read here; the file position ends behind them.
    if (kept > 0 && !DigestKept(temp, kept, check.kind == text::DigestKind::None ? nullptr : &*sink.digest)) {
        m_resultCode = CURLE_WRITE_ERROR;
        SetErrorText("cannot read the kept part of " + filePath);
        return 0;
    }
    // Each chunk goes to the temporary file as it arrives. A failed write (a full disk, a size
    // limit) ends the transfer with CURLE_WRITE_ERROR, as a stop does.
    curl_write_callback write = [](char* data, size_t size, size_t count, void* user) -> size_t {
        auto* to = static_cast<Sink*>(user);
        const size_t n = size * count; // at most libcurl's buffer size, far below 4 GiB
        if (to->mode == 0)
            to->mode = BodyMode(to->client->m_pCurl, to->client->m_strResponseHeaders, to->file, to->kept);
        if (to->mode == 200 && to->kept > 0) { // the whole body came: start over in the same file
            to->kept = 0;
            to->digest.emplace(to->kind);
        }
        if (to->mode < 0) return to->client->m_bStopRequested ? 0 : n; // an error page: not the file's
        DWORD done = 0;
        if (!WriteFile(to->file, data, static_cast<DWORD>(n), &done, nullptr) || done != n) return 0;
        to->digest->Update(data, n); // while the chunk is still in the cache
        to->written += n;
        to->client->m_dwTotalSize += static_cast<DWORD>(n);
        return to->client->m_bStopRequested ? 0 : n;
    };
    if (!SetCurlOption(m_pCurl, m_resultCode, CURLOPT_WRITEFUNCTION, write) ||
        !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_WRITEDATA, static_cast<void*>(&sink)))
        return 0;
    // Chunks of 100 KiB, as curl's own tool receives them: a sixth of the calls of the default. Best
    // effort: a kept handle whose last transfer failed before it began (a refused scheme, a malformed
    // URL) still holds its receive buffer through the reset, and libcurl then refuses a new size.
    curl_easy_setopt(m_pCurl, CURLOPT_BUFFERSIZE, 100L * 1024);
    // Only the missing bytes, and only if the file has not changed since.
    curl_slist* ifRange = nullptr;
    if (kept > 0) {
        ifRange = curl_slist_append(nullptr, ("If-Range: " + record.validator).c_str());
        const std::string range = std::to_string(kept) + "-";
        if (ifRange == nullptr || !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_RANGE, range.c_str()) ||
            !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_HTTPHEADER, ifRange)) {
            curl_slist_free_all(ifRange);
            return 0;
        }
    }
    // The observer counts the kept bytes as done.
    ProgressObserver observer = m_progressObserver;
    if (kept > 0 && observer)
        m_progressObserver = [&observer, &sink](double total, double now) {
            observer(total > 0 ? total + static_cast<double>(sink.kept) : total,
                     now + static_cast<double>(sink.kept));
        };
    m_resultCode = PerformStoppable(true);
    m_progressObserver = observer;
    if (ifRange != nullptr) {
        curl_easy_setopt(m_pCurl, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
        curl_slist_free_all(ifRange);
    }

    long status = 0;
    if (m_resultCode == CURLE_OK) m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &status);
    uint64_t start = 0, total = 0;
    const bool ranged = http::ContentRangeOf(m_strResponseHeaders, start, total);
    if (m_resultCode != CURLE_OK) {
        // Cut short or stopped: what arrived of a sound body stays for the next run.
        if (keepable && sink.mode > 0) {
            const std::string validator = http::ValidatorOf(m_strResponseHeaders);
            double announced = -1;
            curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &announced);
            const uint64_t length =
                sink.mode == 206 ? total : static_cast<uint64_t>(announced < 0 ? 0 : announced);
            if (!validator.empty() && (sink.mode == 200 ? announced >= 0 : ranged) &&
                KeepPartial(temp, url, length, validator, sink.kept + sink.written))
                temp = INVALID_HANDLE_VALUE;
        }
        return 0;
    }
    if (status == 416 && kept > 0 && ranged && start == UINT64_MAX && total == kept) {
        // Everything was already here.
    } else if (status == 206 && kept > 0 && sink.mode == 206) {
        double announced = 0.0;
        m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &announced);
        if (m_resultCode != CURLE_OK) return 0;
        if (static_cast<double>(sink.written) != announced || total != sink.kept + sink.written) {
            SetErrorText("the range answer was not complete; " + filePath + " left as it was");
            return 0;
        }
    } else {
        if (status != 200) {
            SetErrorText(http::StatusText(status, m_strResponseHeaders) + ": only a 200 answer is saved; " +
                         filePath + " left as it was");
            // A refusal (503, say) leaves the kept bytes as they were for the next run.
            if (keepable && kept > 0 && sink.mode <= 0 &&
                KeepPartial(temp, url, record.length, record.validator, kept))
                temp = INVALID_HANDLE_VALUE;
            return 0;
        }
        // -1 when the server announced no length (chunked): such a body is never trusted.
        double announced = 0.0;
        m_resultCode = curl_easy_getinfo(m_pCurl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &announced);
        if (m_resultCode != CURLE_OK) return 0;
        if (static_cast<double>(sink.written) != announced) {
            SetErrorText(announced < 0 ? "the answer announced no length, so its end cannot be trusted; " +
                                             filePath + " left as it was"
                                       : "the body had " + std::to_string(sink.written) + " bytes, " +
                                             std::to_string(static_cast<uint64_t>(announced)) +
                                             " were announced; " + filePath + " left as it was");
            return 0;
        }
    }
    // The content the caller named, or the target stays as it was.
    if (check.kind != text::DigestKind::None) {
        const std::string got = sink.digest->FinishHex();
        if (got != check.hex) {
            m_resultCode = CURLE_BAD_CONTENT_ENCODING;
            SetErrorText("the content's digest is " + got + ", not " + check.hex + " as asked; " + filePath +
                         " left as it was");
            return 0;
        }
    }

    // Durable: the data reaches the disk before the rename and the folder's entry after it, so that
    // after a crash the target is the old file or the whole new one. A folder flush that fails after
    // the rename still leaves the new file in place: the result stays 1.
    const bool durable = settings == nullptr || settings->durable;
    if (durable && !FlushFileBuffers(temp)) {
        m_resultCode = CURLE_WRITE_ERROR;
        SetErrorText("cannot flush the downloaded data to disk; " + filePath + " left as it was");
        return 0;
    }
    const BOOL placed = CommitTemporaryFileEx(temp, durable ? MOVEFILE_WRITE_THROUGH : 0); // closes it
    temp = INVALID_HANDLE_VALUE;
    if (!placed) {
        m_resultCode = CURLE_WRITE_ERROR;
        SetErrorText("cannot put the downloaded file in the place of " + filePath);
    }
    return placed ? 1 : 0;
}

void CHttpClientCurl::SetDownloadDurable(bool durable) {
    EditDownloadSettings().durable = durable;
}

void CHttpClientCurl::SetDownloadResume(bool resume, DWORD maxAgeSeconds) {
    http::DownloadSettings& s = EditDownloadSettings();
    s.resume = resume;
    s.resumeMaxAgeSeconds = maxAgeSeconds;
}

int CHttpClientCurl::ClearDownloadResume(std::string filePath) {
    if (filePath.empty()) return 1;
    return DeleteKeptTemporaryFileA(filePath.c_str(), http::kKeptSuffix) ? 1 : 0;
}

int CHttpClientCurl::CheckFileMd5(std::string filePath, std::string) {
    return PathFileExistsA(filePath.c_str()) ? 1 : 0;
}

} // namespace ZOTH
