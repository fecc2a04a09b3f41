// The CNG hash calls over OpenSSL's libcrypto (the library libcurl already loads): an algorithm
// handle is a static description, a hash handle owns one EVP digest context.
#include "zoth/platform/Win32Crypt.h"

#include <openssl/evp.h>

#include <cwchar>

namespace {

// What an algorithm handle points to: one of two constant records, never freed.
struct Algorithm {
    const wchar_t* name;
    const EVP_MD* (*md)();
    ULONG digestLength;
};
const Algorithm kAlgorithms[] = {
    {BCRYPT_SHA256_ALGORITHM, &EVP_sha256, 32},
    {BCRYPT_MD5_ALGORITHM, &EVP_md5, 16},
};

struct Hash {
    EVP_MD_CTX* context;
    ULONG digestLength;
};

} // namespace

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR algId, LPCWSTR implementation,
                                     ULONG flags) {
    if (algorithm == nullptr || algId == nullptr || implementation != nullptr || flags != 0)
        return STATUS_INVALID_PARAMETER;
    for (const Algorithm& a : kAlgorithms) {
        if (std::wcscmp(a.name, algId) == 0) {
            *algorithm = const_cast<Algorithm*>(&a);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_NOT_FOUND;
}

NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags) {
    if (algorithm == nullptr || flags != 0) return STATUS_INVALID_HANDLE;
    return STATUS_SUCCESS; // the records are static
}

NTSTATUS BCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE* hash, PUCHAR object,
                          ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    if (algorithm == nullptr || hash == nullptr) return STATUS_INVALID_HANDLE;
    if (object != nullptr || objectLength != 0 || secret != nullptr || secretLength != 0 || flags != 0)
        return STATUS_NOT_SUPPORTED;
    const auto* a = static_cast<const Algorithm*>(algorithm);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr) return STATUS_NO_MEMORY;
    if (EVP_DigestInit_ex(context, a->md(), nullptr) != 1) {
        EVP_MD_CTX_free(context);
        return STATUS_NOT_SUPPORTED;
    }
    *hash = new Hash{context, a->digestLength};
    return STATUS_SUCCESS;
}

NTSTATUS BCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG length, ULONG flags) {
    auto* h = static_cast<Hash*>(hash);
    if (h == nullptr || h->context == nullptr) return STATUS_INVALID_HANDLE;
    if (flags != 0 || (input == nullptr && length != 0)) return STATUS_INVALID_PARAMETER;
    if (length != 0 && EVP_DigestUpdate(h->context, input, length) != 1) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

NTSTATUS BCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG length, ULONG flags) {
    auto* h = static_cast<Hash*>(hash);
    if (h == nullptr || h->context == nullptr) return STATUS_INVALID_HANDLE;
    if (output == nullptr || length != h->digestLength || flags != 0) return STATUS_INVALID_PARAMETER;
    unsigned int written = 0;
    const bool done = EVP_DigestFinal_ex(h->context, output, &written) == 1 && written == length;
    // Finished, the hash takes no more data, as CNG's does.
    EVP_MD_CTX_free(h->context);
    h->context = nullptr;
    return done ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS BCryptDestroyHash(BCRYPT_HASH_HANDLE hash) {
    auto* h = static_cast<Hash*>(hash);
    if (h == nullptr) return STATUS_INVALID_HANDLE;
    if (h->context != nullptr) EVP_MD_CTX_free(h->context);
    delete h;
    return STATUS_SUCCESS;
}
