// The HTTP status and the words for a failure of an object's latest operation.
#include "zoth/http/CHttpClientCurl.h"

#include "http/TransferReport.h"

namespace ZOTH {

namespace http {

std::string StatusText(long status, const std::string& headers) {
    std::string text = "HTTP status ";
    text += std::to_string(status);
    // The last status line: after followed redirects or a 100 Continue the headers hold several.
    const size_t line = headers.rfind("HTTP/");
    if (line == std::string::npos) return text;
    const size_t end = headers.find_first_of("\r\n", line);
    const std::string statusLine = headers.substr(line, end == std::string::npos ? end : end - line);
    const size_t code = statusLine.find(' ');
    const size_t reason = code == std::string::npos ? code : statusLine.find(' ', code + 1);
    if (reason != std::string::npos && reason + 1 < statusLine.size() &&
        statusLine.compare(code + 1, reason - code - 1, std::to_string(status)) == 0) {
        // Appended in place: g++ 12 at -O3 warns (-Wrestrict) on " " + a temporary string.
        text += ' ';
        text.append(statusLine, reason + 1, std::string::npos);
    }
    return text;
}

} // namespace http

long CHttpClientCurl::GetStatusCode() {
    return m_pSettings ? Report().status : 0;
}

std::string CHttpClientCurl::GetErrorText() {
    if (!m_pSettings) return "";
    const http::TransferReport& report = Report();
    if (report.text) return *report.text;
    if (m_resultCode != CURLE_OK) {
        std::string text = curl_easy_strerror(m_resultCode);
        const std::string detail = report.errorBuffer;
        if (!detail.empty() && detail != text) text += ": " + detail;
        return text;
    }
    if (report.status >= 400) return http::StatusText(report.status, m_strResponseHeaders);
    return "";
}

void CHttpClientCurl::BeginReport() {
    http::TransferReport& report = Report();
    report.status = 0;
    report.text.reset();
    report.errorBuffer[0] = '\0';
}

void CHttpClientCurl::SetErrorText(std::string text) {
    Report().text = std::move(text);
}

} // namespace ZOTH
