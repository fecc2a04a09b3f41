// When a failed transfer is tried again, and how long to wait first.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <curl/curl.h>

#include <cstdint>

namespace ZOTH::http {

struct DownloadSettings;

// True for a failure worth another attempt: no connection, a timeout, a transfer cut short or
// nothing received, or status 408, 429, 500, 502, 503, 504.
bool IsTransientFailure(CURLcode code, long status);

// Counts the attempts of one operation against the policy.
class RetryClock {
public:
    // Starts the clock of the operation's first attempt. A null policy allows one attempt.
    explicit RetryClock(const DownloadSettings* policy);
    // The wait before the next attempt, after an attempt that ended in (code, status) with the
    // server's Retry-After in seconds (-1: none). False when none follows: the failure is not
    // transient, the attempts are used up, or the wait would pass the budget.
    bool NextWait(CURLcode code, long status, int64_t retryAfterSeconds, DWORD& waitMs);
    // True when every attempt the policy allows has been made.
    bool Exhausted() const { return m_done >= m_attempts; }

private:
    int m_attempts;
    DWORD m_budgetMs;
    DWORD m_firstWaitMs;
    int m_done = 1;
    uint64_t m_startMs;
};

// Milliseconds of a monotonic clock.
uint64_t NowMs();

} // namespace ZOTH::http
