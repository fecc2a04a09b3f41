// The TLS protocol version of a libcurl connection, read from its TLS library's session.
#pragma once

#include <curl/curl.h>

namespace ZOTH::platform {

// The version `session` negotiated, as OpenSSL names it ("TLSv1.3", "TLSv1.2", ...); "" when the
// session is absent or its TLS library is not one this build reads (OpenSSL here, Schannel on
// Windows). Valid only while the connection is in use by a transfer (from libcurl's callbacks).
const char* TlsVersionOf(const curl_tlssessioninfo& session);

} // namespace ZOTH::platform
