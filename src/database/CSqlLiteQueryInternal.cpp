// The row cursor over one SQLite statement.
#include "zoth/database/CSqlLiteQueryInternal.h"

#include <cstring>
#include <new>

namespace ZOTH {

namespace {

// File-local rather than members, so the compiler may inline them: exported members are called
// through the symbol table.
inline bool ValidColumn(sqlite3_stmt* stmt, int cols, int index) {
    return stmt != nullptr && index >= 0 && index < cols;
}

// SQL NULL reads as 0 from the numeric readers, so only a 0 needs the NULL test, which then asks
// the type after the read. That order is safe for this test: a read may convert a value between
// number and text, but never turns SQL NULL into a value or a value into NULL. Asking the type of
// every value would cost a second locked call into SQLite per read.
inline bool IsNullAfterZero(sqlite3_stmt* stmt, int index) {
    return sqlite3_column_type(stmt, index) == SQLITE_NULL;
}

} // namespace

// One per statement, shared by a cursor and its copies: whoever ends the statement clears `stmt`,
// so every copy learns of it on its next call. The last holder's release finalizes what still lives.
struct CSqlLiteQueryInternal::Shared {
    sqlite3_stmt* stmt;
    std::string error; // SQLite's message when a step ended the statement on a failure
    explicit Shared(sqlite3_stmt* s) : stmt(s) {}
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    ~Shared() { End(); }
    void End() {
        if (stmt != nullptr) sqlite3_finalize(stmt);
        stmt = nullptr;
    }
};

CSqlLiteQueryInternal::CSqlLiteQueryInternal()
    : m_pDb(nullptr), m_pStmt(nullptr), m_bEof(false), m_nCols(0), m_bOwnStmt(false) {}

CSqlLiteQueryInternal::CSqlLiteQueryInternal(const CSqlLiteQueryInternal& other)
    : m_pDb(other.m_pDb), m_pStmt(other.m_pStmt), m_bEof(other.m_bEof), m_nCols(other.m_nCols),
      m_bOwnStmt(other.m_bOwnStmt), m_spShared(other.m_spShared) {}

CSqlLiteQueryInternal& CSqlLiteQueryInternal::operator=(const CSqlLiteQueryInternal& other) {
    m_pDb = other.m_pDb;
    m_pStmt = other.m_pStmt;
    m_bEof = other.m_bEof;
    m_nCols = other.m_nCols;
    m_bOwnStmt = other.m_bOwnStmt;
    if (m_spShared != other.m_spShared) LetGoUnfinalized();
    m_spShared = other.m_spShared;
    return *this;
}

// Overwriting never finalizes: the caller is expected to Finalize first. When this cursor was the
// statement's last holder, the statement stays alive (CloseDB keeps failing, as it says) rather
// than being ended behind the caller's back.
void CSqlLiteQueryInternal::LetGoUnfinalized() {
    if (m_spShared != nullptr && m_spShared.use_count() == 1) m_spShared->stmt = nullptr;
}

CSqlLiteQueryInternal::~CSqlLiteQueryInternal() = default;

sqlite3_stmt* CSqlLiteQueryInternal::Held() {
    if (m_spShared == nullptr || m_spShared->stmt == nullptr) m_pStmt = nullptr;
    return m_pStmt;
}

int CSqlLiteQueryInternal::InitSqlLiteQuery(sqlite3* db, sqlite3_stmt* stmt, bool eof) {
    if (db == nullptr || stmt == nullptr) return 0;
    if (m_spShared == nullptr || m_spShared->stmt != stmt) { // the same statement again keeps its life
        std::shared_ptr<Shared> shared(new (std::nothrow) Shared(stmt));
        if (shared == nullptr) return 0;
        LetGoUnfinalized();
        m_spShared = std::move(shared);
    }
    m_pDb = db;
    m_pStmt = stmt;
    m_bEof = eof;
    m_nCols = sqlite3_column_count(stmt);
    m_bOwnStmt = true;
    return 1;
}

bool CSqlLiteQueryInternal::Eof() {
    // Without a statement there is nothing left to read, so a `while (!Eof())` loop must end.
    return Held() == nullptr || m_bEof;
}

void CSqlLiteQueryInternal::NextRow() {
    if (Held() == nullptr) return;
    int rc = sqlite3_step(m_pStmt);
    if (rc == SQLITE_DONE) {
        m_bEof = true;
    } else if (rc != SQLITE_ROW) {
        // Kept with the statement's life: the connection may be closed by the time anyone asks.
        const char* text = sqlite3_errmsg(m_pDb);
        m_spShared->error = text != nullptr ? text : sqlite3_errstr(rc);
        Finalize(); // a failed statement is of no further use to any copy
    }
}

void CSqlLiteQueryInternal::Finalize() {
    if (Held() == nullptr) return;
    m_spShared->End();
    m_pStmt = nullptr;
}

int CSqlLiteQueryInternal::GetCols() {
    return m_nCols;
}

bool CSqlLiteQueryInternal::FieldValue(int index, std::string& value) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    const unsigned char* text = sqlite3_column_text(m_pStmt, index);
    if (text == nullptr) return false; // SQL NULL (or no memory for the conversion)
    value.assign(reinterpret_cast<const char*>(text));
    return !value.empty();
}

