// CSqlLiteInternal: one connection to a SQLite database file. Init names the file, OpenSqlDB opens
// it with a bounded busy wait (about 210 ms), ExecSql and ExecQuery run the caller's UTF-8 SQL, and
// CloseDB closes it. The destructor does NOT close the connection: call CloseDB. Copies share the
// connection; nothing counts references.
#pragma once

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteQueryInternal.h"
#include "zoth/platform/Win32Types.h"

#include <sqlite3.h>
#include <string>

namespace ZOTH {

class ZOTH_API CSqlLiteInternal {
public:
    CSqlLiteInternal();
    CSqlLiteInternal(const CSqlLiteInternal& other);            // shares the connection
    CSqlLiteInternal& operator=(const CSqlLiteInternal& other); // shares it; closes nothing
    virtual ~CSqlLiteInternal();

    // Stores the path and version of `info`. 1; 0 with nothing stored when the path is empty.
    int Init(CDataBaseInfo& info);
    // Opens (creating if missing) the stored file and installs the bounded busy handler. 0 when no
    // path is stored (no file touched) or SQLite fails; then only CloseDB may follow.
    int OpenSqlDB();
    // Closes the connection (sqlite3_close). 1 on success, after which the object counts as never
    // opened; 0 with no connection, or while a statement of it is not finalized (it stays usable).
    int CloseDB();
    // Runs every statement of `sql`, dropping rows. 1 with `code` 0 on success (also for empty
    // text), else 0 with SQLite's code. 0 with `code` untouched when not open.
    int ExecSql(std::string& sql, DWORD& code);
    // Compiles the first statement of `sql`, steps it once and hands it to `query` (a statement the
    // cursor held is finalized first). 1 with `code` 100 (on a row) or 101 (no rows). 0 on failure
    // with `code` the step's error, or 0 when the text does not compile, and `query` untouched.
    // 0 with `code` untouched when not open or `sql` is empty.
    int ExecQuery(std::string& sql, CSqlLiteQueryInternal& query, DWORD& code);

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
