// CHttpClientCurl: a blocking HTTP/HTTPS client over libcurl's easy interface (requests, whole-file
// download, speed probe, multipart upload) and a second road for plain HTTP over WinINet.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <curl/curl.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ZOTH {

namespace http {
struct DownloadSettings;
struct DownloadCheck;
struct ProxySettings;
struct TransferReport;
struct RedirectSettings;
class RetryClock;
} // namespace http

/// The method of ExecuteRequest.
enum EREQUEST_METHOD_tag {
    EREQUEST_METHOD_GET = 1,  ///< GET; the data argument is not sent.
    EREQUEST_METHOD_POST = 2, ///< POST with the data argument as the body.
    EREQUEST_METHOD_PUT = 3,  ///< PUT with the data argument as the body.
};

/// Host asked by the one-argument WininetHttpGet: a public service on port 80 that answers
/// "/cityjson?ie=utf-8" with the caller's address and city.
inline constexpr const char* kDefaultLookupHost = "pv.sohu.com";
/// The host the one-argument WininetHttpGet asks; starts as kDefaultLookupHost. Not guarded: set it
/// before any thread uses it (tests point it at loopback).
ZOTH_API extern std::string g_strLookupHost;

/// A blocking HTTP/HTTPS client over libcurl, and a second road for plain HTTP over WinINet.
///
/// Every transfer runs on the caller's thread on the object's libcurl easy handle, kept across its
/// transfers and reset before each, so that each sees exactly the options a new handle would. It
/// reports by its result (1/0) and GetResultCode(), libcurl's code of the latest transfer; an HTTP
/// error status is no failure. One object runs one transfer at a time: only Stop() may be called from another
/// thread while a transfer runs. Connections, DNS answers and TLS sessions are shared between
/// transfers through one process-wide cache unless SetConnectionReuse(false). TLS certificates are
/// not verified unless SetTlsVerify or SetTlsCaPath turns it on.
class ZOTH_API CHttpClientCurl {
public:
    /// Told how far a download or probe has come: bytes expected (0 while unknown) and bytes
    /// received. Called on the transferring thread.
    using ProgressObserver = std::function<void(double total, double now)>;

    /// Defaults: a 30 s request limit, no custom headers, connection reuse on, no TLS verification.
    /// No libcurl handle exists yet.
    CHttpClientCurl();
    /// Copies settings, texts and counters; the copy starts with no libcurl handle and no header list.
    CHttpClientCurl(const CHttpClientCurl& other);
    /// As the copy constructor; the target's own handle and list are released first.
    CHttpClientCurl& operator=(const CHttpClientCurl& other);
    /// Releases the handle and the header list (Clear()). No transfer may be running.
    ~CHttpClientCurl();

    /// Readies the handle for a transfer with no options set (the first call in the process
    /// initialises libcurl) and drops the header list: the kept handle reset, or a new one when
    /// connection reuse is off or the handle came from the parent of a forked process (which keeps
    /// it; the child only forgets it). 1 when a handle stands in m_pCurl, 0 when libcurl gave none.
    int InitCurl();
    /// Releases handle and header list; settings, texts and counters stay.
    void Clear();

    /// One GET, POST or PUT of url, through proxy when it is non-empty. 1 when libcurl finished the
    /// transfer (any HTTP status), with the body in response; 0 otherwise, see GetResultCode. A
    /// pending Stop() ends it before it starts.
    int ExecuteRequest(EREQUEST_METHOD_tag method, std::string url, std::string proxy, std::string postData,
                       std::string& response);
    /// ExecuteRequest with GET after clearing a pending stop; postData is not sent.
    int HttpGet(std::string url, std::string proxy, std::string postData, std::string& response);
    /// ExecuteRequest with POST after clearing a pending stop; postData is sent up to its first NUL.
    int HttpPost(std::string url, std::string proxy, std::string postData, std::string& response);
    /// ExecuteRequest with PUT after clearing a pending stop; postData is sent up to its first NUL.
    int HttpPut(std::string url, std::string proxy, std::string postData, std::string& response);

    /// Request header lines ("Name: value") for every later request and upload, until replaced.
    void SetCustomHeaders(std::vector<std::string> headers);
    /// Time limit of requests and uploads in milliseconds (default 30000), applied in whole seconds;
    /// below 1000 means no limit.
    void SetTimeOutMax(DWORD milliseconds);

