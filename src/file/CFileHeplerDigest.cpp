// The file form of SHA-256: the file read once in chunks, in constant memory.
#include "zoth/file/CFileHepler.h"
#include "zoth/platform/Win32File.h"

#include "text/StreamDigest.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace ZOTH {

std::string CFileHepler::GetFileSha256(const std::string& path) {
    // 256 KiB: the digest costs far more per byte than the read, so fewer calls win a little.
    constexpr DWORD kChunk = 256u << 10;
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "";
    std::unique_ptr<unsigned char[]> chunk(new unsigned char[kChunk]);
    text::StreamDigest digest(text::DigestKind::Sha256);
    LARGE_INTEGER size;
    bool ok = GetFileSizeEx(file, &size) != FALSE;
    // The bytes the size announced at the start, all of them: a file that ends early fails.
    for (uint64_t left = ok ? static_cast<uint64_t>(size.QuadPart) : 0; ok && left > 0;) {
        const DWORD count = static_cast<DWORD>(std::min<uint64_t>(left, kChunk));
        DWORD read = 0;
        ok = ReadFile(file, chunk.get(), count, &read, nullptr) && read == count;
        if (ok) digest.Update(chunk.get(), count);
        left -= count;
    }
    CloseHandle(file);
    return ok ? digest.FinishHex() : "";
}

} // namespace ZOTH
