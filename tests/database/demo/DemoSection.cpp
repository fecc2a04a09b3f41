// The database section of `zoth demo`: it stores the steps recorded before it, awkward text
// included, and must read every one of them back unchanged.
#include "Commands.h"
#include "TempDir.h"

#include <cstdio>
#include <gtest/gtest.h>

// The frame that tools/zoth/main.cpp gives the tool, reduced to what the section uses.
namespace zoth_cli {
int Fail(const std::string& message) {
    std::fprintf(stderr, "zoth: %s\n", message.c_str());
    return 2;
}
int Error(const std::string& message) {
    std::fprintf(stderr, "zoth: %s\n", message.c_str());
    return 1;
}
void Demo::Step(const std::string& subsystem, const std::string& step, bool ok, const std::string& detail) {
    m_rows.push_back({subsystem, step, ok, detail});
}
} // namespace zoth_cli

TEST(DatabaseDemo, StoresAndReadsBackEveryEarlierStep) {
    zoth_test::TempDir dir;
    zoth_cli::Demo demo(dir.Path());
    demo.Step("text", "quote's \"here\"", true, "it''s; DROP TABLE steps; --");
    demo.Step("http", "unicode", false, "caf\xC3\xA9 \xE2\x82\xAC\ttab\nline");
    demo.Step("file", "", true, "");
    const size_t before = demo.Rows().size();
    zoth_cli::DatabaseDemo(demo);
    ASSERT_GT(demo.Rows().size(), before);
    int readBack = 0;
    for (size_t i = before; i < demo.Rows().size(); ++i) {
        const auto& r = demo.Rows()[i];
        EXPECT_EQ("database", r.subsystem);
        EXPECT_TRUE(r.ok) << r.step << ": " << r.detail;
        if (r.step != "read steps back") continue;
        ++readBack;
        EXPECT_EQ("3 of 3 rows match", r.detail);
    }
    EXPECT_EQ(1, readBack);
}

TEST(DatabaseDemo, ReportsFailureWhenTheFolderIsMissing) {
    zoth_test::TempDir dir;
    zoth_cli::Demo demo(dir / "missing");
    zoth_cli::DatabaseDemo(demo);
    ASSERT_EQ(1u, demo.Rows().size());
    EXPECT_EQ("open", demo.Rows()[0].step);
    EXPECT_FALSE(demo.Rows()[0].ok);
}
