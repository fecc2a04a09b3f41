// The layer's PE version reader on images the test builds, and on damaged ones: 0 or empty, no crash.
#include "../file/PeBuilder.h"
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32Version.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

namespace {

void Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// The file version as "a.b.c.d" through the three calls, or "" when any of them fails.
std::string ReadVersion(const std::string& path) {
    DWORD handle = 7;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &handle);
    if (size == 0) return "";
    EXPECT_EQ(handle, 0u);
    std::vector<char> block(size);
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data()) ||
        !VerQueryValueA(block.data(), "\\", reinterpret_cast<LPVOID*>(&info), &length))
        return "";
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
    EXPECT_FAILS_WITH(GetFileVersionInfoA((dir / "a.dll").c_str(), 0, size - 1, block.data()), FALSE,
                      ERROR_INSUFFICIENT_BUFFER);
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
    std::string noResources = zoth_test::BuildPe();
    zoth_test::PutU32(noResources, zoth_test::kPeHeaderOffset + 24 + 96 + 16, 0);
    Write(dir / "text", "just some text that is long enough to hold a DOS header, or so it might seem......");
    Write(dir / "empty", "");
    Write(dir / "nores.dll", noResources);
    const std::pair<std::string, DWORD> cases[] = {{dir / "missing", ERROR_FILE_NOT_FOUND},
                                                   {dir / "text", ERROR_BAD_FORMAT},
                                                   {dir / "nores.dll", ERROR_RESOURCE_TYPE_NOT_FOUND},
                                                   {dir / "empty", 0},
                                                   {dir.Path(), 0},
                                                   {"/proc/self/exe", 0}}; // an ELF program
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(GetFileVersionInfoSizeA(path.c_str(), nullptr), 0u) << path;
        EXPECT_EQ(error != 0 ? GetLastError() : 0u, error) << path; // 0: any cause
    }
}

TEST(PlatformVersion, DamagedImagesNeverReadOutside) {
    zoth_test::TempDir dir;
    const std::string good = zoth_test::BuildPe({4, 3, 2, 1, false});
    std::string path = dir / "x.dll";
    for (size_t n = 0; n < good.size(); ++n) { // the image ends with the version: every cut loses it
        Write(path, good.substr(0, n));
        ASSERT_EQ(ReadVersion(path), "") << "cut at " << n;
    }

    using namespace zoth_test;
    const std::pair<size_t, uint32_t> damages[] = {
        {0x3C, 0xFFFFFFF0u},                         // PE header past the end
        {kPeSectionTableOffset32 + 20, 0x7FFFFFFFu}, // raw data past the end
        {kPeResourceOffset + 20, 0x8000FFF0u},       // name directory outside the section
        {kPeDataEntryOffset, 0xFFFFFFF0u},           // data RVA wraps around
        {kPeDataEntryOffset + 4, 0xFFFFFFFFu},       // data size beyond the section
        {kPeBlockOffset, 0x00340FFFu},               // block length beyond the data
        {kPeFixedInfoOffset, 0x12345678u},           // signature
        {kPeBlockOffset + 6, 0x00410041u},           // key text
        {kPeResourceOffset + 16, 17u},               // no type 16
        {kPeResourceOffset + 20, 0x48u},             // type entry that is no directory
    };
    for (auto [at, value] : damages) {
        std::string image = good;
        PutU32(image, at, value);
        Write(path, image);
        EXPECT_EQ(ReadVersion(path), "") << "damage at " << at;
    }

    // Any single byte set to 0x00 or 0xFF gives the version or none, never a crash (ASan watches reads).
    int readable = 0;
    for (size_t at = 0; at < good.size(); ++at)
        for (char value : {'\0', '\xff'}) {
            std::string image = good;
            image[at] = value;
            Write(path, image);
            std::string version = ReadVersion(path);
            EXPECT_TRUE(version.empty() || version == "4.3.2.1" || at >= kPeFixedInfoOffset) << at;
            readable += !version.empty();
        }
    EXPECT_GT(readable, 0); // bytes outside the parsed structures do not matter
}
