// Trust options per TLS backend. OpenSSL reads a CA folder by itself (CURLOPT_CAPATH); Schannel has
// no such option (libcurl answers CURLE_NOT_BUILT_IN even to clearing it), so there the folder's
// certificates are read here and handed over as one PEM blob.

#include "http/TlsTrust.h"

#include "http/CurlOption.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace ZOTH::http {

namespace {

// Files bigger than this are no certificate bundle a folder of CAs would hold.
constexpr std::uintmax_t kMaxCertificateFile = 4 << 20;

// Whether libcurl's TLS is Schannel, which takes CA files and blobs but no CA folder.
bool TlsIsSchannel() {
    static const bool schannel = [] {
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        return info != nullptr && info->ssl_version != nullptr &&
               std::string(info->ssl_version).rfind("Schannel", 0) == 0;
    }();
    return schannel;
}

} // namespace

std::string CertificatesOfFolder(const std::string& folder) {
    static const std::string kBegin = "-----BEGIN CERTIFICATE-----", kEnd = "-----END CERTIFICATE-----";
    std::error_code ec;
    std::filesystem::directory_iterator it(folder, ec), end;
    std::set<std::string> seen; // a hashed folder names each certificate twice: its file and a link
    std::string bundle;
    for (; !ec && it != end; it.increment(ec)) {
        std::error_code fileError;
        if (!it->is_regular_file(fileError) || it->file_size(fileError) > kMaxCertificateFile || fileError)
            continue;
        std::ifstream in(it->path(), std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        const std::string text = content.str();
        for (size_t at = text.find(kBegin); at != std::string::npos; at = text.find(kBegin, at)) {
            const size_t stop = text.find(kEnd, at);
            if (stop == std::string::npos) break;
            std::string certificate = text.substr(at, stop + kEnd.size() - at) + "\n";
            at = stop + kEnd.size();
            if (seen.insert(certificate).second) bundle += certificate;
        }
    }
    return bundle;
}

namespace {

// The trust options of one side of a transfer: the origin server's, or an https:// proxy's.
struct TrustOptions {
    CURLoption sslOptions, caInfo, caPath, caInfoBlob;
};
constexpr TrustOptions kOrigin{CURLOPT_SSL_OPTIONS, CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_CAINFO_BLOB};
constexpr TrustOptions kProxy{CURLOPT_PROXY_SSL_OPTIONS, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH,
                              CURLOPT_PROXY_CAINFO_BLOB};

bool SetTrust(CURL* c, CURLcode& r, const std::string& caPath, const TrustOptions& o) {
    // Revocation: Schannel checks it by default and fails where a CA publishes no list or its list
    // cannot be reached (a private CA, an offline machine); best effort still refuses a certificate
    // that is listed as revoked. Other backends ignore the flag.
    const long revoke = CURLSSLOPT_REVOKE_BEST_EFFORT;
    if (caPath.empty()) // the system's store: the native one where libcurl has it
        return SetCurlOption(c, r, o.sslOptions, static_cast<long>(CURLSSLOPT_NATIVE_CA) | revoke);
    if (!SetCurlOption(c, r, o.sslOptions, revoke)) return false;
    std::error_code ec;
    const bool folder = std::filesystem::is_directory(caPath, ec);
    if (!TlsIsSchannel()) {
        // Instead of the system's store: the default of the option not given is unset.
        return folder ? SetCurlOption(c, r, o.caPath, caPath.c_str()) &&
                            SetCurlOption(c, r, o.caInfo, static_cast<const char*>(nullptr))
                      : SetCurlOption(c, r, o.caInfo, caPath.c_str()) &&
                            SetCurlOption(c, r, o.caPath, static_cast<const char*>(nullptr));
    }
    if (!folder) return SetCurlOption(c, r, o.caInfo, caPath.c_str());
    const std::string bundle = CertificatesOfFolder(caPath);
    if (bundle.empty()) {
        r = CURLE_SSL_CACERT_BADFILE;
        return false;
    }
    curl_blob blob{const_cast<char*>(bundle.data()), bundle.size(), CURL_BLOB_COPY};
    return SetCurlOption(c, r, o.caInfoBlob, &blob);
}

} // namespace

bool SetTrustOptions(CURL* c, CURLcode& r, const std::string& caPath) {
    return SetTrust(c, r, caPath, kOrigin);
}

bool SetProxyTrustOptions(CURL* c, CURLcode& r, const std::string& caPath) {
    return caPath.empty() || SetTrust(c, r, caPath, kProxy);
}

} // namespace ZOTH::http
