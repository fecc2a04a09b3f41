// WinINet's plain-HTTP calls on libcurl. A session keeps the agent, a connection the server and
// port, and a request its verb, path and headers; HttpSendRequestA makes the whole exchange at once
// and InternetReadFile hands the received body out in pieces.
#include "zoth/platform/Win32Inet.h"

#include "platform/KernelObject.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

using ZOTH::platform::KernelObject;

// WinINet follows redirects unless asked not to.
constexpr DWORD kFlagNoAutoRedirect = 0x00200000u;

struct InetSession : KernelObject {
    std::string agent;
};

struct InetConnection : KernelObject {
    std::string agent;
    std::string server;
    INTERNET_PORT port = 0;
};

struct InetRequest : KernelObject {
    std::string agent;
    std::string url;
    std::string verb;
    std::string version;
    std::string referrer;
    std::string accept; // the joined accept types; empty for none
    DWORD flags = 0;
    bool sent = false;
    std::string body;
    size_t readOffset = 0;
};

template <typename T> T* As(HINTERNET handle) {
    return dynamic_cast<T*>(ZOTH::platform::ObjectOf(handle));
}

void InitCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

size_t AppendBody(char* data, size_t size, size_t count, void* user) {
    static_cast<InetRequest*>(user)->body.append(data, size * count);
    return size * count;
}

DWORD InetErrorOf(CURLcode code) {
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return ERROR_INTERNET_NAME_NOT_RESOLVED;
    case CURLE_COULDNT_CONNECT:
        return ERROR_INTERNET_CANNOT_CONNECT;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
        return ERROR_HTTP_INVALID_SERVER_RESPONSE;
    default:
        return ERROR_INTERNET_CONNECTION_ABORTED;
    }
}

