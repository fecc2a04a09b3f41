// Which certificates a verifying transfer trusts, on whichever TLS backend libcurl was built with
// (OpenSSL on Linux, Windows' Schannel in the Windows build).
#pragma once

#include <curl/curl.h>

#include <string>

namespace ZOTH::http {

// Sets the trust options of a verifying transfer: an empty caPath trusts the system's store, a file
// its PEM certificates, a folder the PEM certificates of the files in it. false (with the code in
// result) when libcurl refused an option, or CURLE_SSL_CACERT_BADFILE when a folder holds none.
bool SetTrustOptions(CURL* curl, CURLcode& result, const std::string& caPath);

// The same for an https:// proxy's own certificate, when a CA is given; an empty caPath leaves the
// proxy's trust at libcurl's default (the system's store).
bool SetProxyTrustOptions(CURL* curl, CURLcode& result, const std::string& caPath);

// The distinct PEM certificates of the regular files directly in folder, one after another; empty
// when there are none or the folder cannot be read.
std::string CertificatesOfFolder(const std::string& folder);

} // namespace ZOTH::http
