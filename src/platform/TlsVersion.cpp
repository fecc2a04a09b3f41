// The TLS version of a libcurl connection on Linux: libcurl is built on OpenSSL here.
#include "platform/TlsVersion.h"

#include <openssl/ssl.h>

namespace ZOTH::platform {

const char* TlsVersionOf(const curl_tlssessioninfo& session) {
    if (session.backend != CURLSSLBACKEND_OPENSSL || session.internals == nullptr) return "";
    // A static string of OpenSSL's ("TLSv1.3"); "unknown" is no answer.
    const char* version = SSL_get_version(static_cast<const SSL*>(session.internals));
    return version != nullptr && version[0] == 'T' ? version : "";
}

} // namespace ZOTH::platform
