// The TLS version of a libcurl connection on Windows: libcurl is built on Schannel, whose context
// tells the protocol it negotiated.
#include "platform/TlsVersion.h"

#define SECURITY_WIN32
#include <windows.h>

#include <schannel.h>
#include <security.h>

namespace ZOTH::platform {

const char* TlsVersionOf(const curl_tlssessioninfo& session) {
    if (session.backend != CURLSSLBACKEND_SCHANNEL || session.internals == nullptr) return "";
    SecPkgContext_ConnectionInfo info{};
    if (QueryContextAttributesA(static_cast<PCtxtHandle>(session.internals), SECPKG_ATTR_CONNECTION_INFO,
                                &info) != SEC_E_OK)
        return "";
    // The same names as OpenSSL's, so both builds print alike.
    if (info.dwProtocol & SP_PROT_TLS1_3_CLIENT) return "TLSv1.3";
    if (info.dwProtocol & SP_PROT_TLS1_2_CLIENT) return "TLSv1.2";
    if (info.dwProtocol & SP_PROT_TLS1_1_CLIENT) return "TLSv1.1";
    if (info.dwProtocol & SP_PROT_TLS1_0_CLIENT) return "TLSv1";
    return "";
}

} // namespace ZOTH::platform
