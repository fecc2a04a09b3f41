// The plain-HTTP road over WinINet: port 80, agent "Testing", whole answer read in 1024-byte pieces.
// It shares no field and no code with the libcurl transfers.
#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32Inet.h"

namespace ZOTH {

namespace {

// One exchange; 1 once the request was sent, whatever came back.
int WininetRequest(const std::string& host, const char* verb, const std::string& path, LPCSTR* acceptTypes,
                   const std::string* data, std::string& response) {
    HINTERNET internet = InternetOpenA("Testing", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    if (internet == nullptr) return 0;
    HINTERNET connect = InternetConnectA(internet, host.c_str(), INTERNET_DEFAULT_HTTP_PORT, nullptr, nullptr,
                                         INTERNET_SERVICE_HTTP, 0, 0);
    if (connect == nullptr) {
        InternetCloseHandle(internet);
        return 0;
    }
    HINTERNET request = HttpOpenRequestA(connect, verb, path.c_str(), nullptr, nullptr, acceptTypes,
                                         INTERNET_FLAG_NO_CACHE_WRITE, 1);
    if (request == nullptr) {
        InternetCloseHandle(connect);
        InternetCloseHandle(internet);
        return 0;
    }
    LPVOID optional = data != nullptr ? const_cast<char*>(data->data()) : nullptr;
    const DWORD optionalLength = data != nullptr ? static_cast<DWORD>(data->size()) : 0;
    if (!HttpSendRequestA(request, nullptr, 0, optional, optionalLength)) {
        InternetCloseHandle(request);
        InternetCloseHandle(connect);
        InternetCloseHandle(internet);
        return 0;
    }

    char buffer[1024] = {};
    DWORD read = 0;
    bool first = true;
    while (InternetReadFile(request, buffer, sizeof(buffer), &read) && read > 0) {
        if (first)
            response.assign(buffer, read);
        else
            response.append(buffer, read);
        first = false;
    }

    InternetCloseHandle(request);
    InternetCloseHandle(connect);
    InternetCloseHandle(internet);
    return 1;
}

} // namespace

int CHttpClientCurl::WininetHttpGet(std::string& response) {
    LPCSTR accept[] = {"*/*", nullptr};
    return WininetRequest(g_strLookupHost, "GET", "/cityjson?ie=utf-8", accept, nullptr, response);
}

int CHttpClientCurl::WininetHttpGet(std::string host, std::string path, std::string& response) {
    LPCSTR accept[] = {"*/*", nullptr};
    return WininetRequest(host, "GET", path, accept, nullptr, response);
}

int CHttpClientCurl::WininetHttpPost(std::string host, std::string path, std::string data,
                                     std::string& response) {
    LPCSTR accept[] = {"Accept: */*", nullptr};
    return WininetRequest(host, "POST", path, accept, &data, response);
}

} // namespace ZOTH