// Lines of a CRLF-separated header block, empty lines dropped.
std::vector<std::string> HeaderLines(LPCSTR headers, DWORD length) {
    std::vector<std::string> lines;
    if (headers == nullptr) return lines;
    std::string block =
        length == static_cast<DWORD>(-1) ? std::string(headers) : std::string(headers, length);
    size_t start = 0;
    while (start < block.size()) {
        size_t end = block.find("\r\n", start);
        if (end == std::string::npos) end = block.size();
        if (end > start) lines.push_back(block.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

} // namespace

HINTERNET InternetOpenA(LPCSTR agent, DWORD accessType, LPCSTR proxy, LPCSTR, DWORD) {
    if (accessType != INTERNET_OPEN_TYPE_DIRECT || (proxy != nullptr && *proxy != '\0')) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    InitCurlOnce();
    auto* session = new InetSession;
    session->agent = agent != nullptr ? agent : "";
    return session;
}

HINTERNET InternetConnectA(HINTERNET session, LPCSTR serverName, INTERNET_PORT port, LPCSTR userName,
                           LPCSTR password, DWORD service, DWORD, DWORD_PTR) {
    InetSession* owner = As<InetSession>(session);
    if (owner == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if (serverName == nullptr || *serverName == '\0' || service != INTERNET_SERVICE_HTTP ||
        userName != nullptr || password != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* connection = new InetConnection;
    connection->agent = owner->agent;
    connection->server = serverName;
    connection->port = port == 0 ? INTERNET_DEFAULT_HTTP_PORT : port;
    return connection;
}

HINTERNET HttpOpenRequestA(HINTERNET connect, LPCSTR verb, LPCSTR objectName, LPCSTR version, LPCSTR referrer,
                           LPCSTR* acceptTypes, DWORD flags, DWORD_PTR) {
    InetConnection* owner = As<InetConnection>(connect);
    if (owner == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    auto* request = new InetRequest;
    request->agent = owner->agent;
    request->verb = verb != nullptr && *verb != '\0' ? verb : "GET";
    // The path always starts with '/'. Built by appending: GCC 12 at -O3 takes insert(0, "/") for
    // an overlapping copy (-Wrestrict).
    std::string object;
    if (objectName == nullptr || objectName[0] != '/') object.push_back('/');
    if (objectName != nullptr) object.append(objectName);
    // An IPv6 literal needs brackets in a URL.
    const std::string host =
        owner->server.find(':') != std::string::npos ? "[" + owner->server + "]" : owner->server;
    request->url = "http://" + host + ":" + std::to_string(owner->port) + object;
    request->version = version != nullptr ? version : "";
    request->referrer = referrer != nullptr ? referrer : "";
    for (LPCSTR* type = acceptTypes; type != nullptr && *type != nullptr; ++type) {
        if (!request->accept.empty()) request->accept += ", ";
        request->accept += *type;
    }
    request->flags = flags;
    return request;
}

BOOL HttpSendRequestA(HINTERNET handle, LPCSTR headers, DWORD headersLength, LPVOID optional,
                      DWORD optionalLength) {
    InetRequest* request = As<InetRequest>(handle);
    if (request == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    request->sent = false;
    request->body.clear();
    request->readOffset = 0;

    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    // Headers that libcurl would add by itself are removed so that only what the caller asked goes out.
    curl_slist* list = nullptr;
    std::vector<std::string> lines = {request->accept.empty() ? "Accept:" : "Accept: " + request->accept,
                                      "Content-Type:", "Expect:"};
    for (std::string& line : HeaderLines(headers, headersLength))
        lines.push_back(std::move(line));
    bool ok = true;
    for (const std::string& line : lines) {
        curl_slist* grown = curl_slist_append(list, line.c_str());
        if (grown == nullptr)
            ok = false;
        else
            list = grown;
    }

    const char* data = optional != nullptr ? static_cast<const char*>(optional) : "";
    const long size = optional != nullptr ? static_cast<long>(optionalLength) : 0L;
    const bool plainGet = request->verb == "GET" && size == 0;
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, request->url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY, ""); // direct, whatever the environment says
    curl_easy_setopt(curl, CURLOPT_USERAGENT, request->agent.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &AppendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(request));
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, (request->flags & kFlagNoAutoRedirect) ? 0L : 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 10L);
    // WinINet's own defaults: a minute to connect, a minute of silence ends a transfer.
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 60L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    if (request->version == "HTTP/1.0")
        curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_0);
    else
        curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    if (!request->referrer.empty()) curl_easy_setopt(curl, CURLOPT_REFERER, request->referrer.c_str());
    if (request->verb == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (plainGet) {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        // The body goes by its length, so zero bytes in it are sent too.
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, size);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, data);
        if (request->verb != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request->verb.c_str());
    }

    CURLcode code = ok ? curl_easy_perform(curl) : CURLE_OUT_OF_MEMORY;
    curl_easy_cleanup(curl);
    curl_slist_free_all(list);
    if (code != CURLE_OK) {
        request->body.clear();
        SetLastError(code == CURLE_OUT_OF_MEMORY ? ERROR_NOT_ENOUGH_MEMORY : InetErrorOf(code));
        return FALSE;
    }
    request->sent = true;
    return TRUE;
}

BOOL InternetReadFile(HINTERNET handle, LPVOID buffer, DWORD toRead, LPDWORD read) {
    InetRequest* request = As<InetRequest>(handle);
    if (request == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (read == nullptr || (buffer == nullptr && toRead > 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!request->sent) {
        SetLastError(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
        return FALSE;
    }
    const size_t n = std::min<size_t>(toRead, request->body.size() - request->readOffset);
    if (n > 0) std::memcpy(buffer, request->body.data() + request->readOffset, n);
    request->readOffset += n;
    *read = static_cast<DWORD>(n);
    return TRUE;
}

BOOL InternetCloseHandle(HINTERNET handle) {
    KernelObject* object = ZOTH::platform::ObjectOf(handle);
    if (object == nullptr || (As<InetSession>(handle) == nullptr && As<InetConnection>(handle) == nullptr &&
                              As<InetRequest>(handle) == nullptr)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return object->Close();
}