bool CSqlLiteQueryInternal::GetStringField(int index, std::string& value) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    // The text read is its own NULL test: it gives a null pointer exactly for SQL NULL (or when
    // out of memory), and every other value, the empty text and blob included, comes out as text.
    // This saves asking the type first, a second locked call into SQLite for each value.
    const unsigned char* text = sqlite3_column_text(m_pStmt, index);
    if (text == nullptr) return false;
    value.assign(reinterpret_cast<const char*>(text));
    return true;
}

bool CSqlLiteQueryInternal::GetIntField(int index, int& value) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    int read = sqlite3_column_int(m_pStmt, index);
    if (read == 0 && IsNullAfterZero(m_pStmt, index)) return false;
    value = read;
    return true;
}

bool CSqlLiteQueryInternal::GetInt64Field(int index, __int64& value) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    __int64 read = sqlite3_column_int64(m_pStmt, index);
    if (read == 0 && IsNullAfterZero(m_pStmt, index)) return false;
    value = read;
    return true;
}

bool CSqlLiteQueryInternal::GetFloatField(int index, double& value) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    double read = sqlite3_column_double(m_pStmt, index);
    if (read == 0.0 && IsNullAfterZero(m_pStmt, index)) return false;
    value = read;
    return true;
}

bool CSqlLiteQueryInternal::FieldDataType(int index, int& type) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    type = sqlite3_column_type(m_pStmt, index);
    return true;
}

bool CSqlLiteQueryInternal::FieldName(int index, std::string& name) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    const char* text = sqlite3_column_name(m_pStmt, index);
    if (text == nullptr) return false; // out of memory
    name.assign(text);
    return true;
}

bool CSqlLiteQueryInternal::FieldDeclType(int index, std::string& declType) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    const char* text = sqlite3_column_decltype(m_pStmt, index);
    declType.assign(text != nullptr ? text : ""); // an expression has no declared type
    return true;
}

bool CSqlLiteQueryInternal::FieldIsNull(int index) {
    return ValidColumn(Held(), m_nCols, index) && sqlite3_column_type(m_pStmt, index) == SQLITE_NULL;
}

bool CSqlLiteQueryInternal::GetBlobField(int index, std::string& bytes) {
    if (!ValidColumn(Held(), m_nCols, index)) return false;
    // The pointer first, then the length, as SQLite asks: the read may convert the value.
    const void* data = sqlite3_column_blob(m_pStmt, index);
    const int size = sqlite3_column_bytes(m_pStmt, index);
    if (data == nullptr) { // SQL NULL, an empty value, or no memory for a conversion
        if (size != 0 || sqlite3_column_type(m_pStmt, index) == SQLITE_NULL) return false;
        bytes.clear();
        return true;
    }
    bytes.assign(static_cast<const char*>(data), static_cast<size_t>(size));
    return true;
}

std::string CSqlLiteQueryInternal::GetLastErrorText() {
    return m_spShared != nullptr ? m_spShared->error : "";
}

bool CSqlLiteQueryInternal::FieldIndex(const char* name, int& index) {
    if (Held() == nullptr || name == nullptr || m_nCols < 1) return false;
    for (int i = 0; i < m_nCols; ++i) {
        const char* column = sqlite3_column_name(m_pStmt, i);
        if (column != nullptr && std::strcmp(name, column) == 0) {
            index = i;
            return true;
        }
    }
    return false;
}

bool CSqlLiteQueryInternal::FieldValue(const char* name, std::string& value) {
    int index = 0;
    return FieldIndex(name, index) && FieldValue(index, value);
}

bool CSqlLiteQueryInternal::GetIntField(const char* name, int& value) {
    int index = 0;
    return FieldIndex(name, index) && GetIntField(index, value);
}

bool CSqlLiteQueryInternal::GetInt64Field(const char* name, __int64& value) {
    int index = 0;
    return FieldIndex(name, index) && GetInt64Field(index, value);
}

bool CSqlLiteQueryInternal::GetFloatField(const char* name, double& value) {
    int index = 0;
    return FieldIndex(name, index) && GetFloatField(index, value);
}

bool CSqlLiteQueryInternal::GetStringField(const char* name, std::string& value) {
    int index = 0;
    return FieldIndex(name, index) && GetStringField(index, value);
}

bool CSqlLiteQueryInternal::FieldIsNull(const char* name) {
    int index = 0;
    return FieldIndex(name, index) && FieldIsNull(index);
}

} // namespace ZOTH