    /// Tick count (ms, GetTickCount) at the start of the latest speed probe.
    DWORD GetStartTime();
    /// Tick count (ms) when the latest speed probe received its last chunk.
    DWORD GetEndTime();
    /// Body bytes received, counted across transfers; a speed probe starts the count from 0.
    DWORD GetTotalSize();
    /// libcurl's code of the latest transfer (CURLE_OK, or the reason it failed).
    CURLcode GetResultCode();
    /// Header lines of the latest transfer exactly as received, line ends included.
    std::string GetResponseHeaders();
    /// HTTP status of the latest libcurl operation's last response (after followed redirects, the
    /// final one's); 0 when no response came (no connection, a refused URL, no operation yet). The
    /// WinINet road leaves it as it was.
    long GetStatusCode();
    /// Words for the latest libcurl operation's failure; "" when it did what was asked and any status was
    /// below 400. A libcurl failure gives libcurl's message and its detail ("Couldn't connect to
    /// server: Failed to connect to 127.0.0.1 port 8080: Connection refused"); a status of 400 or
    /// more "HTTP status 404 Not Found" (also when the result was 1); the library's own refusals
    /// (a download's status, length or digest, a stop, an unreadable upload, a refused redirect) say
    /// what was refused and why.
    std::string GetErrorText();

    /// libcurl's body callback; user is the object. Appends the chunk to the body; returns 0 (ending
    /// the transfer) when a stop is pending or memory runs out, else size * count.
    static size_t CurlWriteCallback(char* data, size_t size, size_t count, void* user);
    /// libcurl's header callback; user is the object. Appends the line to the header text.
    static size_t CurlWriteHeaderCallback(char* data, size_t size, size_t count, void* user);
    /// libcurl's progress callback: tells the progress observer, if any, and always returns 0.
    static int CurlProgressCallback(void* user, double dltotal, double dlnow, double ultotal, double ulnow);

    /// Ends the running transfer within about a second, even one that receives nothing; it then gives
    /// 0 with CURLE_WRITE_ERROR. Made while no transfer runs, the stop ends the next download, upload
    /// or probe at once (GET, POST and PUT clear it). A transfer uses the stop up. Any thread may call.
    void Stop();

    /// Fetches url into a temporary file beside filePath and renames it over filePath only on status
    /// 200 with a body exactly as long as the announced length. 1 written; else 0, filePath untouched
    /// and no temporary file left. A read-only target or a folder gives 0 before anything is fetched;
    /// a symbolic link is written through. The body is not kept in the object. `md5` binds only
    /// after SetDownloadMd5Check(true); see also SetDownloadDigest and SetRetryPolicy.
    int DownloadFile(std::string url, std::string filePath, std::string md5);
    /// 1 when filePath names an existing file or folder, else 0. The digest argument is not used.
    int CheckFileMd5(std::string filePath, std::string md5);

    /// Pulls url for at most `seconds`, counting and dropping the body. Always 0: read the outcome
    /// from GetNetSpeed and GetResultCode (CURLE_WRITE_ERROR when the limit ended it).
    int TestNetSpeed(std::string url, int seconds);
    /// Speed of the latest probe in units of 2^20 bits per second; 0.0 with nothing to compute from.
    double GetNetSpeed();

    /// Posts a multipart form of "reqformat" = "plain" and the file at filePath as "file". postData
    /// does not reach the wire. Results as ExecuteRequest; an unreadable file gives 0.
    int HttpPostFile(std::string url, std::string proxy, std::string postData, std::string filePath,
                     std::string& response);

    /// GET "/cityjson?ie=utf-8" from g_strLookupHost over WinINet; results as the two-argument form.
    int WininetHttpGet(std::string& response);
    /// Plain HTTP GET of path from host on port 80 over WinINet, agent "Testing". 1 once the status
    /// and headers came (any status), with the body bytes that arrived in response (all of them,
    /// or those before the connection broke); 0 when no answer came, response untouched.
    int WininetHttpGet(std::string host, std::string path, std::string& response);
    /// As WininetHttpGet, with POST and `data` as the body.
    int WininetHttpPost(std::string host, std::string path, std::string data, std::string& response);

    /// Observer told of progress during DownloadFile and TestNetSpeed, on the transferring thread;
    /// an empty one removes it.
    void SetProgressObserver(ProgressObserver observer);

