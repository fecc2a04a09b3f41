// Retries of idempotent transfers: backoff doubling from the first wait, with jitter so that many
// clients cut off together do not return together, and the server's Retry-After when it gives one.
#include "http/RetryPolicy.h"

#include "zoth/http/CHttpClientCurl.h"

#include "http/DownloadSettings.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

namespace ZOTH::http {

uint64_t NowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

bool IsTransientFailure(CURLcode code, long status) {
    switch (code) {
    case CURLE_OK:
        break;
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        return true;
    default:
        return false;
    }
    switch (status) {
    case 408:
    case 429:
    case 500:
    case 502:
    case 503:
    case 504:
        return true;
    default:
        return false;
    }
}

RetryClock::RetryClock(const DownloadSettings* policy)
    : m_attempts(policy ? std::max(policy->attempts, 1) : 1), m_budgetMs(policy ? policy->budgetMs : 0),
      m_firstWaitMs(policy ? policy->firstWaitMs : 1000),
      // Only a second attempt reads the clock; a single attempt needs no start time.
      m_startMs(m_attempts > 1 ? NowMs() : 0) {}

bool RetryClock::NextWait(CURLcode code, long status, int64_t retryAfterSeconds, DWORD& waitMs) {
    if (m_done >= m_attempts || !IsTransientFailure(code, status)) return false;
    uint64_t wait = 0;
    if (retryAfterSeconds >= 0) {
        wait = static_cast<uint64_t>(std::min<int64_t>(retryAfterSeconds, 24 * 3600)) * 1000;
    } else {
        const uint64_t base = uint64_t{m_firstWaitMs} << std::min(m_done - 1, 20);
        // Up to a quarter more, drawn afresh each time (a forked child draws its own).
        std::random_device random;
        wait = base + (base / 4 == 0 ? 0 : random() % (base / 4 + 1));
    }
    const uint64_t spent = NowMs() - m_startMs;
    if (m_budgetMs != 0 && spent + wait > m_budgetMs) return false;
    ++m_done;
    waitMs = static_cast<DWORD>(std::min<uint64_t>(wait, UINT32_MAX));
    return true;
}

} // namespace ZOTH::http

namespace ZOTH {

int CHttpClientCurl::WaitBeforeRetry(http::RetryClock& clock) {
    // No transfer was made, or none may follow: nothing of this one's answer is worth reading.
    if (m_pCurl == nullptr || clock.Exhausted()) return 0;
    long status = 0;
    curl_off_t retryAfter = -1;
    {
        curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &status);
        curl_off_t seconds = 0;
        // 0 also when the answer had no Retry-After: then the backoff decides.
        if (curl_easy_getinfo(m_pCurl, CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
            retryAfter = seconds;
    }
    DWORD waitMs = 0;
    if (!clock.NextWait(m_resultCode, status, retryAfter, waitMs)) return 0;
    // Wakes every 10 ms to see a stop: a stop ends the wait at once and is used up.
    // A time point, not whole milliseconds: the wait is never shorter than asked.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        if (m_bStopRequested.exchange(false)) {
            m_resultCode = CURLE_WRITE_ERROR;
            return -1;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= end) return 1;
        std::this_thread::sleep_for(
            std::min<std::chrono::steady_clock::duration>(end - now, std::chrono::milliseconds(10)));
    }
}

} // namespace ZOTH
