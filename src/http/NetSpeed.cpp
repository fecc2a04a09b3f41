// Downstream speed probe: count what arrives for a number of seconds, keep nothing.

#include "zoth/http/CHttpClientCurl.h"
#include "zoth/win32.h"

#include "http/TransferReport.h"

namespace ZOTH {

int CHttpClientCurl::TestNetSpeed(std::string url, int seconds) {
    // A followed redirect starts the probe over at the new place.
    FollowRedirects(std::move(url), EREQUEST_METHOD_GET, [&](const std::string& at, int) {
        ProbeOnce(at, seconds);
        return 0;
    });
    return 0;
}

void CHttpClientCurl::ProbeOnce(const std::string& url, int seconds) {
    if (InitCurl() == 0) return;
    if (url.empty() || seconds <= 0) return;
    BeginTransfer();

    if (!SetFetchOptions(url)) return;

    // The probe counts from 0 so that bytes of earlier transfers do not enter its speed.
    m_dwTotalSize = 0;
    m_dwEndTime = 0;
    m_dNetSpeed = 0.0;
    m_bSpeedTestRunning = true;
    m_nSpeedTimeLimit = seconds;
    m_dwStartTime = GetTickCount();
    m_resultCode = PerformStoppable(true);
    m_bSpeedTestRunning = false;
    // Ended by its time limit, the probe did what was asked: no failure to tell of.
    const DWORD limit = static_cast<DWORD>(seconds) * 1000u;
    if (m_resultCode == CURLE_WRITE_ERROR && !Report().text && m_dwEndTime != 0 &&
        m_dwEndTime - m_dwStartTime >= limit)
        SetErrorText("");
}

double CHttpClientCurl::GetNetSpeed() {
    if (m_dwTotalSize == 0 || m_dwStartTime == 0 || m_dwEndTime == 0) return 0.0;
    const DWORD kibibytes = m_dwTotalSize >> 10;
    const DWORD seconds = (m_dwEndTime - m_dwStartTime) / 1000;
    // Under a second divides by zero on purpose: infinity (or NaN below 1 KiB), as the figures say.
    m_dNetSpeed = kibibytes * 8.0 * 0.0009765625 / static_cast<double>(seconds);
    return m_dNetSpeed;
}

} // namespace ZOTH