    /// Connection reuse for every later libcurl transfer of this object; on by default. On, a transfer
    /// draws connections, DNS answers and TLS sessions from one cache of the process, so a fresh object
    /// need not mean a new TCP and TLS handshake. Off, each transfer runs on a new handle, connects
    /// anew, and its connection closes with that handle (at the next transfer, Clear() or destruction).
    void SetConnectionReuse(bool reuse);
    /// TLS verification for every later libcurl transfer of this object; off by default, and HTTPS is
    /// then encrypted but not authenticated. On, the peer's certificate chain is checked against the
    /// system's trust store (or the CA of SetTlsCaPath) and the host name against the certificate; a
    /// failure ends the transfer with libcurl's code (CURLE_PEER_FAILED_VERIFICATION, 60).
    void SetTlsVerify(bool verify);
    /// Trusts the CA certificates of a PEM bundle file, or of a folder prepared by `openssl rehash`,
    /// instead of the system's trust store, and turns verification on. An empty path goes back to the
    /// system's store and leaves verification as it is. On Windows a folder's PEM files are read at
    /// each transfer, and a folder without a certificate ends it with CURLE_SSL_CACERT_BADFILE (77).
    /// Revocation is checked best effort: a certificate listed as revoked fails, one whose CA's list
    /// cannot be had passes.
    void SetTlsCaPath(std::string path);

    // ---- Durable, resumable, verified and retried downloads (DownloadDurable.cpp, DownloadResume.cpp,
    // DownloadVerify.cpp, RetryPolicy.cpp). Each setting is copied with the object.

    /// Durable commit of every later DownloadFile; on by default. On, the temporary file's data reaches
    /// the disk before it takes the target's place and the folder's entry after, so a crash or power
    /// cut leaves the old target or the whole new one. Off saves the two flushes. A folder flush that
    /// fails after the rename still gives 1: the target is the new file by then.
    void SetDownloadDurable(bool durable);
    /// Resume of every later DownloadFile; off by default. On, a download that fails or is stopped
    /// keeps what it received in a partial file beside the target ("." + name + ".zdl-part", the
    /// process's own: mode 0600, locked while in use) with a record of the URL's SHA-256, the length
    /// and the validator (ETag, else Last-Modified); the next download of the same URL to the same
    /// target asks for the missing bytes only (Range and If-Range). A changed validator, another URL,
    /// a record older than maxAgeSeconds (default 7 days) or a partial that is not as recorded starts
    /// over. While another download holds the partial, a second one starts over in a temporary file
    /// of its own and leaves the partial alone. A finished file passes the same checks as a whole
    /// download (length, digest) before it takes the target's place.
    void SetDownloadResume(bool resume, DWORD maxAgeSeconds = 7 * 24 * 3600);
    /// Removes the partial file that a resumable download of filePath kept. 1 when none is left (also
    /// when there was none), 0 when one could not be removed.
    int ClearDownloadResume(std::string filePath);
    /// The digest the next DownloadFile's file must have: algorithm "sha256" or "md5" and its hex
    /// digits (any case). Computed while the body streams; a mismatch fails with
    /// CURLE_BAD_CONTENT_ENCODING and leaves the target untouched. The next download uses it up
    /// whatever its outcome. 1 taken; 0 for an unknown algorithm or a malformed hex (nothing kept);
    /// an empty algorithm drops a pending digest and gives 1.
    int SetDownloadDigest(std::string algorithm, std::string hex);
    /// Makes DownloadFile's md5 argument binding, when it is not empty: the file must have that MD5,
    /// checked as SetDownloadDigest does (which wins when both are given). Off by default.
    void SetDownloadMd5Check(bool check);
    /// Retries of later GET, PUT and DownloadFile transfers (never POST, upload or probe) that failed
    /// in a passing way: no connection, a timeout, a transfer cut short, status 408, 429, 500, 502,
    /// 503 or 504. At most `attempts` transfers in all (1 or less: no retry), waiting firstWaitMs
    /// (default 1 s) doubling with up to 25% jitter, or the server's Retry-After, between them. With
    /// budgetMs non-zero, a wait that would pass that time since the first attempt is not started.
    /// Stop() during a wait ends the operation with 0 and CURLE_WRITE_ERROR. The last attempt's
    /// result and code stand.
    void SetRetryPolicy(int attempts, DWORD budgetMs, DWORD firstWaitMs = 1000);

