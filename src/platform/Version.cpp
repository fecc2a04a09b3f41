// The version resource of PE images: from the DOS header to the PE headers, the section table, the
// resource tree (type 16, first name, first language) and the VS_VERSIONINFO block it points at.
// The file is read with bounded positional reads; nothing it says is believed before it is checked
// against the file's size.
#include "platform/FileObject.h"
#include "zoth/platform/Win32Version.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

using namespace ZOTH::platform;

namespace {

constexpr uint32_t kResourceTypeVersion = 16;
constexpr uint32_t kSubdirectoryBit = 0x80000000u;
constexpr size_t kFixedInfoOffset = 40; // 6 header bytes + "VS_VERSION_INFO" in UTF-16, aligned to 4
constexpr uint32_t kMaxSections = 96;   // what the Windows loader accepts

uint16_t U16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t U32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

class Image {
public:
    explicit Image(int fd, uint64_t size) : m_fd(fd), m_size(size) {}
    // Reads exactly `n` bytes at `offset`, or fails when they are not all inside the file.
    bool Read(uint64_t offset, void* out, size_t n) const {
        if (offset > m_size || n > m_size - offset) return false;
        size_t done = 0;
        while (done < n) {
            ssize_t got =
                ::pread(m_fd, static_cast<char*>(out) + done, n - done, static_cast<off_t>(offset + done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            done += static_cast<size_t>(got);
        }
        return true;
    }

private:
    int m_fd;
    uint64_t m_size;
};

struct Section {
    uint32_t virtualAddress, rawSize, rawPointer;
};

// File offset of `length` bytes at `rva`, which must lie inside one section's raw data.
bool RvaToOffset(const std::vector<Section>& sections, uint64_t rva, uint64_t length, uint64_t& offset) {
    for (const Section& s : sections) {
        if (rva < s.virtualAddress) continue;
        uint64_t into = rva - s.virtualAddress;
        if (into >= s.rawSize || length > s.rawSize - into) continue;
        offset = static_cast<uint64_t>(s.rawPointer) + into;
        return true;
    }
    return false;
}

// A block that starts with a VS_VERSIONINFO header whose value is a signed VS_FIXEDFILEINFO, within
// `size` bytes.
bool HasFixedInfo(const uint8_t* block, size_t size) {
    static const char kKey[] = "VS_VERSION_INFO";
    if (size < kFixedInfoOffset + sizeof(VS_FIXEDFILEINFO)) return false;
    size_t length = U16(block), valueLength = U16(block + 2);
    if (length > size || length < kFixedInfoOffset + sizeof(VS_FIXEDFILEINFO)) return false;
    if (valueLength < sizeof(VS_FIXEDFILEINFO)) return false;
    for (size_t i = 0; i < sizeof kKey; ++i)
        if (U16(block + 6 + 2 * i) != static_cast<uint8_t>(kKey[i])) return false;
    return U32(block + kFixedInfoOffset) == VS_FFI_SIGNATURE;
}

// One entry of a resource directory at `dirRva`: the first (or the one with id `wantedId`).
bool FindEntry(const Image& image, const std::vector<Section>& sections, uint64_t dirRva, bool byId,
               uint32_t wantedId, uint32_t& target) {
    uint8_t header[16];
    uint64_t offset;
    if (!RvaToOffset(sections, dirRva, sizeof header, offset) || !image.Read(offset, header, sizeof header))
        return false;
    uint32_t named = U16(header + 12), ids = U16(header + 14);
    uint32_t count = named + ids;
    if (count == 0) return false;
    if (!byId) count = 1; // the first entry, whatever its name
    std::vector<uint8_t> entries(static_cast<size_t>(count) * 8);
    if (!RvaToOffset(sections, dirRva + 16, entries.size(), offset) ||
        !image.Read(offset, entries.data(), entries.size()))
        return false;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t name = U32(&entries[i * 8]), data = U32(&entries[i * 8 + 4]);
        if (byId && ((name & kSubdirectoryBit) != 0 || name != wantedId)) continue;
        target = data;
        return true;
    }
    return false;
}

// The version block of the image, or the Win32 error that says why there is none.
DWORD ReadVersionBlock(const Image& image, std::vector<uint8_t>& block) {
    uint8_t dos[64];
    if (!image.Read(0, dos, sizeof dos) || dos[0] != 'M' || dos[1] != 'Z') return ERROR_BAD_FORMAT;
    uint64_t peOffset = U32(dos + 0x3C);
    uint8_t pe[24];
    if (!image.Read(peOffset, pe, sizeof pe) || std::memcmp(pe, "PE\0\0", 4) != 0) return ERROR_BAD_FORMAT;
    uint32_t sectionCount = U16(pe + 6), optionalSize = U16(pe + 20);
    std::vector<uint8_t> optional(optionalSize);
    if (optionalSize < 2 || !image.Read(peOffset + 24, optional.data(), optional.size()))
        return ERROR_BAD_FORMAT;
    size_t directories;
    switch (U16(optional.data())) {
    case 0x10B:
        directories = 96;
        break; // PE32
    case 0x20B:
        directories = 112;
        break; // PE32+
    default:
        return ERROR_BAD_FORMAT;
    }
    // The resource table is data directory 2.
    if (optionalSize < directories + 3 * 8 || U32(&optional[directories - 4]) < 3)
        return ERROR_RESOURCE_TYPE_NOT_FOUND;
    uint32_t resourceRva = U32(&optional[directories + 16]);
    if (resourceRva == 0 || U32(&optional[directories + 20]) == 0) return ERROR_RESOURCE_TYPE_NOT_FOUND;
    if (sectionCount == 0 || sectionCount > kMaxSections) return ERROR_BAD_FORMAT;

    std::vector<uint8_t> table(static_cast<size_t>(sectionCount) * 40);
    if (!image.Read(peOffset + 24 + optionalSize, table.data(), table.size())) return ERROR_BAD_FORMAT;
    std::vector<Section> sections;
    for (uint32_t i = 0; i < sectionCount; ++i) {
        const uint8_t* s = &table[i * 40];
        sections.push_back({U32(s + 12), U32(s + 16), U32(s + 20)});
    }

    // Three levels: type, name, language. Offsets are relative to the start of the resource table.
    uint32_t entry;
    if (!FindEntry(image, sections, resourceRva, true, kResourceTypeVersion, entry) ||
        !(entry & kSubdirectoryBit))
        return ERROR_RESOURCE_TYPE_NOT_FOUND;
    if (!FindEntry(image, sections, static_cast<uint64_t>(resourceRva) + (entry & ~kSubdirectoryBit), false,
                   0, entry) ||
        !(entry & kSubdirectoryBit))
        return ERROR_RESOURCE_TYPE_NOT_FOUND;
    if (!FindEntry(image, sections, static_cast<uint64_t>(resourceRva) + (entry & ~kSubdirectoryBit), false,
                   0, entry) ||
        (entry & kSubdirectoryBit))
        return ERROR_RESOURCE_TYPE_NOT_FOUND;

    uint8_t dataEntry[16];
    uint64_t offset;
    if (!RvaToOffset(sections, static_cast<uint64_t>(resourceRva) + entry, sizeof dataEntry, offset) ||
        !image.Read(offset, dataEntry, sizeof dataEntry))
        return ERROR_RESOURCE_TYPE_NOT_FOUND;
    uint32_t dataRva = U32(dataEntry), dataSize = U32(dataEntry + 4);
    // A version block's own length field has 16 bits, so more is never needed.
    if (dataSize > 0xFFFF) dataSize = 0xFFFF;
    block.resize(dataSize);
    if (!RvaToOffset(sections, dataRva, dataSize, offset) || !image.Read(offset, block.data(), block.size()))
        return ERROR_RESOURCE_TYPE_NOT_FOUND;
    if (!HasFixedInfo(block.data(), block.size())) return ERROR_RESOURCE_TYPE_NOT_FOUND;
    block.resize(U16(block.data()));
    return ERROR_SUCCESS;
}

DWORD ReadVersionBlock(LPCSTR name, std::vector<uint8_t>& block) {
    if (name == nullptr) return ERROR_INVALID_PARAMETER;
    int fd = ::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return GetLastError();
    }
    struct stat st;
    DWORD error = ERROR_BAD_FORMAT;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        error = ReadVersionBlock(Image(fd, static_cast<uint64_t>(st.st_size)), block);
    ::close(fd);
    return error;
}

} // namespace

