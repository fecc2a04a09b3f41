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
#include <vector>

namespace ZOTH {

using http::SetCurlOption;

namespace {

// The file a download replaces: the one the target path names, links resolved, and whether it
// exists yet.
struct Target {
    std::string path;
    bool exists = false;
};

// Fills `target` for filePath. False when the file's own write would refuse it (a read-only file,
// a folder, no write access): the download then leaves it untouched.
bool ResolveTarget(const std::string& filePath, Target& target) {
    HANDLE file = CreateFileA(filePath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_FILE_NOT_FOUND) return false;
        target.path = filePath; // a new file; a missing folder fails when the temporary file is made
        target.exists = false;
        return true;
    }
    std::vector<char> path(MAX_PATH + 1);
    const DWORD flags = FILE_NAME_NORMALIZED | VOLUME_NAME_DOS;
    DWORD length = GetFinalPathNameByHandleA(file, path.data(), static_cast<DWORD>(path.size()), flags);
    if (length >= path.size()) {
        path.resize(length);
        length = GetFinalPathNameByHandleA(file, path.data(), static_cast<DWORD>(path.size()), flags);
    }
    CloseHandle(file);
    if (length == 0 || length >= path.size()) return false;
    target.path.assign(path.data(), length);
    target.exists = true;
    return true;
}

// A temporary file in the target's folder, open for writing. It is closed and deleted when it goes
// out of scope, unless it has taken the target's place.
class TempFile {
public:
    ~TempFile() {
        Close();
        if (!m_path.empty()) DeleteFileA(m_path.c_str());
    }
    bool Create(const std::string& target) {
        std::vector<char> folder(target.begin(), target.end());
        folder.push_back('\0');
        PathRemoveFileSpecA(folder.data());
        if (folder[0] == '\0') folder.assign({'.', '\0'}); // a bare file name: the working folder
        char name[MAX_PATH + 1] = {};
        if (GetTempFileNameA(folder.data(), "zdl", 0, name) == 0) return false;
        m_path = name;
        // The file is new and empty. Truncating it would also mark it, on some file systems (ext4),
        // to have all its data pushed to the disk when it is closed, which costs a download 50%.
        m_file = CreateFileA(name, GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        return m_file != INVALID_HANDLE_VALUE;
    }
    HANDLE Handle() const { return m_file; }
    // Puts the file in the target's place: the replaced file's permission bits carry over. False
    // when that fails; the target is then as it was.
    bool Commit(const Target& target) {
        if (!Close()) return false;
        BOOL moved = FALSE;
        if (target.exists)
            moved = ReplaceFileA(target.path.c_str(), m_path.c_str(), nullptr, 0, nullptr, nullptr);
        // A file that appeared meanwhile is not replaced unseen.
        if (!target.exists || (!moved && GetLastError() == ERROR_FILE_NOT_FOUND))
            moved = MoveFileExA(m_path.c_str(), target.path.c_str(), 0);
        if (moved) m_path.clear();
        return moved != FALSE;
    }

private:
    bool Close() {
        if (m_file == INVALID_HANDLE_VALUE) return true;
        BOOL closed = CloseHandle(m_file);
        m_file = INVALID_HANDLE_VALUE;
        return closed != FALSE;
    }

    std::string m_path;
    HANDLE m_file = INVALID_HANDLE_VALUE;
};

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

    // Refused targets and unwritable folders fail before anything is fetched.
    Target target;
    if (!ResolveTarget(filePath, target)) return 0;
    TempFile temp;
    if (!temp.Create(target.path)) return 0;

    struct Sink {
        CHttpClientCurl* client;
        HANDLE file;
        uint64_t written;
        text::StreamDigest digest;
    } sink{this, temp.Handle(), 0, text::StreamDigest(check.kind)};
    // Each chunk goes to the temporary file as it arrives. A failed write (a full disk, a size
    // limit) ends the transfer with CURLE_WRITE_ERROR, as a stop does.
    curl_write_callback write = [](char* data, size_t size, size_t count, void* user) -> size_t {
        auto* to = static_cast<Sink*>(user);
        const size_t n = size * count; // at most libcurl's buffer size, far below 4 GiB
        if (!WriteFile(to->file, data, static_cast<DWORD>(n), nullptr, nullptr)) return 0;
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

    return temp.Commit(target) ? 1 : 0;
}

int CHttpClientCurl::CheckFileMd5(std::string filePath, std::string) {
    return PathFileExistsA(filePath.c_str()) ? 1 : 0;
}

} // namespace ZOTH