    // ---- Proxies (ProxyOptions.cpp). Each setting is copied with the object.

    /// The system's proxy settings for every later libcurl transfer of this object (requests,
    /// downloads, uploads, probes) that is given no proxy argument; off by default, when only the
    /// argument (and libcurl's reading of http_proxy-style variables) applies. On, the system's
    /// answer for each URL, a list of proxies and direct connections, is tried in order until one is
    /// reached. The WinINet road stays direct.
    void SetSystemProxy(bool use);
    /// The proxy the latest libcurl transfer went through, as a URL without credentials: the proxy
    /// argument or the system's choice; "" when it went direct (or through a proxy that libcurl
    /// itself took from the environment).
    std::string GetLastProxy();
    /// Credentials for any proxy of every later libcurl transfer, the proxy argument's and the
    /// system's, by whatever scheme the proxy asks for (Basic, Digest, NTLM, Negotiate). An empty user
    /// means the logged-in user's own (SSPI on Windows). They go to the proxy only, never to the origin
    /// server, and show in no header text or message; Basic to an http:// proxy travels in clear. A
    /// pooled connection or tunnel they authenticated serves no object without the same credentials.
    void SetProxyCredentials(std::string user, std::string password);

    // ---- Schemes and redirects (Redirects.cpp). Each setting is copied with the object.

    /// The schemes every later libcurl transfer, and every redirect it follows, may use: libcurl's
    /// protocol names, comma-separated ("http,https,ftp"); "http,https" by default, and an empty list
    /// goes back to it. A URL of another scheme ends with 0 and CURLE_UNSUPPORTED_PROTOCOL (1) before
    /// anything is sent; a name libcurl does not know makes every transfer fail with libcurl's code.
    void SetAllowedSchemes(std::string schemes);
    /// Following of redirects (301, 302, 303, 307, 308 with a Location) by every later libcurl
    /// request, download, upload and probe; off by default, when a redirect is the answer. On, as
    /// browsers do: 303 turns any method into GET and 301/302 a POST into GET (the body is dropped),
    /// 307/308 keep method and body; https never steps down to http and a scheme outside
    /// SetAllowedSchemes is not followed (0, CURLE_UNSUPPORTED_PROTOCOL); a hop to another origin
    /// (scheme, host, port) drops the custom Authorization and Cookie headers for the rest of the
    /// chain; more than maxHops redirects give 0 and CURLE_TOO_MANY_REDIRECTS (47). Status, headers
    /// and body are the final response's.
    void SetFollowRedirects(bool follow, int maxHops = 10);

    // ---- What the latest transfer's connection was (TransferInfo.cpp); copied with the object.

    /// Whether the latest libcurl transfer ran on a connection that an earlier transfer had opened
    /// (taken from the shared pool): 1 reused, 0 opened for it, -1 when it reached no server (it
    /// failed before, or none ran). Through a proxy, the connection to the proxy.
    int GetLastConnectionReused();
    /// The TLS version the latest libcurl transfer's connection spoke, as "TLSv1.3", "TLSv1.2",
    /// "TLSv1.1" or "TLSv1"; "" for plain HTTP, when it reached no server, or when the TLS library
    /// cannot tell. For https:// through a proxy, the version spoken with the origin server.
    std::string GetLastTlsVersion();

private:
    // The latest operation's report and the redirect settings, made on first use.
    http::TransferReport& Report();
    http::RedirectSettings& EditRedirects();
    // Clears status and failure text at the start of an operation (InitCurl).
    void BeginReport();
    // The library's own words for the latest operation's outcome ("" for none: a probe's time limit).
    void SetErrorText(std::string text);
    // The allowed schemes on the handle. False when libcurl refused the list.
    bool SetSchemeOptions();
    // The custom headers of the next hop: the caller's, or what a hop to another origin left of them.
    const std::vector<std::string>& RequestHeaders();
    // After a transfer that gave a response: 1 when a redirect is to be followed (url and method, an
    // EREQUEST_METHOD_tag value, are the next hop's), 0 when the response is final, -1 when the
    // redirect is refused (code and text set). hops counts the redirects followed so far. The method
    // is an int: a caller may hand ExecuteRequest a value outside the enumeration.
    int FollowRedirect(std::string& url, int& method, int& hops);
    // Ends a followed chain: the next operation starts from the caller's headers.
    void EndRedirects();
    // One transfer of a chain to url with method (an EREQUEST_METHOD_tag value); its result.
    using RedirectHop = std::function<int(const std::string& url, int method)>;
    // Runs hop at url, then at each redirect FollowRedirect takes, and ends the chain. The last
    // hop's result, or 0 when a redirect was refused.
    int FollowRedirects(std::string url, int method, const RedirectHop& hop);
    // One transfer of a request, redirects not followed.
    int RequestHop(EREQUEST_METHOD_tag method, const std::string& url, const std::string& proxy,
                   const std::string& postData, std::string& response);
    // One multipart post of an upload / one probe, redirects not followed.
    int PostFileOnce(const std::string& url, const std::string& proxy, const std::string& postData,
                     const std::string& filePath, std::string& response);
    void ProbeOnce(const std::string& url, int seconds);

