// Multipart upload of one file beside the fixed field "reqformat".

#include "zoth/http/CHttpClientCurl.h"

#include "zoth/platform/Win32Path.h"

#include "http/CurlOption.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace ZOTH {

using http::SetCurlOption;

namespace {
const char kReqFormatName[] = "reqformat";
const char kReqFormatValue[] = "plain";
const char kFileName[] = "file";

// The file being sent, read through the handle that was opened and checked, never reopened by name.
struct Source {
    HANDLE file;
    curl_off_t size; // as found when it was opened: no byte past it is sent
    curl_off_t at;   // bytes read so far
    bool cut;        // it gave fewer bytes than its size
};

size_t ReadSource(char* buffer, size_t size, size_t count, void* arg) {
    auto* s = static_cast<Source*>(arg);
    const DWORD want = static_cast<DWORD>(std::min<curl_off_t>(s->size - s->at, size * count));
    DWORD got = 0;
    if (want == 0) return 0;
    if (!ReadFile(s->file, buffer, want, &got, nullptr) || got == 0) {
        // Ending here would leave the server waiting for bytes that were announced.
        s->cut = true;
        return CURL_READFUNC_ABORT;
    }
    s->at += got;
    return got;
}

// libcurl rewinds when it sends the body again (a pooled connection that had closed).
int SeekSource(void* arg, curl_off_t offset, int origin) {
    auto* s = static_cast<Source*>(arg);
    if (origin != SEEK_SET || offset < 0 || offset > s->size) return CURL_SEEKFUNC_CANTSEEK;
    LONG high = static_cast<LONG>(offset >> 32);
    SetLastError(ERROR_SUCCESS);
    if (SetFilePointer(s->file, static_cast<LONG>(static_cast<DWORD>(offset)), &high, FILE_BEGIN) ==
            INVALID_SET_FILE_POINTER &&
        GetLastError() != ERROR_SUCCESS)
        return CURL_SEEKFUNC_FAIL;
    s->at = offset;
    return CURL_SEEKFUNC_OK;
}

// The part's file name: the path's last component, as libcurl names a file it reads by name.
std::string BaseName(const std::string& path) {
    const size_t cut = path.find_last_of(std::string("/") + ZOTH_PATH_SEPARATOR);
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

// The part's type, guessed from the extension as libcurl guesses it for a file it reads by name.
const char* TypeOf(const std::string& name) {
    static const char* const kTypes[][2] = {{".gif", "image/gif"},       {".jpg", "image/jpeg"},
                                            {".jpeg", "image/jpeg"},     {".png", "image/png"},
                                            {".svg", "image/svg+xml"},   {".txt", "text/plain"},
                                            {".htm", "text/html"},       {".html", "text/html"},
                                            {".pdf", "application/pdf"}, {".xml", "application/xml"}};
    for (const auto& type : kTypes) {
        const size_t n = std::char_traits<char>::length(type[0]);
        if (name.size() >= n &&
            std::equal(type[0], type[0] + n, name.end() - static_cast<std::ptrdiff_t>(n),
                       [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }))
            return type[1];
    }
    return "application/octet-stream";
}

// The two parts, the file's read from source. CURLE_OK, or the code of the call that failed.
CURLcode BuildForm(curl_mime* form, const std::string& filePath, Source& source) {
    curl_mimepart* field = curl_mime_addpart(form);
    curl_mimepart* file = curl_mime_addpart(form);
    if (field == nullptr || file == nullptr) return CURLE_OUT_OF_MEMORY;
    const CURLcode steps[] = {
        curl_mime_name(field, kReqFormatName),
        curl_mime_data(field, kReqFormatValue, CURL_ZERO_TERMINATED),
        curl_mime_name(file, kFileName),
        curl_mime_filename(file, BaseName(filePath).c_str()),
        curl_mime_type(file, TypeOf(filePath)),
        curl_mime_data_cb(file, source.size, &ReadSource, &SeekSource, nullptr, &source),
    };
    for (CURLcode step : steps)
        if (step != CURLE_OK) return step;
    return CURLE_OK;
}

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
    // POSTFIELDS is overruled by MIMEPOST below; postData stays alive until perform returns anyway.
    if (!SetCurlOption(m_pCurl, m_resultCode, CURLOPT_POST, 1L) ||
        !SetCurlOption(m_pCurl, m_resultCode, CURLOPT_POSTFIELDS, postData.c_str()))
        return 0;

    // The file is opened once, checked on that handle and sent from it: libcurl never opens it by
    // name, so a name swapped for another file after the check changes nothing that is sent. The
    // layer refuses pipes and sockets (and never waits on one); a folder gives no first byte; a
    // device that reads more than its size is no plain file. Anything refused fails here, before
    // anything is sent.
    struct Closer {
        HANDLE file;
        ~Closer() {
            if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
        }
    } open{CreateFileA(filePath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};
    Source source{open.file, 0, 0, false};
    LARGE_INTEGER size{};
    char byte = 0;
    DWORD got = 0;
    if (open.file == INVALID_HANDLE_VALUE || !GetFileSizeEx(open.file, &size) ||
        !ReadFile(open.file, &byte, 1, &got, nullptr) || got > size.QuadPart ||
        SeekSource(&source, 0, SEEK_SET) != CURL_SEEKFUNC_OK) {
        m_resultCode = CURLE_READ_ERROR;
        SetErrorText("cannot read " + filePath + " (missing, a folder, unreadable or not a plain file); " +
                     "nothing sent");
        return 0;
    }
    source.size = size.QuadPart;

    // The form is released on every path; whether building it failed shows as the result.
    curl_mime* form = curl_mime_init(m_pCurl);
    m_resultCode = form == nullptr ? CURLE_OUT_OF_MEMORY : BuildForm(form, filePath, source);
    if (m_resultCode == CURLE_OK) m_resultCode = curl_easy_setopt(m_pCurl, CURLOPT_MIMEPOST, form);
    if (m_resultCode == CURLE_OK) m_resultCode = PerformStoppable(false);
    curl_mime_free(form);

    if (source.cut && m_resultCode != CURLE_OK) {
        m_resultCode = CURLE_READ_ERROR;
        SetErrorText("cannot read " + filePath + ": it changed while it was sent (" +
                     std::to_string(source.at) + " of " + std::to_string(source.size) +
                     " bytes read); the upload was cut short");
    }
    if (m_resultCode != CURLE_OK) return 0;
    response = m_strResponseBody;
    return 1;
}

} // namespace ZOTH
