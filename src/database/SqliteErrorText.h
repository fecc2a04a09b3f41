// The text behind a connection's last failure, shared by the connection and its cursors.
#pragma once

#include <sqlite3.h>
#include <string>

namespace ZOTH::database {

// SQLite's message for the most recent call on `db` when that call failed; "" when it succeeded
// (a step's row or end counts as success), and `whenClosed` without a connection. Copied at once:
// SQLite's own text lives only until the next call on the connection.
inline std::string LastErrorText(sqlite3* db, const char* whenClosed) {
    if (db == nullptr) return whenClosed;
    const int code = sqlite3_errcode(db);
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return "";
    const char* text = sqlite3_errmsg(db);
    return text != nullptr ? text : sqlite3_errstr(code);
}

} // namespace ZOTH::database
