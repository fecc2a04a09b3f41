// One connection to a SQLite database file, with a bounded busy wait.
#include "zoth/database/CSqlLiteInternal.h"

#include "SqliteErrorText.h"
#include "zoth/text/STRING_UTIL.h"
#include "zoth/win32.h"

namespace ZOTH {

namespace {
constexpr int kBusySleepMs = 10;   // one wait of the busy handler
constexpr int kBusyLastCount = 20; // the last handler call that still waits: 21 waits in all
} // namespace

CSqlLiteInternal::CSqlLiteInternal() : m_pDb(nullptr), m_nBusyTimeout(500) {}

CSqlLiteInternal::CSqlLiteInternal(const CSqlLiteInternal& other) = default;
CSqlLiteInternal& CSqlLiteInternal::operator=(const CSqlLiteInternal& other) = default;

// The connection is deliberately left open: copies may still use it, and CloseDB is the one way to
// close it.
CSqlLiteInternal::~CSqlLiteInternal() = default;

int CSqlLiteInternal::Init(CDataBaseInfo& info) {
    if (info.GetDataBaseFilePath().empty()) return 0;
    m_dbInfo = info; // the UTF-8 bytes as they are held
    return 1;
}

int CSqlLiteInternal::OpenSqlDB() {
    std::string path = m_dbInfo.GetDataBaseFilePath();
    if (path.empty()) return 0;
    // SQLite takes file names in UTF-8.
    if (sqlite3_open(STRING_UTIL::Asci2Utf8(path).c_str(), &m_pDb) != SQLITE_OK) return 0;
    // sqlite3_busy_timeout installs a handler of its own, which the bounded one below replaces.
    sqlite3_busy_timeout(m_pDb, m_nBusyTimeout);
    sqlite3_busy_handler(m_pDb, SqliteTimeroutHandler, nullptr);
    return 1;
}

int CSqlLiteInternal::CloseDB() {
    if (m_pDb == nullptr) return 0;
    // Plain close: it refuses while a statement is alive, and the connection stays usable then.
    if (sqlite3_close(m_pDb) != SQLITE_OK) return 0;
    m_pDb = nullptr;
    return 1;
}

int CSqlLiteInternal::ExecSql(std::string& sql, DWORD& code) {
    if (m_pDb == nullptr) return 0;
    int rc = sqlite3_exec(m_pDb, sql.c_str(), nullptr, nullptr, nullptr);
    code = static_cast<DWORD>(rc);
    return rc == SQLITE_OK ? 1 : 0;
}

sqlite3_stmt* CSqlLiteInternal::Compile(const char* text) {
    if (m_pDb == nullptr || text == nullptr) return nullptr;
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    if (sqlite3_prepare_v2(m_pDb, text, -1, &statement, &tail) != SQLITE_OK) return nullptr;
    return statement;
}

int CSqlLiteInternal::ExecQuery(std::string& sql, CSqlLiteQueryInternal& query, DWORD& code) {
    if (sql.empty() || m_pDb == nullptr) return 0;
    sqlite3_stmt* statement = Compile(sql.c_str());
    if (statement == nullptr) {
        // What stepping and finalizing no statement would give: the compile error is not reported.
        code = SQLITE_OK;
        return 0;
    }
    int rc = sqlite3_step(statement);
    code = static_cast<DWORD>(rc);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        code = static_cast<DWORD>(sqlite3_finalize(statement)); // repeats the step's error
        return 0;
    }
    query.Finalize(); // the cursor's old statement would otherwise keep the connection from closing
    query.InitSqlLiteQuery(m_pDb, statement, rc == SQLITE_DONE);
    return 1;
}

// Read live from the connection rather than kept: the class's layout stays as it was, and copies,
// which share the connection, agree on it.
std::string CSqlLiteInternal::GetLastErrorText() {
    return database::LastErrorText(m_pDb, "no database is open");
}

void CSqlLiteInternal::SetBusyTimeout(int ms) {
    m_nBusyTimeout = ms;
    sqlite3_busy_timeout(m_pDb, ms);
}

int CSqlLiteInternal::SqliteTimeroutHandler(void*, int count) {
    if (count > kBusyLastCount) return 0;
    Sleep(kBusySleepMs);
    return 1;
}

} // namespace ZOTH
