// CDataBaseInfo: names a database file and carries the caller's version text.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <string>

namespace ZOTH {

/// Names a database file and carries the caller's version text, for CSqlLiteInternal::Init. Both are
/// held in UTF-8 and handed in and out in the ANSI code page; the library never reads the version
/// text itself. A value object: it holds no lock and belongs to one thread at a time.
class ZOTH_API CDataBaseInfo {
public:
    /// An empty path and an empty version text.
    CDataBaseInfo();
    /// Copies the stored UTF-8 bytes.
    CDataBaseInfo(const CDataBaseInfo& other);
    /// Copies the stored UTF-8 bytes.
    CDataBaseInfo& operator=(const CDataBaseInfo& other);
    ~CDataBaseInfo();

    /// Stores the ANSI `path` converted to UTF-8 (empty when the conversion fails). The argument is
    /// left unchanged.
    void SetDataBaseFilePath(std::string& path);
    /// Stores the ANSI `version` converted to UTF-8 (empty when the conversion fails). The argument is
    /// left unchanged.
    void SetDataBaseVersionInfo(std::string& version);
    /// The stored path converted back to ANSI; "" when none is stored or it cannot be converted.
    std::string GetDataBaseFilePath();
    /// The stored version text converted back to ANSI; "" when none is stored or it cannot be
    /// converted.
    std::string GetDataBaseVersionInfo();

private:
    std::string m_strFilePath;    // UTF-8
    std::string m_strVersionInfo; // UTF-8
};

} // namespace ZOTH
