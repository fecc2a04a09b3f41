/// \file
/// WinINet calls for plain HTTP. On Windows they come from <wininet.h>; elsewhere the platform layer
/// provides them on top of libcurl: plain HTTP to the given server and port, no proxy, the given agent.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#include <wininet.h>
#else
#include <cstdint>

typedef void* HINTERNET;
typedef WORD INTERNET_PORT;
typedef uintptr_t DWORD_PTR;

#define ERROR_INTERNET_INTERNAL_ERROR 12004u
#define ERROR_INTERNET_INCORRECT_HANDLE_TYPE 12018u
#define ERROR_INTERNET_CANNOT_CONNECT 12029u
#define ERROR_INTERNET_CONNECTION_ABORTED 12030u
#define ERROR_INTERNET_NAME_NOT_RESOLVED 12007u
#define ERROR_HTTP_INVALID_SERVER_RESPONSE 12152u

/// A session handle that identifies itself with `agent`. Only INTERNET_OPEN_TYPE_DIRECT is known
/// here; proxy and bypass must be null. Null on failure.
ZOTH_API HINTERNET InternetOpenA(LPCSTR agent, DWORD accessType, LPCSTR proxy, LPCSTR proxyBypass,
                                 DWORD flags);

/// A connection handle for HTTP (INTERNET_SERVICE_HTTP) to `serverName` on `port`. No traffic yet.
/// User and password are not supported and must be null. Null on failure.
ZOTH_API HINTERNET InternetConnectA(HINTERNET session, LPCSTR serverName, INTERNET_PORT port, LPCSTR userName,
                                    LPCSTR password, DWORD service, DWORD flags, DWORD_PTR context);

/// A request of `verb` (null: "GET") for `objectName` (null: "/"); space, control bytes, bytes from
/// 0x7F on and '#' in the name go out percent-encoded, '%' as it is. The accept types, a null-ended
/// list, go out as one Accept header joined by ", "; none means no Accept header. Null on failure.
ZOTH_API HINTERNET HttpOpenRequestA(HINTERNET connect, LPCSTR verb, LPCSTR objectName, LPCSTR version,
                                    LPCSTR referrer, LPCSTR* acceptTypes, DWORD flags, DWORD_PTR context);

/// Sends the request with `headers` (CRLF-separated lines; length -1 for a C string) and `optional`
/// bytes as the body, and waits for the answer's status line and headers. TRUE for any HTTP status;
/// FALSE with a last error of `ERROR_INTERNET_*` when they did not come.
ZOTH_API BOOL HttpSendRequestA(HINTERNET request, LPCSTR headers, DWORD headersLength, LPVOID optional,
                               DWORD optionalLength);

/// Copies the next at most `toRead` bytes of the body into `buffer`, waiting for them if need be;
/// *read is 0 at the end. Once every byte that arrived is handed out, a broken transfer gives FALSE
/// with a last error of `ERROR_INTERNET_*`.
ZOTH_API BOOL InternetReadFile(HINTERNET file, LPVOID buffer, DWORD toRead, LPDWORD read);

/// Releases a session, connection or request handle. FALSE for null or a foreign handle.
ZOTH_API BOOL InternetCloseHandle(HINTERNET handle);

#endif // _WIN32
