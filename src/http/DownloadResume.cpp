// The resume record: a few text lines behind the kept data, then their length and a mark, so the
// data stays a plain prefix of the body and a crash before the record is written leaves a file that
// simply starts over.
#include "http/DownloadResume.h"

#include "text/StreamDigest.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

namespace ZOTH::http {

namespace {

constexpr char kMark[] = "ZDLREC1\n"; // 8 bytes
constexpr size_t kFooter = 16;        // 8 hex digits of the record's length, then the mark
constexpr size_t kMaxRecord = 4096;

bool Seek(HANDLE file, uint64_t position) {
    LONG high = static_cast<LONG>(position >> 32);
    SetLastError(ERROR_SUCCESS);
    const DWORD low = SetFilePointer(file, static_cast<LONG>(position & 0xffffffffu), &high, FILE_BEGIN);
    return low != INVALID_SET_FILE_POINTER || GetLastError() == ERROR_SUCCESS;
}

bool ReadAt(HANDLE file, uint64_t position, char* data, DWORD size) {
    DWORD read = 0;
    return Seek(file, position) && ReadFile(file, data, size, &read, nullptr) && read == size;
}

// The value of `name` in the record's lines, or "".
std::string Field(const std::string& text, const std::string& name) {
    const std::string key = name + "=";
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (line.compare(0, key.size(), key) == 0) return line.substr(key.size());
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return "";
}

bool ToNumber(const std::string& text, uint64_t& value) {
    if (text.empty() || text.size() > 19) return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

// The value of the last header `name` (any case) in the header text, trimmed; "" when none.
std::string Header(const std::string& headers, const char* name) {
    std::string value;
    const size_t length = std::strlen(name);
    for (size_t at = 0; at < headers.size();) {
        size_t end = headers.find('\n', at);
        if (end == std::string::npos) end = headers.size();
        std::string line = headers.substr(at, end - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        bool same = line.size() > length && line[length] == ':';
        for (size_t i = 0; same && i < length; ++i)
            same = std::tolower(static_cast<unsigned char>(line[i])) ==
                   std::tolower(static_cast<unsigned char>(name[i]));
        if (same) {
            size_t begin = length + 1;
            while (begin < line.size() && (line[begin] == ' ' || line[begin] == '\t'))
                ++begin;
            size_t stop = line.size();
            while (stop > begin && (line[stop - 1] == ' ' || line[stop - 1] == '\t'))
                --stop;
            value = line.substr(begin, stop - begin);
        }
        at = end + 1;
    }
    return value;
}

} // namespace

std::string UrlHash(const std::string& url) {
    text::StreamDigest digest(text::DigestKind::Sha256);
    digest.Update(url.data(), url.size());
    return digest.FinishHex();
}

bool TakeRecord(HANDLE file, ResumeRecord& record) {
    LARGE_INTEGER size;
    char footer[kFooter + 1] = {};
    bool sound = GetFileSizeEx(file, &size) && static_cast<uint64_t>(size.QuadPart) >= kFooter &&
                 ReadAt(file, static_cast<uint64_t>(size.QuadPart) - kFooter, footer, kFooter) &&
                 std::memcmp(footer + 8, kMark, 8) == 0;
    uint64_t data = 0;
    if (sound) {
        unsigned length = 0;
        char digits[9] = {};
        std::memcpy(digits, footer, 8);
        sound = std::sscanf(digits, "%8x", &length) == 1 && length <= kMaxRecord &&
                length + kFooter <= static_cast<uint64_t>(size.QuadPart);
        if (sound) {
            data = static_cast<uint64_t>(size.QuadPart) - kFooter - length;
            std::vector<char> text(length);
            sound = length == 0 || ReadAt(file, data, text.data(), length);
            const std::string lines(text.begin(), text.end());
            uint64_t kept = 0, time = 0;
            record.urlHash = Field(lines, "url");
            record.validator = Field(lines, "validator");
            sound = sound && ToNumber(Field(lines, "length"), record.length) &&
                    ToNumber(Field(lines, "time"), time) && ToNumber(Field(lines, "kept"), kept) &&
                    kept == data && record.urlHash.size() == 64 && !record.validator.empty();
            record.savedAt = static_cast<int64_t>(time);
            record.kept = kept;
        }
    }
    if (!sound) data = 0;
    return Seek(file, data) && SetEndOfFile(file) && sound;
}

bool AppendRecord(HANDLE file, const ResumeRecord& record) {
    std::string text = "url=" + record.urlHash + "\nlength=" + std::to_string(record.length) +
                       "\nvalidator=" + record.validator + "\ntime=" + std::to_string(record.savedAt) +
                       "\nkept=" + std::to_string(record.kept) + "\n";
    if (text.size() > kMaxRecord) return false;
    char footer[kFooter + 1];
    std::snprintf(footer, sizeof footer, "%08x%s", static_cast<unsigned>(text.size()), kMark);
    text.append(footer, kFooter);
    DWORD written = 0;
    return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
           written == text.size();
}

std::string ValidatorOf(const std::string& headers) {
    const std::string etag = Header(headers, "ETag");
    // If-Range compares strongly: a weak ETag cannot ask for a range.
    if (!etag.empty() && etag.compare(0, 2, "W/") != 0 && etag.find('\n') == std::string::npos) return etag;
    return Header(headers, "Last-Modified");
}

bool ContentRangeOf(const std::string& headers, uint64_t& start, uint64_t& total) {
    const std::string value = Header(headers, "Content-Range");
    if (value.compare(0, 6, "bytes ") != 0) return false;
    const size_t slash = value.find('/');
    if (slash == std::string::npos || !ToNumber(value.substr(slash + 1), total)) return false;
    const std::string range = value.substr(6, slash - 6);
    if (range == "*") {
        start = UINT64_MAX;
        return true;
    }
    const size_t dash = range.find('-');
    uint64_t last = 0;
    return dash != std::string::npos && ToNumber(range.substr(0, dash), start) &&
           ToNumber(range.substr(dash + 1), last) && last + 1 == total && start <= last;
}

} // namespace ZOTH::http
