// The CNG hash calls over libcrypto: NIST's answers, any split of a message, and the calls' refusals.
#include "zoth/platform/Win32Crypt.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// The digest of `message` fed in pieces of `piece` bytes, in hex; "" when a call failed.
std::string Digest(LPCWSTR algorithm, ULONG size, const std::string& message, size_t piece) {
    BCRYPT_ALG_HANDLE alg = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&alg, algorithm, nullptr, 0))) return "";
    std::string hex;
    if (BCRYPT_SUCCESS(BCryptCreateHash(alg, &hash, nullptr, 0, nullptr, 0, 0))) {
        bool ok = true;
        for (size_t at = 0; ok && at < message.size(); at += piece) {
            const size_t n = std::min(piece, message.size() - at);
            ok = BCRYPT_SUCCESS(
                BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(message.data() + at)),
                               static_cast<ULONG>(n), 0));
        }
        unsigned char out[32];
        if (ok && BCRYPT_SUCCESS(BCryptFinishHash(hash, out, size, 0))) {
            char two[3];
            for (ULONG i = 0; i < size; ++i) {
                std::snprintf(two, sizeof two, "%02x", out[i]);
                hex += two;
            }
        }
        EXPECT_EQ(BCryptDestroyHash(hash), STATUS_SUCCESS);
    }
    EXPECT_EQ(BCryptCloseAlgorithmProvider(alg, 0), STATUS_SUCCESS);
    return hex;
}

} // namespace

TEST(PlatformDigest, KnownAnswersInAnySplit) {
    const std::string million(1000000, 'a');
    const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const struct {
        bool sha256;
        const std::string* message;
        const char* hex;
    } cases[] = {
        {true, &million, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        {true, &twoBlocks, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {false, &million, "7707d6ae4e027c70eea2a935c2296f21"},
        {false, &twoBlocks, "8215ef0796a20bcaaae116d3876c664a"},
    };
    for (const auto& c : cases) {
        for (size_t piece : {size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{4096}, size_t{1} << 20}) {
            SCOPED_TRACE(std::string(c.hex) + " piece " + std::to_string(piece));
            if (piece == 1 && c.message->size() > 100000) continue; // a million calls add nothing
            EXPECT_EQ(Digest(c.sha256 ? BCRYPT_SHA256_ALGORITHM : BCRYPT_MD5_ALGORITHM, c.sha256 ? 32 : 16,
                             *c.message, piece),
                      c.hex);
        }
    }
    EXPECT_EQ(Digest(BCRYPT_SHA256_ALGORITHM, 32, "", 1),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(PlatformDigest, RefusalsAndAFinishedHash) {
    BCRYPT_ALG_HANDLE alg = nullptr;
    EXPECT_EQ(BCryptOpenAlgorithmProvider(&alg, L"SHA1024", nullptr, 0), STATUS_NOT_FOUND);
    EXPECT_EQ(BCryptOpenAlgorithmProvider(nullptr, BCRYPT_SHA256_ALGORITHM, nullptr, 0),
              STATUS_INVALID_PARAMETER);
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&alg, BCRYPT_SHA256_ALGORITHM, nullptr, 0), STATUS_SUCCESS);
    unsigned char object[64], out[32];
    BCRYPT_HASH_HANDLE hash = nullptr;
    // The layer keeps the state itself: a caller's object buffer is refused.
    EXPECT_EQ(BCryptCreateHash(alg, &hash, object, sizeof object, nullptr, 0, 0), STATUS_NOT_SUPPORTED);
    ASSERT_EQ(BCryptCreateHash(alg, &hash, nullptr, 0, nullptr, 0, 0), STATUS_SUCCESS);
    unsigned char abc[] = {'a', 'b', 'c'};
    EXPECT_EQ(BCryptHashData(hash, abc, 3, 0), STATUS_SUCCESS);
    EXPECT_EQ(BCryptHashData(hash, nullptr, 5, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BCryptFinishHash(hash, out, 16, 0), STATUS_INVALID_PARAMETER); // SHA-256 has 32 bytes
    ASSERT_EQ(BCryptFinishHash(hash, out, 32, 0), STATUS_SUCCESS);
    EXPECT_EQ(out[0], 0xba);
    EXPECT_EQ(out[31], 0xad);
    // A finished hash takes nothing more.
    EXPECT_EQ(BCryptHashData(hash, abc, 3, 0), STATUS_INVALID_HANDLE);
    EXPECT_EQ(BCryptFinishHash(hash, out, 32, 0), STATUS_INVALID_HANDLE);
    EXPECT_EQ(BCryptDestroyHash(hash), STATUS_SUCCESS);
    EXPECT_EQ(BCryptCloseAlgorithmProvider(alg, 0), STATUS_SUCCESS);
}
