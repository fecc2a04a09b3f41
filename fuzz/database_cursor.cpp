// Fuzzes the row cursor: the input becomes a result set of literal values (integers, reals, texts
// and blobs with any bytes, NULLs) under arbitrary, possibly repeated column names, read back with
// every reader by index and by name. Checks that the readers agree with each other and that no
// statement is left open.
#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;

namespace {

struct Reader {
    const uint8_t* data;
    size_t size;
    uint8_t Byte() {
        if (size == 0) return 0;
        --size;
        return *data++;
    }
    std::string Bytes(size_t max) {
        size_t n = Byte() % (max + 1);
        n = n < size ? n : size;
        std::string s(reinterpret_cast<const char*>(data), n);
        data += n;
        size -= n;
        return s;
    }
};

std::string Hex(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

// A literal of the kind the next byte chooses.
std::string Literal(Reader& in) {
    switch (in.Byte() % 5) {
    case 0: {
        long long v = 0;
        for (int i = 0; i < 8; ++i)
            v = (v << 8) | in.Byte();
        return "(" + std::to_string(v) + ")";
    }
    case 1:
        return std::to_string(static_cast<int8_t>(in.Byte()) / 4.0);
    case 2:
        return "CAST(X'" + Hex(in.Bytes(12)) + "' AS TEXT)";
    case 3:
        return "X'" + Hex(in.Bytes(12)) + "'";
    default:
        return "NULL";
    }
}

// A column name as a quoted identifier; names never hold NUL, as SQL text ends there.
std::string Name(Reader& in, std::vector<std::string>& names) {
    std::string raw = in.Bytes(4), name, quoted = "\"";
    for (char c : raw) {
        if (c == '\0') c = 'n';
        name += c;
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    names.push_back(name);
    return quoted + "\"";
}

void Check(bool ok) {
    if (!ok) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    int cols = 1 + in.Byte() % 5;
    int rows = 1 + in.Byte() % 3;
    std::vector<std::string> names;
    std::string sql = "SELECT ";
    for (int c = 0; c < cols; ++c)
        sql += std::string(c ? ", " : "") + "column" + std::to_string(c + 1) + " AS " + Name(in, names);
    sql += " FROM (VALUES ";
    for (int r = 0; r < rows; ++r) {
        sql += r ? ", (" : "(";
        for (int c = 0; c < cols; ++c)
            sql += (c ? ", " : "") + Literal(in);
        sql += ")";
    }
    sql += ")";

    CSqlLiteInternal db;
    CDataBaseInfo info;
    std::string path = ":memory:";
    info.SetDataBaseFilePath(path);
    Check(db.Init(info) == 1 && db.OpenSqlDB() == 1);
    {
        CSqlLiteQueryInternal q;
        DWORD code = 0;
        if (db.ExecQuery(sql, q, code) == 1) {
            Check(q.GetCols() == cols);
            int seen = 0;
            for (; !q.Eof(); q.NextRow(), ++seen) {
                for (int c = -1; c <= cols; ++c) {
                    int type = 0, i = 0;
                    __int64 i64 = 0;
                    double d = 0;
                    std::string text = "x", value = "x", name;
                    bool valid = c >= 0 && c < cols;
                    Check(q.FieldDataType(c, type) == valid);
                    bool isNull = valid && type == 5;
                    Check(q.FieldIsNull(c) == isNull);
                    Check(q.GetStringField(c, text) == (valid && !isNull));
                    Check(q.GetIntField(c, i) == (valid && !isNull));
                    Check(q.GetInt64Field(c, i64) == (valid && !isNull));
                    Check(q.GetFloatField(c, d) == (valid && !isNull));
                    bool got = q.FieldValue(c, value);
                    Check(got == (valid && !isNull && !text.empty()));
                    if (valid && !isNull) Check(value == text && std::strlen(text.c_str()) == text.size());
                    Check(q.FieldName(c, name) == valid);
                    if (!valid) continue;
                    Check(name == names[c]);
                    int index = -1;
                    Check(q.FieldIndex(name.c_str(), index));
                    Check(index <= c && names[index] == name); // the first of its name
                    for (int k = 0; k < index; ++k)
                        Check(names[k] != name);
                }
            }
            Check(seen == rows);
        }
        q.Finalize();
    }
    Check(db.CloseDB() == 1);
    return 0;
}
