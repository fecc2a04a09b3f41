// The layer's PE version reader on images the test builds, and on damaged ones.
#include "../file/PeBuilder.h"
#include "TempDir.h"
#include "zoth/platform/Win32Version.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

namespace {

void Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The file version as "a.b.c.d" through the three calls, or "" when any of them fails.
std::string ReadVersion(const std::string& path) {
    DWORD handle = 7;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &handle);
    if (size == 0) return "";
    EXPECT_EQ(handle, 0u);
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data())) return "";
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(block.data(), "\\", reinterpret_cast<LPVOID*>(&info), &length)) return "";
    EXPECT_EQ(length, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(info->dwSignature, VS_FFI_SIGNATURE);
    return std::to_string(info->dwFileVersionMS >> 16) + "." +
           std::to_string(info->dwFileVersionMS & 0xFFFF) + "." +
           std::to_string(info->dwFileVersionLS >> 16) + "." + std::to_string(info->dwFileVersionLS & 0xFFFF);
}

} // namespace

TEST(PlatformVersion, ReadsBuiltImages) {
    zoth_test::TempDir dir;
    Write(dir / "a.dll", zoth_test::BuildPe({10, 0, 19041, 1, false}));
    EXPECT_EQ(ReadVersion(dir / "a.dll"), "10.0.19041.1");
    Write(dir / "b.exe", zoth_test::BuildPe({65535, 2, 0, 65535, true}));
    EXPECT_EQ(ReadVersion(dir / "b.exe"), "65535.2.0.65535");

    // A buffer smaller than the block is refused rather than filled halfway.
    DWORD size = GetFileVersionInfoSizeA((dir / "a.dll").c_str(), nullptr);
    std::vector<char> block(size, 'z');
    EXPECT_FALSE(GetFileVersionInfoA((dir / "a.dll").c_str(), 0, size - 1, block.data()));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(block[0], 'z');
    ASSERT_TRUE(GetFileVersionInfoA((dir / "a.dll").c_str(), 0, size, block.data()));
    LPVOID value = nullptr;
    UINT length = 0;
    EXPECT_TRUE(VerQueryValueA(block.data(), "/", &value, &length));
    EXPECT_FALSE(VerQueryValueA(block.data(), "\\StringFileInfo", &value, &length));
    block[0] = 10; // a block that claims to be shorter than its fixed information
    EXPECT_FALSE(VerQueryValueA(block.data(), "\\", &value, &length));
}

TEST(PlatformVersion, FilesWithoutVersionGiveNothing) {
    zoth_test::TempDir dir;
    EXPECT_EQ(GetFileVersionInfoSizeA((dir / "missing").c_str(), nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetFileVersionInfoSizeA(dir.Path().c_str(), nullptr), 0u);
    Write(dir / "text", "just some text that is long enough to hold a DOS header, or so it might seem......");
    EXPECT_EQ(GetFileVersionInfoSizeA((dir / "text").c_str(), nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_BAD_FORMAT);
    Write(dir / "empty", "");
    EXPECT_EQ(ReadVersion(dir / "empty"), "");
    // The running ELF program has no version resource.
    EXPECT_EQ(GetFileVersionInfoSizeA("/proc/self/exe", nullptr), 0u);

    // A PE image without a resource table.
    std::string image = zoth_test::BuildPe();
    zoth_test::PutU32(image, zoth_test::kPeHeaderOffset + 24 + 96 + 16, 0);
    Write(dir / "nores.dll", image);
    EXPECT_EQ(GetFileVersionInfoSizeA((dir / "nores.dll").c_str(), nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_RESOURCE_TYPE_NOT_FOUND);
}

TEST(PlatformVersion, DamagedImagesNeverReadOutside) {
    zoth_test::TempDir dir;
    const std::string good = zoth_test::BuildPe({4, 3, 2, 1, false});
    std::string path = dir / "x.dll";

    // Every truncation loses the version.
    for (size_t n = 0; n < good.size(); ++n) {
        Write(path, good.substr(0, n));
        ASSERT_EQ(ReadVersion(path), "") << "cut at " << n;
    }

    // Offsets and sizes that point past the file, and a missing signature.
    struct Damage {
        size_t at;
        uint32_t value;
    } damages[] = {
        {0x3C, 0xFFFFFFF0u},                                    // PE header past the end
        {zoth_test::kPeSectionTableOffset32 + 20, 0x7FFFFFFFu}, // raw data past the end
        {zoth_test::kPeResourceOffset + 20, 0x8000FFF0u},       // name directory outside the section
        {zoth_test::kPeDataEntryOffset, 0xFFFFFFF0u},           // data RVA wraps around
        {zoth_test::kPeDataEntryOffset + 4, 0xFFFFFFFFu},       // data size beyond the section
        {zoth_test::kPeBlockOffset, 0x00340FFFu},               // block length beyond the data
        {zoth_test::kPeFixedInfoOffset, 0x12345678u},           // signature
        {zoth_test::kPeBlockOffset + 6, 0x00410041u},           // key text
        {zoth_test::kPeResourceOffset + 16, 17u},               // no type 16
        {zoth_test::kPeResourceOffset + 20, 0x48u},             // type entry that is no directory
    };
    for (const Damage& d : damages) {
        std::string image = good;
        zoth_test::PutU32(image, d.at, d.value);
        Write(path, image);
        EXPECT_EQ(ReadVersion(path), "") << "damage at " << d.at;
    }

    // Any single byte set to 0x00 or 0xFF either leaves a version or none, and never crashes.
    int readable = 0;
    for (size_t at = 0; at < good.size(); ++at) {
        for (char value : {'\0', '\xff'}) {
            std::string image = good;
            image[at] = value;
            Write(path, image);
            if (!ReadVersion(path).empty()) ++readable;
        }
    }
    EXPECT_GT(readable, 0); // bytes outside the parsed structures do not matter
}
