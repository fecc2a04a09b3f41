// The libcurl commands that move files or measure: download (with a progress bar on a terminal),
// upload and the speed probe.
#include "HttpOptions.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace zoth_cli {

namespace {

using ZOTH::CHttpClientCurl;

// A one-line bar on stderr, redrawn at most every 100 ms and when the count is complete.
class ProgressBar {
public:
    explicit ProgressBar(const char* unit = "bytes") : m_unit(unit) {}
    void operator()(double total, double now) {
        auto t = std::chrono::steady_clock::now();
        const bool complete = total > 0 && now >= total;
        if (now == m_lastNow || (t - m_last < std::chrono::milliseconds(100) && !complete)) return;
        m_last = t;
        m_lastNow = now;
        if (!m_started) {
            m_start = t;
            m_startNow = now;
            m_started = true;
        }
        const int width = 30;
        // The rate of this run: bytes counted as already there (a resumed part) are not received.
        const double seconds = std::chrono::duration<double>(t - m_start).count();
        const double rate = seconds > 0.2 ? (now - m_startNow) / seconds : 0.0;
        if (total > 0) {
            now = std::min(now, total);
            int filled = static_cast<int>(width * now / total);
            std::fprintf(stderr, "\r[%-*s] %5.1f%% %.0f/%.0f %s %s/s %s   ", width,
                         std::string(filled, '#').c_str(), 100.0 * now / total, now, total, m_unit,
                         Human(rate).c_str(),
                         rate > 0 ? ("ETA " + Clock((total - now) / rate)).c_str() : "ETA --:--");
        } else {
            std::fprintf(stderr, "\r%.0f %s %s/s   ", now, m_unit, Human(rate).c_str());
        }
        m_drawn = true;
    }
    // "12.3M": a byte count with a binary unit, as curl shows it.
    static std::string Human(double bytes) {
        const char* units = "BKMGT";
        int unit = 0;
        while (bytes >= 1024 && unit < 4) {
            bytes /= 1024;
            ++unit;
        }
        char text[32];
        std::snprintf(text, sizeof text, unit == 0 ? "%.0f%c" : "%.1f%c", bytes, units[unit]);
        return text;
    }
    // "1:02:03" or "02:03".
    static std::string Clock(double seconds) {
        const long s = static_cast<long>(seconds + 0.5);
        char text[32];
        if (s >= 3600)
            std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
        else
            std::snprintf(text, sizeof text, "%02ld:%02ld", s / 60, s % 60);
        return text;
    }
    // Ends the bar's line, if one was drawn.
    void Finish() {
        if (m_drawn) std::fprintf(stderr, "\n");
        m_drawn = false;
    }

private:
    const char* m_unit;
    std::chrono::steady_clock::time_point m_last{};
    double m_lastNow = -1;
    bool m_drawn = false;
    bool m_started = false;
    std::chrono::steady_clock::time_point m_start{};
    double m_startNow = 0;
};

// "12.345 Mbit/s (1543210 bytes in 1000 ms)", in 10^6 bit per second; a probe that received for less
// than a second gives bytes and time only, which say more than a rate of so short a sample.
std::string SpeedLine(DWORD bytes, DWORD ms) {
    char line[128];
    if (bytes == 0)
        std::snprintf(line, sizeof line, "no data received");
    else if (ms < 1000)
        std::snprintf(line, sizeof line, "%u bytes in %u ms (under a second: no rate given)",
                      static_cast<unsigned>(bytes), static_cast<unsigned>(ms));
    else
        std::snprintf(line, sizeof line, "%.3f Mbit/s (%u bytes in %u ms; 1 Mbit = 10^6 bit)",
                      bytes * 8.0 / (ms / 1000.0) / 1e6, static_cast<unsigned>(bytes),
                      static_cast<unsigned>(ms));
    return line;
}

} // namespace

int RunDownload(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, kDownloadFlags, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "download URL FILE");
    if (!bad.empty()) return Fail(bad);
    if (!ProxyArgument().empty()) return Fail("download takes no --proxy; --system-proxy applies");
    if (int missing = NeedDll("download", kCurlDll)) return missing;
    ProgressBar bar;
    const bool draw = isatty(STDOUT_FILENO);
    // A resumed download reports the kept bytes as done from its first progress call on.
    bool first = true;
    client.SetProgressObserver([&](double total, double now) {
        if (first && now > 0) std::fprintf(stderr, "resumed at %.0f bytes\n", now);
        first = false;
        if (draw) bar(total, now);
    });
    const int ok = client.DownloadFile(args[0], args[1], "");
    bar.Finish();
    ReportProxy(client);
    if (!ok) return TransferFailed("download", client);
    std::printf("%s: %u bytes\n", args[1].c_str(), static_cast<unsigned>(client.GetTotalSize()));
    return 0;
}

// The file is checked by the library before anything is sent: a folder or an unreadable file fails.
int RunUpload(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, kResponseFlags, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "upload URL FILE");
    if (!bad.empty()) return Fail(bad);
    if (int missing = NeedDll("upload", kCurlDll)) return missing;
    std::string response;
    const int ok = client.HttpPostFile(args[0], ProxyArgument(), "", args[1], response);
    ReportProxy(client);
    if (!ok) return TransferFailed("upload", client);
    return Answer("upload", client, flags, response);
}

int RunSpeed(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, 0, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "speed URL SECONDS");
    if (!bad.empty()) return Fail(bad);
    if (!ProxyArgument().empty()) return Fail("speed takes no --proxy; --system-proxy applies");
    char* end = nullptr;
    long seconds = std::strtol(args[1].c_str(), &end, 10);
    if (end == args[1].c_str() || *end != '\0' || seconds <= 0 || seconds > 3600)
        return Fail("SECONDS must be a whole number from 1 to 3600, not '" + args[1] + "'");
    if (int missing = NeedDll("speed", kCurlDll)) return missing;
    // On a terminal the bar shows the probe's time running out.
    ProgressBar bar("ms");
    const auto start = std::chrono::steady_clock::now();
    if (isatty(STDOUT_FILENO))
        client.SetProgressObserver([&](double, double) {
            auto elapsed =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start);
            bar(seconds * 1000.0, elapsed.count());
        });
    client.TestNetSpeed(args[0], static_cast<int>(seconds));
    bar.Finish();
    ReportProxy(client);
    // The time limit ending a long stream is the probe's ordinary end and no failure; an error status
    // is one: its page says nothing of the speed.
    if (!client.GetErrorText().empty()) return TransferFailed("speed probe", client);
    const DWORD bytes = client.GetTotalSize();
    std::printf("%s\n",
                SpeedLine(bytes, bytes > 0 ? client.GetEndTime() - client.GetStartTime() : 0).c_str());
    return 0;
}

} // namespace zoth_cli
