// StreamDigest over the CNG hash calls (Windows' own; OpenSSL's libcrypto behind the platform layer
// elsewhere).
#include "text/StreamDigest.h"

#include "zoth/platform/Win32Crypt.h"

#include <algorithm>
#include <cctype>

namespace ZOTH::text {

DigestKind DigestKindByName(const std::string& name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "sha256" || lower == "sha-256") return DigestKind::Sha256;
    if (lower == "md5") return DigestKind::Md5;
    return DigestKind::None;
}

size_t DigestHexLength(DigestKind kind) {
    switch (kind) {
    case DigestKind::Sha256:
        return 64;
    case DigestKind::Md5:
        return 32;
    default:
        return 0;
    }
}

StreamDigest::StreamDigest(DigestKind kind) : m_kind(kind) {
    if (kind == DigestKind::None) return;
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    LPCWSTR name = kind == DigestKind::Sha256 ? BCRYPT_SHA256_ALGORITHM : BCRYPT_MD5_ALGORITHM;
    m_failed = !BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, name, nullptr, 0));
    if (!m_failed) {
        m_algorithm = algorithm;
        m_failed = !BCRYPT_SUCCESS(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0));
        if (!m_failed) m_hash = hash;
    }
}

StreamDigest::~StreamDigest() {
    if (m_hash != nullptr) BCryptDestroyHash(m_hash);
    if (m_algorithm != nullptr) BCryptCloseAlgorithmProvider(m_algorithm, 0);
}

void StreamDigest::Update(const void* data, size_t length) {
    if (m_hash == nullptr || m_failed) return;
    auto* bytes = static_cast<unsigned char*>(const_cast<void*>(data));
    // The calls take a 32-bit length: larger pieces go in parts.
    constexpr size_t kMaxPiece = size_t{1} << 30;
    while (length > 0 && !m_failed) {
        const size_t piece = std::min(length, kMaxPiece);
        m_failed = !BCRYPT_SUCCESS(BCryptHashData(m_hash, bytes, static_cast<ULONG>(piece), 0));
        bytes += piece;
        length -= piece;
    }
}

std::string StreamDigest::FinishHex() {
    if (m_hash == nullptr || m_failed) return "";
    unsigned char digest[32];
    const ULONG size = static_cast<ULONG>(DigestHexLength(m_kind) / 2);
    m_failed = !BCRYPT_SUCCESS(BCryptFinishHash(m_hash, digest, size, 0));
    if (m_failed) return "";
    m_failed = true; // a finished hash takes no more
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * size);
    for (ULONG i = 0; i < size; ++i) {
        hex.push_back(kDigits[digest[i] >> 4]);
        hex.push_back(kDigits[digest[i] & 15]);
    }
    return hex;
}

} // namespace ZOTH::text
