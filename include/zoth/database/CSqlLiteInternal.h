// CSqlLiteInternal: one connection to a SQLite database file.
#pragma once

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteQueryInternal.h"
#include "zoth/platform/ZothTypes.h"

#include <sqlite3.h>
#include <string>

namespace ZOTH {

/// One connection to a SQLite database file: Init names the file, OpenSqlDB opens it with a bounded
/// busy wait (about 210 ms), ExecSql and ExecQuery run the caller's UTF-8 SQL, CloseDB closes it.
///
/// The destructor does NOT close the connection: call CloseDB. Copies share the connection and
/// nothing counts references, so exactly one of them may close it. The object takes no lock: use
/// it, its copies and its cursors from one thread at a time (SQLite's own serialisation applies).
class ZOTH_API CSqlLiteInternal {
public:
    /// Not open, nothing stored.
    CSqlLiteInternal();
    /// Shares the connection (and copies what Init stored); closes nothing.
    CSqlLiteInternal(const CSqlLiteInternal& other);
    /// Shares the other's connection; the target's own connection is not closed (CloseDB it first).
    CSqlLiteInternal& operator=(const CSqlLiteInternal& other);
    /// Leaves the connection open: CloseDB is the caller's.
    virtual ~CSqlLiteInternal();

    /// Stores the path and version of `info`. 1; 0 with nothing stored when the path is empty.
    int Init(CDataBaseInfo& info);
    /// Opens (creating if missing) the stored file and installs the bounded busy handler. 1 when
    /// open; 0 when no path is stored (no file touched) or SQLite fails, and then only CloseDB may
    /// follow.
    int OpenSqlDB();
    /// Closes the connection (sqlite3_close). 1 on success, after which the object counts as never
    /// opened; 0 with no connection, or while a statement of it is not finalized (it stays usable).
    int CloseDB();
    /// Runs every statement of `sql` (UTF-8), dropping rows. 1 with `code` 0 on success (also for
    /// empty text), else 0 with SQLite's code in `code`. 0 with `code` untouched when not open.
    int ExecSql(std::string& sql, DWORD& code);
    /// Compiles the first statement of `sql` (UTF-8), steps it once and hands it to `query`, which
    /// owns it from then on (a statement the cursor held is finalized first). 1 with `code` 100 (on a
    /// row) or 101 (no rows). 0 on failure with `code` the step's error, or 0 when the text does not
    /// compile, and `query` untouched. 0 with `code` untouched when not open or `sql` is empty.
    int ExecQuery(std::string& sql, CSqlLiteQueryInternal& query, DWORD& code);
    /// SQLite's English message for the connection's most recent call when that call failed
    /// (sqlite3_errmsg): "no such table: t", "near \"SELEC\": syntax error", "database is locked". Set
    /// by OpenSqlDB, CloseDB, ExecSql, ExecQuery (also when the text does not compile, where `code` is
    /// 0) and by its cursors' NextRow; "" after a success; "no database is open" without a
    /// connection. A refusal before SQLite is called (ExecQuery of "") leaves it as it was.
    std::string GetLastErrorText();

private:
    // The first statement of `text` compiled, or null on failure; the rest of the text is ignored.
    sqlite3_stmt* Compile(const char* text);
    // Stores `ms` and switches the connection to SQLite's own timed wait. Unused by the library.
    void SetBusyTimeout(int ms);
    // SQLite's busy handler: sleeps 10 ms and retries while `count` <= 20, then gives up (BUSY).
    static int SqliteTimeroutHandler(void* arg, int count);

    sqlite3* m_pDb;         // the connection, null when not open
    CDataBaseInfo m_dbInfo; // what Init stored
    int m_nBusyTimeout;     // ms given to sqlite3_busy_timeout
};

} // namespace ZOTH
