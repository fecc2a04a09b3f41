// A digest of bytes in memory, computed by the system's own crypto rather than the library's code:
// OpenSSL's libcrypto on Linux, CNG (BCrypt) on Windows. The download tests name it as the digest a
// file must have. Test programs that include this link libcrypto (Linux) or bcrypt (Windows).
#pragma once

#if defined(_WIN32)
#include <windows.h>

#include <bcrypt.h>
#else
#include <openssl/evp.h>
#endif

#include <string>
#include <vector>

namespace zoth_test {

// The "sha256" or "md5" digest of `data` in lower-case hex; "" for another algorithm or a failure.
inline std::string HexDigest(const std::string& algorithm, const std::string& data) {
    std::vector<unsigned char> out;
#if defined(_WIN32)
    const wchar_t* name = algorithm == "sha256" ? BCRYPT_SHA256_ALGORITHM
                          : algorithm == "md5"  ? BCRYPT_MD5_ALGORITHM
                                                : nullptr;
    BCRYPT_ALG_HANDLE provider = nullptr;
    if (name == nullptr || BCryptOpenAlgorithmProvider(&provider, name, nullptr, 0) != 0) return "";
    out.resize(algorithm == "sha256" ? 32 : 16);
    const bool ok =
        BCryptHash(provider, nullptr, 0, reinterpret_cast<unsigned char*>(const_cast<char*>(data.data())),
                   static_cast<ULONG>(data.size()), out.data(), static_cast<ULONG>(out.size())) == 0;
    BCryptCloseAlgorithmProvider(provider, 0);
    if (!ok) return "";
#else
    const EVP_MD* md = algorithm == "sha256" ? EVP_sha256() : algorithm == "md5" ? EVP_md5() : nullptr;
    if (md == nullptr) return "";
    out.resize(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), out.data(), &length, md, nullptr) != 1) return "";
    out.resize(length);
#endif
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : out) {
        hex.push_back(kDigits[c >> 4]);
        hex.push_back(kDigits[c & 15]);
    }
    return hex;
}

} // namespace zoth_test
