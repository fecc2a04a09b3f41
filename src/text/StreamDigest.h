// A digest of a message that arrives in pieces (a file read in chunks, a download as it streams),
// SHA-256 or MD5, through the platform's hash calls.
#pragma once

#include <cstddef>
#include <string>

namespace ZOTH::text {

enum class DigestKind { None, Sha256, Md5 };

// "sha256" or "md5" (any case) -> its kind; None for any other name.
DigestKind DigestKindByName(const std::string& name);
// The number of hex digits of a digest of `kind`: 64, 32, or 0 for None.
size_t DigestHexLength(DigestKind kind);

class StreamDigest {
public:
    // A new message of `kind`; None makes a digest that takes nothing and finishes as "".
    explicit StreamDigest(DigestKind kind);
    ~StreamDigest();
    StreamDigest(const StreamDigest&) = delete;
    StreamDigest& operator=(const StreamDigest&) = delete;

    // Takes `length` more bytes, of any size.
    void Update(const void* data, size_t length);
    // Ends the message: its digest in lower-case hex, or "" when the kind is None or a call failed.
    std::string FinishHex();

private:
    DigestKind m_kind;
    void* m_algorithm = nullptr;
    void* m_hash = nullptr;
    bool m_failed = false;
};

} // namespace ZOTH::text
