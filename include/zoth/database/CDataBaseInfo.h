// CDataBaseInfo: names a database file and carries the caller's version text. Both are held in UTF-8
// and handed in and out in the ANSI code page; the library never reads the version text itself.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <string>

namespace ZOTH {

class ZOTH_API CDataBaseInfo {
public:
    CDataBaseInfo();
    CDataBaseInfo(const CDataBaseInfo& other);            // copies the stored UTF-8 bytes
    CDataBaseInfo& operator=(const CDataBaseInfo& other); // likewise
    ~CDataBaseInfo();

    // Stores the ANSI `path` converted to UTF-8. The argument is left unchanged.
    void SetDataBaseFilePath(std::string& path);
    // Stores the ANSI `version` converted to UTF-8. The argument is left unchanged.
    void SetDataBaseVersionInfo(std::string& version);
    // The stored path converted back to ANSI; "" when none is stored.
    std::string GetDataBaseFilePath();
    // The stored version text converted back to ANSI; "" when none is stored.
    std::string GetDataBaseVersionInfo();

private:
    std::string m_strFilePath;    // UTF-8
    std::string m_strVersionInfo; // UTF-8
};

} // namespace ZOTH
