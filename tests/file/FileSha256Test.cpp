// CFileHepler::GetFileSha256: known answers, every size around the read's pieces against the peer
// tool, and files that cannot be read whole.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#include <string>

using ZOTH::CFileHepler;
using zoth_test::Sha256sumOf;
using zoth_test::Spit;

TEST(FileSha256, KnownAnswersAndSizesAroundThePieces) {
    zoth_test::TempDir dir;
    const struct {
        std::string content;
        const char* sha256;
    } known[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& k : known) {
        const std::string path = dir / "known";
        Spit(path, k.content);
        EXPECT_EQ(CFileHepler::GetFileSha256(path), k.sha256) << k.content.size();
    }
    std::string bytes(2 * (256 << 10) + 70, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    for (size_t size : {size_t{55}, size_t{64}, size_t{(256 << 10) - 1}, size_t{256 << 10},
                        size_t{(256 << 10) + 1}, bytes.size()}) {
        SCOPED_TRACE(size);
        const std::string path = dir / ("f" + std::to_string(size));
        Spit(path, bytes.substr(0, size));
        const std::string digest = CFileHepler::GetFileSha256(path);
        EXPECT_EQ(digest.size(), 64u);
        EXPECT_EQ(digest, Sha256sumOf(path));
    }
    // Missing files and folders give "", and nothing is created.
    EXPECT_EQ(CFileHepler::GetFileSha256(dir / "missing"), "");
    EXPECT_FALSE(zoth_test::Exists(dir / "missing"));
    EXPECT_EQ(CFileHepler::GetFileSha256(dir.Path()), "");
}
