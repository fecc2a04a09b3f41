// Fuzzes the PE version reader through its public calls. Each input is read twice: as a whole file,
// and as patches (two bytes of offset, one byte of value) applied to a valid built image, so the
// fuzzer reaches the deep structures of the format from its first run.
#include "../tests/file/PeBuilder.h"
#include "zoth/platform/Win32Version.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

int MemoryFile() {
    static int fd = ::memfd_create("pe_version", 0);
    return fd;
}

void ReadVersion(const std::string& bytes) {
    int fd = MemoryFile();
    if (fd < 0 || ::ftruncate(fd, 0) != 0) std::abort();
    if (!bytes.empty() && ::pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        std::abort();
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &handle);
    if (size == 0) return;
    if (size > 0xFFFF) std::abort(); // a version block's length has 16 bits
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data())) std::abort(); // the size was just given
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(block.data(), "\\", reinterpret_cast<LPVOID*>(&info), &length)) std::abort();
    if (length != sizeof(VS_FIXEDFILEINFO) || info->dwSignature != VS_FFI_SIGNATURE) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ReadVersion(std::string(reinterpret_cast<const char*>(data), size));

    static const std::string base32 = zoth_test::BuildPe({1, 2, 3, 4, false});
    static const std::string base64 = zoth_test::BuildPe({5, 6, 7, 8, true});
    std::string image = (size % 2 == 0) ? base32 : base64;
    for (size_t i = 0; i + 3 <= size; i += 3) {
        size_t at = (static_cast<size_t>(data[i]) | (static_cast<size_t>(data[i + 1]) << 8)) % image.size();
        image[at] = static_cast<char>(data[i + 2]);
    }
    if (size % 3 == 1) image.resize(image.size() - data[size - 1] % 64); // sometimes cut the end
    ReadVersion(image);
    return 0;
}
