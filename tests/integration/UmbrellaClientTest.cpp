// Compiled the way a client compiles: the umbrella header and the library's public include path only.
#include "zoth/zoth.h"

#include "TempDir.h"

#include <gtest/gtest.h>

using namespace ZOTH;

// A file written through the file helpers, digested, and its digest stored and read back through the
// database: the subsystems meet only through their public operations.
TEST(IntegrationUmbrella, FileDigestStoredInDatabase) {
    if (!zoth_test::DllLoads("sqlite3.dll")) GTEST_SKIP() << "sqlite3.dll cannot be loaded here";
    zoth_test::TempDir dir;
    std::string content("umbrella\0client", 15);
    std::string path = dir / "data.bin";
    ASSERT_EQ(CFileHepler::WriteDataToFile(content, path, CREATE_ALWAYS), 1);

    unsigned char digest[16] = {};
    STRING_UTIL::String2Md5(content, digest);
    std::string expected = STRING_UTIL::Hex2String(digest, 16);
    EXPECT_EQ(CFileHepler::GetFileMd5(path, ""), expected);

    CDataBaseInfo info;
    std::string dbPath = dir / "results.db";
    info.SetDataBaseFilePath(dbPath);
    CSqlLiteInternal db;
    ASSERT_EQ(db.Init(info), 1);
    ASSERT_EQ(db.OpenSqlDB(), 1);
    DWORD code = 0;
    std::string sql = "CREATE TABLE files(name TEXT, md5 TEXT);"
                      "INSERT INTO files VALUES('data.bin', '" +
                      expected + "');";
    ASSERT_EQ(db.ExecSql(sql, code), 1);
    {
        CSqlLiteQueryInternal cursor;
        std::string query = "SELECT md5 FROM files WHERE name = 'data.bin'";
        ASSERT_EQ(db.ExecQuery(query, cursor, code), 1);
        EXPECT_EQ(code, 100u);
        std::string stored;
        EXPECT_TRUE(cursor.GetStringField("md5", stored));
        EXPECT_EQ(stored, expected);
        cursor.Finalize();
    }
    EXPECT_EQ(db.CloseDB(), 1);
}

// Task ids come from the text subsystem's GUIDs: 32 upper-case hex digits, distinct.
TEST(IntegrationUmbrella, TaskIdsAreGuids) {
    struct Registry : CTesselControlBase {
        std::string NewId() { return CreateTaskId(); }
    } registry;
    std::string a = registry.NewId(), b = registry.NewId();
    ASSERT_EQ(a.size(), 32u);
    EXPECT_NE(a, b);
    for (char c : a)
        EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')) << a;
}