DWORD GetFileVersionInfoSizeA(LPCSTR name, LPDWORD handle) {
    if (handle != nullptr) *handle = 0;
    std::vector<uint8_t> block;
    DWORD error = ReadVersionBlock(name, block);
    SetLastError(error);
    return error == ERROR_SUCCESS ? static_cast<DWORD>(block.size()) : 0;
}

BOOL GetFileVersionInfoA(LPCSTR name, DWORD, DWORD length, LPVOID data) {
    std::vector<uint8_t> block;
    DWORD error = data == nullptr ? ERROR_INVALID_PARAMETER : ReadVersionBlock(name, block);
    if (error == ERROR_SUCCESS && length < block.size()) error = ERROR_INSUFFICIENT_BUFFER;
    SetLastError(error);
    if (error != ERROR_SUCCESS) return FALSE;
    std::memcpy(data, block.data(), block.size());
    return TRUE;
}

BOOL VerQueryValueA(LPCVOID block, LPCSTR subBlock, LPVOID* value, PUINT length) {
    if (block == nullptr || subBlock == nullptr || value == nullptr || length == nullptr) return FALSE;
    if (std::strcmp(subBlock, "\\") != 0 && std::strcmp(subBlock, "/") != 0) return FALSE;
    const auto* bytes = static_cast<const uint8_t*>(block);
    // The block's own length bounds every read; a block from GetFileVersionInfoA holds all of it.
    if (!HasFixedInfo(bytes, U16(bytes))) return FALSE;
    *value = const_cast<uint8_t*>(bytes + kFixedInfoOffset);
    *length = sizeof(VS_FIXEDFILEINFO);
    return TRUE;
}
