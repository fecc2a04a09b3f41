// The download and retry settings of one CHttpClientCurl, kept with its other settings and copied
// with the object.
#pragma once

#include "zoth/platform/Win32Types.h"

#include "text/StreamDigest.h"

#include <string>

namespace ZOTH::http {

struct DownloadSettings {
    bool durable = true;                       // data and folder entry flushed around the rename
    bool resume = false;                       // a failed download keeps its partial for the next one
    DWORD resumeMaxAgeSeconds = 7 * 24 * 3600; // an older kept partial is dropped
    bool md5Binding = false;                   // DownloadFile's md5 argument, when not empty, must match
    // The digest the next download must have; consumed by it whatever its outcome.
    text::DigestKind digestKind = text::DigestKind::None;
    std::string digestHex; // lower case
    // Retries: total attempts (1: none), the budget of transfers and waits (0: none), first wait.
    int attempts = 1;
    DWORD budgetMs = 0;
    DWORD firstWaitMs = 1000;
};

// What one DownloadFile checks beyond status and length: the digest the file must have.
struct DownloadCheck {
    text::DigestKind kind = text::DigestKind::None;
    std::string hex; // lower case
};

// The check of one download: the pending digest, used up here, else the md5 argument when it binds.
// False when a binding md5 argument is malformed: the download then fails before any request.
bool TakeDownloadCheck(DownloadSettings* settings, const std::string& md5, DownloadCheck& check);

} // namespace ZOTH::http
