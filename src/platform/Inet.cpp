// WinINet's plain-HTTP calls on libcurl. A session keeps the agent, a connection the server and
// port, and a request its verb, path and headers. HttpSendRequestA starts the exchange and returns
// once the answer's status line and headers are in; InternetReadFile lets it run on and hands the
// body out in pieces as it arrives.
#include "zoth/platform/Win32Inet.h"

#include "platform/KernelObject.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
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

    // The exchange runs on a multi handle that HttpSendRequestA and InternetReadFile drive in turn.
    CURLM* multi = nullptr;
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    bool following = false;    // redirects are followed: their heads are not the answer's
    bool locationSeen = false; // in the head being received
    bool headDone = false;     // the final status line and headers have arrived
    bool finished = false;
    CURLcode result = CURLE_OK;
    std::string body; // received; from readOffset on not yet handed out
    size_t readOffset = 0;

    ~InetRequest() override { EndExchange(); }

    // Releases libcurl's handles; what was received stays readable.
    void EndExchange() {
        if (easy != nullptr) {
            if (multi != nullptr) curl_multi_remove_handle(multi, easy);
            curl_easy_cleanup(easy);
            easy = nullptr;
        }
        if (multi != nullptr) {
            curl_multi_cleanup(multi);
            multi = nullptr;
        }
        if (headerList != nullptr) {
            curl_slist_free_all(headerList);
            headerList = nullptr;
        }
    }

    // Lets the exchange run until `ready` holds or the exchange has ended.
    template <typename Ready> void Drive(Ready ready) {
        while (!finished && !ready()) {
            int running = 0;
            const CURLMcode code = curl_multi_perform(multi, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
                if (message->msg != CURLMSG_DONE) continue;
                finished = true;
                result = message->data.result;
            }
            if (code != CURLM_OK && !finished) {
                finished = true;
                result = code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_RECV_ERROR;
            }
            if (!finished && !ready()) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        if (finished) EndExchange();
    }
};

template <typename T> T* As(HINTERNET handle) {
    return dynamic_cast<T*>(ZOTH::platform::ObjectOf(handle));
}

void InitCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

// Whether the header line starts with `prefix`, ASCII letters compared without case.
bool StartsWithNoCase(const char* data, size_t size, const char* prefix) {
    const size_t length = std::strlen(prefix);
    if (size < length) return false;
    for (size_t i = 0; i < length; ++i)
        if (std::tolower(static_cast<unsigned char>(data[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return true;
}

// Marks the end of the answer's head: the empty line after a status that is neither interim (1xx)
// nor a redirect that libcurl goes on to follow.
size_t OnHeader(char* data, size_t size, size_t count, void* user) {
    auto* request = static_cast<InetRequest*>(user);
    const size_t n = size * count;
    if (StartsWithNoCase(data, n, "HTTP/")) {
        request->locationSeen = false;
    } else if (StartsWithNoCase(data, n, "Location:")) {
        request->locationSeen = true;
    } else if (n == 0 || data[0] == '\r' || data[0] == '\n') {
        long status = 0;
        curl_easy_getinfo(request->easy, CURLINFO_RESPONSE_CODE, &status);
        const bool redirect = request->following && status / 100 == 3 && request->locationSeen;
        if (status / 100 != 1 && !redirect) request->headDone = true;
    }
    return n;
}

size_t OnBody(char* data, size_t size, size_t count, void* user) {
    auto* request = static_cast<InetRequest*>(user);
    request->headDone = true;
    request->body.append(data, size * count);
    return size * count;
}

// The object name as it may stand in a URL: space, control bytes, bytes from 0x7F on and '#' (which
// would end the path) are percent-encoded. '%' stays, so a name that is already escaped is unchanged.
std::string EscapeObjectName(const char* name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char* p = name; *p != '\0'; ++p) {
        const auto byte = static_cast<unsigned char>(*p);
        if (byte <= 0x20 || byte >= 0x7F || byte == '#') {
            escaped += '%';
            escaped += kHex[byte >> 4];
            escaped += kHex[byte & 0xF];
        } else {
            escaped += static_cast<char>(byte);
        }
    }
    return escaped;
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
    if (objectName != nullptr) object.append(EscapeObjectName(objectName));
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
    // Sending again starts over: an exchange still running on the handle is dropped.
    request->EndExchange();
    request->sent = false;
    request->headDone = false;
    request->locationSeen = false;
    request->finished = false;
    request->result = CURLE_OK;
    request->body.clear();
    request->readOffset = 0;

    CURL* curl = curl_easy_init();
    CURLM* multi = curl_multi_init();
    request->easy = curl;
    request->multi = multi;
    if (curl == nullptr || multi == nullptr) {
        request->EndExchange();
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    // Headers that libcurl would add by itself are removed so that only what the caller asked goes out.
    std::vector<std::string> lines = {request->accept.empty() ? "Accept:" : "Accept: " + request->accept,
                                      "Content-Type:", "Expect:"};
    for (std::string& line : HeaderLines(headers, headersLength))
        lines.push_back(std::move(line));
    bool ok = true;
    for (const std::string& line : lines) {
        curl_slist* grown = curl_slist_append(request->headerList, line.c_str());
        if (grown == nullptr)
            ok = false;
        else
            request->headerList = grown;
    }

    const char* data = optional != nullptr ? static_cast<const char*>(optional) : "";
    const long size = optional != nullptr ? static_cast<long>(optionalLength) : 0L;
    const bool plainGet = request->verb == "GET" && size == 0;
    request->following = (request->flags & kFlagNoAutoRedirect) == 0;
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, request->url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY, ""); // direct, whatever the environment says
    curl_easy_setopt(curl, CURLOPT_USERAGENT, request->agent.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, request->headerList);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &OnHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, static_cast<void*>(request));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OnBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(request));
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, request->following ? 1L : 0L);
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
        // The body goes by its length, so zero bytes in it are sent too; libcurl keeps its own copy,
        // since the exchange outlives this call.
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, size);
        if (curl_easy_setopt(curl, CURLOPT_COPYPOSTFIELDS, data) != CURLE_OK) ok = false;
        if (request->verb != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request->verb.c_str());
    }
    if (!ok || curl_multi_add_handle(multi, curl) != CURLM_OK) {
        request->EndExchange();
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }

    request->Drive([request] { return request->headDone; });
    if (!request->headDone && !(request->finished && request->result == CURLE_OK)) {
        const CURLcode code = request->finished ? request->result : CURLE_RECV_ERROR;
        request->EndExchange();
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
    *read = 0;
    if (!request->sent) {
        SetLastError(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
        return FALSE;
    }
    request->Drive([request] { return request->readOffset < request->body.size(); });
    const size_t n = std::min<size_t>(toRead, request->body.size() - request->readOffset);
    if (n > 0) {
        std::memcpy(buffer, request->body.data() + request->readOffset, n);
        request->readOffset += n;
        if (request->readOffset == request->body.size()) {
            // Everything received is handed out: the buffer holds no more than one arrival at a time.
            request->body.clear();
            request->readOffset = 0;
        }
        *read = static_cast<DWORD>(n);
        return TRUE;
    }
    // All that arrived is handed out: the end of the body, or the failure that cut it short.
    if (request->finished && request->result != CURLE_OK) {
        SetLastError(InetErrorOf(request->result));
        return FALSE;
    }
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
