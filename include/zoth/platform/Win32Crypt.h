/// \file
/// The CNG hash calls (bcrypt.h) the library digests with: SHA-256 and MD5, one message piece by
/// piece. On Windows they come from <bcrypt.h>; elsewhere the platform layer implements them over
/// OpenSSL's libcrypto. Only what the library uses is provided: no HMAC, no object buffers (pass
/// nullptr and 0), no reusable hashes.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <bcrypt.h>
#else

typedef LONG NTSTATUS;
typedef unsigned long ULONG;
typedef unsigned char UCHAR;
typedef UCHAR* PUCHAR;
typedef void* BCRYPT_HANDLE;
typedef void* BCRYPT_ALG_HANDLE;
typedef void* BCRYPT_HASH_HANDLE;

#define BCRYPT_SHA256_ALGORITHM L"SHA256"
#define BCRYPT_MD5_ALGORITHM L"MD5"
#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_NOT_FOUND ((NTSTATUS)0xC0000225L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_INVALID_HANDLE ((NTSTATUS)0xC0000008L)
#define STATUS_NO_MEMORY ((NTSTATUS)0xC0000017L)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define BCRYPT_SUCCESS(status) (((NTSTATUS)(status)) >= 0)

/// Opens the algorithm `algorithm` names (BCRYPT_SHA256_ALGORITHM or BCRYPT_MD5_ALGORITHM);
/// `implementation` must be null and `flags` 0. STATUS_NOT_FOUND for any other name.
ZOTH_API NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR algId,
                                              LPCWSTR implementation, ULONG flags);
/// Releases an algorithm handle; `flags` must be 0.
ZOTH_API NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags);
/// Starts a message of `algorithm`. The object buffer and the secret must be null with length 0
/// (the layer owns the state), `flags` 0.
ZOTH_API NTSTATUS BCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE* hash, PUCHAR object,
                                   ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags);
/// Takes `length` more bytes of the message.
ZOTH_API NTSTATUS BCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG length, ULONG flags);
/// Ends the message and writes its digest, whose size `length` must be exactly (32 or 16 bytes).
ZOTH_API NTSTATUS BCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG length, ULONG flags);
/// Releases a hash handle, finished or not.
ZOTH_API NTSTATUS BCryptDestroyHash(BCRYPT_HASH_HANDLE hash);

#endif
