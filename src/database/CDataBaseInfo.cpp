// The database file's name and the caller's version text, held in UTF-8.
#include "zoth/database/CDataBaseInfo.h"

#include "zoth/text/STRING_UTIL.h"

namespace ZOTH {

CDataBaseInfo::CDataBaseInfo() = default;
CDataBaseInfo::CDataBaseInfo(const CDataBaseInfo& other) = default;
CDataBaseInfo& CDataBaseInfo::operator=(const CDataBaseInfo& other) = default;
CDataBaseInfo::~CDataBaseInfo() = default;

void CDataBaseInfo::SetDataBaseFilePath(std::string& path) {
    m_strFilePath = STRING_UTIL::Asci2Utf8(path);
}

void CDataBaseInfo::SetDataBaseVersionInfo(std::string& version) {
    m_strVersionInfo = STRING_UTIL::Asci2Utf8(version);
}

std::string CDataBaseInfo::GetDataBaseFilePath() {
    return STRING_UTIL::Utf82Asci(m_strFilePath);
}

std::string CDataBaseInfo::GetDataBaseVersionInfo() {
    return STRING_UTIL::Utf82Asci(m_strVersionInfo);
}

} // namespace ZOTH