    // The download and retry settings, or null when all are default / made on first change.
    const http::DownloadSettings* DownloadSettingsOrNull() const;
    http::DownloadSettings& EditDownloadSettings();
    // After a failed attempt: 1 when another follows (the wait is over), 0 when the result stands,
    // -1 when a stop ended the wait (m_resultCode is then CURLE_WRITE_ERROR).
    int WaitBeforeRetry(http::RetryClock& clock);
    // One attempt of ExecuteRequest / DownloadFile.
    int RequestOnce(EREQUEST_METHOD_tag method, const std::string& url, const std::string& proxy,
                    const std::string& postData, std::string& response);
    int DownloadOnce(const std::string& url, const std::string& filePath, const http::DownloadCheck& check);
    // Proxy choice (ProxyOptions.cpp): sets the proxy argument, or lists the system's choices when
    // there is none and the object asks for them. False when an option failed.
    bool SetProxyOptions(const std::string& url, const std::string& proxy);
    // curl_easy_perform, once, or on each listed proxy in turn until one is reached.
    CURLcode PerformThroughProxies();
    // The proxy part of this object's settings, made on first use.
    http::ProxySettings& EditProxy();

    // Options shared by requests and uploads, in their fixed order. false when one failed.
    bool SetRequestOptions(const std::string& url, const std::string& proxy);
    // The option table shared by a download and a speed probe: progress callback on, a fixed
    // limit of 1000 s, no custom headers, proxy or encoding. False at the first option that fails.
    bool SetFetchOptions(const std::string& url);
    // Empties what the previous transfer received.
    void BeginTransfer();
    // Makes room for `incoming` more body bytes, growing by what arrives, never past an announced length.
    void ReserveForBody(size_t incoming);
    // Options beyond the tables, set last: the shared cache unless switched off, and the trusted CA
    // of a verifying object. False at the first option that fails.
    bool SetShareAndTrustOptions();
    struct Settings;
    // This object's settings, made on first change: a null m_pSettings means every default.
    Settings& EditSettings();

    DWORD m_dwStartTime;
    DWORD m_dwEndTime;
    int32_t m_nSpeedTimeLimit;
    DWORD m_dwTotalSize;
    double m_dNetSpeed;
    bool m_bSpeedTestRunning;
    std::atomic<bool> m_bStopRequested; // written by Stop from another thread
    std::string m_strResponseHeaders;
    std::string m_strResponseBody;
    DWORD m_dwTimeOutMax;
    CURL* m_pCurl;
    CURLcode m_resultCode;
    curl_slist* m_pHeaderList;
    std::vector<std::string> m_vecCustomHeaders;
    ProgressObserver m_progressObserver;

    // Runs the transfer prepared on m_pCurl so that Stop() can end it, and uses the stop up; trims
    // the body's spare room. tellObserver: the transfer's option table installed CurlProgressCallback.
    CURLcode PerformStoppable(bool tellObserver);
    // libcurl's transfer-info callbacks, set beside the option tables: non-zero ends the transfer
    // when a stop is pending. The second also passes the figures to CurlProgressCallback.
    static int CurlStopCallback(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
    static int CurlStopProgressCallback(void* user, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                                        curl_off_t ulnow);

    // Settings added after the class's first layout (connection reuse, TLS verification, CA path)
    // live behind this one pointer, copied deeply with the object, so later settings can join them
    // without changing the class's size or layout. Keep it the last member.
    std::unique_ptr<Settings> m_pSettings;
};

} // namespace ZOTH
