// The digest a download must have, and the retry settings of a client.
#include "zoth/http/CHttpClientCurl.h"

#include "http/DownloadSettings.h"

#include <algorithm>
#include <cctype>

namespace ZOTH {

namespace {

// Lower-case hex of exactly `length` digits, or "" when `hex` is not that.
std::string NormalizeHex(const std::string& hex, size_t length) {
    if (hex.size() != length) return "";
    std::string lower(hex);
    for (char& c : lower) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return "";
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

} // namespace

int CHttpClientCurl::SetDownloadDigest(std::string algorithm, std::string hex) {
    if (algorithm.empty()) {
        if (DownloadSettingsOrNull() != nullptr) {
            EditDownloadSettings().digestKind = text::DigestKind::None;
            EditDownloadSettings().digestHex.clear();
        }
        return 1;
    }
    const text::DigestKind kind = text::DigestKindByName(algorithm);
    const std::string lower = NormalizeHex(hex, text::DigestHexLength(kind));
    if (kind == text::DigestKind::None || lower.empty()) return 0;
    http::DownloadSettings& s = EditDownloadSettings();
    s.digestKind = kind;
    s.digestHex = lower;
    return 1;
}

void CHttpClientCurl::SetDownloadMd5Check(bool check) {
    EditDownloadSettings().md5Binding = check;
}

void CHttpClientCurl::SetRetryPolicy(int attempts, DWORD budgetMs, DWORD firstWaitMs) {
    http::DownloadSettings& s = EditDownloadSettings();
    s.attempts = std::max(attempts, 1);
    s.budgetMs = budgetMs;
    s.firstWaitMs = firstWaitMs;
}

namespace http {

bool TakeDownloadCheck(http::DownloadSettings* settings, const std::string& md5, http::DownloadCheck& check) {
    check = http::DownloadCheck{};
    if (settings == nullptr) return true;
    if (settings->digestKind != text::DigestKind::None) {
        check.kind = settings->digestKind;
        check.hex = settings->digestHex;
        settings->digestKind = text::DigestKind::None;
        settings->digestHex.clear();
        return true;
    }
    if (!settings->md5Binding || md5.empty()) return true;
    check.kind = text::DigestKind::Md5;
    check.hex = NormalizeHex(md5, 32);
    return !check.hex.empty();
}

} // namespace http

} // namespace ZOTH
