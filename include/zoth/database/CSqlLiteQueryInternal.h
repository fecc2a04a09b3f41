// CSqlLiteQueryInternal: a cursor over the rows of one compiled SQLite statement.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <memory>
#include <sqlite3.h>
#include <string>

namespace ZOTH {

/// A cursor over the rows of one compiled SQLite statement. The statement arrives already stepped
/// once (see CSqlLiteInternal::ExecQuery), so the first row is current at once: read while Eof() is
/// false, then NextRow(); Finalize() or the destructor ends the statement. Text comes out as SQLite
/// gives it, in UTF-8, cut at its first NUL byte.
///
/// The cursor and its copies share one statement and its life: Finalize() on any of them, or a
/// failed NextRow(), finalizes it once for all, and from then on every copy answers Eof() true and
/// false to every reader. The last holder to be destroyed finalizes it. The connection stays the
/// CSqlLiteInternal's and must outlive the statement. No lock: one thread at a time, the
/// connection's thread, for the cursor and all its copies.
class ZOTH_API CSqlLiteQueryInternal {
public:
    /// Holds no statement: Eof() is true and every reader answers false.
    CSqlLiteQueryInternal();
    /// A copy walks the same statement (a step of one moves all) and shares its life.
    CSqlLiteQueryInternal(const CSqlLiteQueryInternal& other);
    /// As the copy. The statement the target held before is let go and never finalized, even when
    /// the target was its last holder (it then stays alive and CloseDB fails): call Finalize first.
    CSqlLiteQueryInternal& operator=(const CSqlLiteQueryInternal& other);
    /// Lets go of the statement; the last holder finalizes it.
    virtual ~CSqlLiteQueryInternal();

    /// Takes over `stmt` of connection `db`, positioned on a row (`eof` false) or at its end (`eof`
    /// true), and owns it from now on. Takes no step. 0 with nothing changed when either is null. A
    /// statement held before is let go as by assignment.
    int InitSqlLiteQuery(sqlite3* db, sqlite3_stmt* stmt, bool eof);
    /// True at the end of the rows, and whenever no statement is held (fresh, finalized, failed).
    bool Eof();
    /// Steps to the next row; at SQLITE_DONE Eof() becomes true. On any error the statement is
    /// finalized for every copy and the error code is dropped. Nothing without a statement.
    void NextRow();
    /// Finalizes the statement for this cursor and every copy; nothing when none is held. Keeps
    /// GetCols().
    void Finalize();
    /// Column count of the last statement taken; 0 before the first.
    int GetCols();

    /** @name Readers by column index
     *  Columns 0 to GetCols()-1. With no statement or an invalid index they answer false and leave
     *  the out-argument alone. */
    //@{
    /// The column as text; false and untouched for SQL NULL. Also false (with `value` emptied) for an
    /// empty text, so it cannot tell empty text from failure; GetStringField can.
    bool FieldValue(int index, std::string& value);
    /// The column as text, true also for an empty text; false and untouched for SQL NULL.
    bool GetStringField(int index, std::string& value);
    /// The column as a 32-bit integer (SQLite's conversion); false and untouched for SQL NULL.
    bool GetIntField(int index, int& value);
    /// The column as a 64-bit integer; false and untouched for SQL NULL.
    bool GetInt64Field(int index, __int64& value);
    /// The column as a double; false and untouched for SQL NULL.
    bool GetFloatField(int index, double& value);
    /// SQLite's type code: 1 integer, 2 float, 3 text, 4 blob, 5 NULL (true for NULL too).
    bool FieldDataType(int index, int& type);
    /// The column's name in the result.
    bool FieldName(int index, std::string& name);
    /// The column's declared type; true with "" for a column without one (an expression).
    bool FieldDeclType(int index, std::string& declType);
    /// True exactly when the column exists and holds SQL NULL.
    bool FieldIsNull(int index);
    /// All the column's bytes, NULs included, and nothing cut: a BLOB as stored, text as its UTF-8
    /// bytes, a number as its text. True with "" for an empty value; false and untouched for NULL.
    bool GetBlobField(int index, std::string& bytes);
    //@}

    /** @name Readers by column name
     *  The first column whose name equals `name` (case-sensitive), then as the index form. False,
     *  with the out-argument untouched, when no column has that name or no statement is held. */
    //@{
    /// FieldValue(int, std::string&) of the column named `name`: false also for an empty text.
    bool FieldValue(const char* name, std::string& value);
    /// GetIntField(int, int&) of the column named `name`.
    bool GetIntField(const char* name, int& value);
    /// GetInt64Field(int, __int64&) of the column named `name`.
    bool GetInt64Field(const char* name, __int64& value);
    /// GetFloatField(int, double&) of the column named `name`.
    bool GetFloatField(const char* name, double& value);
    /// GetStringField(int, std::string&) of the column named `name`.
    bool GetStringField(const char* name, std::string& value);
    /// FieldIsNull(int) of the column named `name`: false when there is none.
    bool FieldIsNull(const char* name);
    //@}

    /// Index of the first column named exactly `name`; false and `index` untouched if none.
    bool FieldIndex(const char* name, int& index);

    /// Why NextRow ended the statement on an error (whose code it drops): SQLite's message, e.g.
    /// "integer overflow", kept with the statement and seen by every copy, also after the connection
    /// is closed. "" while no step has failed, and for a cursor that never held a statement.
    std::string GetLastErrorText();

private:
    sqlite3* m_pDb;        // the statement's connection; never closed here
    sqlite3_stmt* m_pStmt; // the statement being walked, null when none is held
    bool m_bEof;           // SQLite has said SQLITE_DONE
    int m_nCols;           // sqlite3_column_count of the statement
    bool m_bOwnStmt;       // this cursor finalizes the statement
    struct Shared;
    std::shared_ptr<Shared> m_spShared; // the statement's life, shared by all copies

    sqlite3_stmt* Held();    // the statement while it lives, else null (and m_pStmt cleared)
    void LetGoUnfinalized(); // before an overwrite: the last holder leaves its statement unfinalized
};

} // namespace ZOTH
