// The record a resumable download keeps behind the data of its partial file, and the answer headers
// a resumed transfer reads.
#pragma once

#include "zoth/platform/Win32File.h"

#include <cstdint>
#include <string>

namespace ZOTH::http {

// The kept partial file is "." + the target's name + this, beside the target.
inline constexpr const char* kKeptSuffix = ".zdl-part";

struct ResumeRecord {
    std::string urlHash;   // SHA-256 of the URL in hex: URLs carry tokens, the record never does
    uint64_t length = 0;   // the whole body's length
    std::string validator; // ETag, else Last-Modified
    int64_t savedAt = 0;   // seconds since 1970
    uint64_t kept = 0;     // data bytes in front of the record
};

std::string UrlHash(const std::string& url);
// Reads the record behind the data of a kept file and cuts the file back to its data, the position
// at its end. False when there is no sound record: the file is then emptied.
bool TakeRecord(HANDLE file, ResumeRecord& record);
// Writes the record behind the data (the file position must be at the data's end).
bool AppendRecord(HANDLE file, const ResumeRecord& record);
// The validator of the answer whose header lines are `headers`: a strong ETag, else Last-Modified;
// "" when it has neither (such a body cannot be resumed safely).
std::string ValidatorOf(const std::string& headers);
// Content-Range of the answer: "bytes a-b/L" gives start a and total L; "bytes */L" gives start
// UINT64_MAX and total L. False when there is none or it is malformed.
bool ContentRangeOf(const std::string& headers, uint64_t& start, uint64_t& total);

} // namespace ZOTH::http
