// zoth commands and demo section of the text subsystem.
#include "Commands.h"

#include "zoth/text/CTimeHelper.h"
#include "zoth/text/STRING_UTIL.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace zoth_cli {

namespace {

using ZOTH::CTimeHelper;
using ZOTH::STRING_UTIL;

// base64 encode|decode [TEXT]: TEXT, or all of standard input when it is absent.
int RunBase64(const Args& args) {
    if (args.empty() || args.size() > 2) return Fail("usage: base64 encode|decode [TEXT]");
    const std::string& mode = args[0];
    if (mode != "encode" && mode != "decode") return Fail("base64: unknown mode '" + mode + "'");
    std::string input = args.size() == 2 ? args[1] : ReadStdin();
    if (mode == "encode") {
        std::printf("%s\n", STRING_UTIL::Base64Encode(input).c_str());
        return 0;
    }
    // Piped text usually ends in a line break, which is no Base64 character.
    while (!input.empty() && (input.back() == '\n' || input.back() == '\r'))
        input.pop_back();
    std::string bytes = STRING_UTIL::Base64Decode(input);
    if (bytes.empty() && !input.empty()) return Error("base64: input is not valid Base64 text");
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return 0;
}

// url encode|decode|domain|params TEXT
int RunUrl(const Args& args) {
    if (args.size() != 2) return Fail("usage: url encode|decode|domain|params TEXT");
    const std::string& mode = args[0];
    const std::string& text = args[1];
    if (mode == "encode") {
        std::printf("%s\n", STRING_UTIL::UrlEncode(text).c_str());
    } else if (mode == "decode") {
        std::string bytes = STRING_UTIL::UrlDecode(text);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::printf("\n");
    } else if (mode == "domain") {
        std::printf("%s\n", STRING_UTIL::Url2Domain(text).c_str());
    } else if (mode == "params") {
        for (const auto& [key, value] : STRING_UTIL::Url2Params(text))
            std::printf("%s=%s\n", key.c_str(), value.c_str());
    } else {
        return Fail("url: unknown mode '" + mode + "'");
    }
    return 0;
}

int RunGuid(const Args& args) {
    if (!args.empty()) return Fail("guid takes no arguments");
    std::printf("%s\n", STRING_UTIL::GetGuid().c_str());
    return 0;
}

// time: the local clock in its three forms; time TICKS: those file-time ticks as text.
int RunTime(const Args& args) {
    if (args.size() > 1) return Fail("usage: time [TICKS]");
    if (args.size() == 1) {
        const std::string& text = args[0];
        char* end = nullptr;
        errno = 0;
        long long ticks = std::strtoll(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno == ERANGE)
            return Fail("time: TICKS must be a whole number");
        if (ticks < 0) return Error("time: negative tick counts have no date");
        std::printf("%s\n", CTimeHelper::GetCurrentTimeStamp(ticks).c_str());
        return 0;
    }
    _SYSTEMTIME now = CTimeHelper::GetLocalSystemTime();
    std::printf("local time:      %s\n",
                STRING_UTIL::StdFormatA("%d-%02d-%02d %02d:%02d:%02d.%03d", now.wYear, now.wMonth, now.wDay,
                                        now.wHour, now.wMinute, now.wSecond, now.wMilliseconds)
                    .c_str());
    std::printf("unix ms:         %lld\n", CTimeHelper::GetCurrentTimeStamp());
    std::printf("file-time ticks: %lld (local)\n", CTimeHelper::SystemTimeToInt64(now));
    return 0;
}

std::string Hex(const std::string& bytes) {
    return STRING_UTIL::Hex2String(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
                                   static_cast<unsigned int>(bytes.size()));
}

} // namespace

std::vector<Command> TextCommands() {
    return {
        {"base64", "base64 encode|decode [TEXT]",
         "Base64-encode or decode TEXT (standard input when TEXT is absent)", RunBase64},
        {"url", "url encode|decode|domain|params TEXT",
         "escape or unescape URL text, print its host part or its query parameters", RunUrl},
        {"guid", "guid", "print a new random GUID as 32 upper-case hex digits", RunGuid},
        {"time", "time [TICKS]",
         "print the local time, the Unix ms stamp and file-time ticks; or the text of TICKS", RunTime},
    };
}

void TextDemo(Demo& demo) {
    const char* kText = "text";

    // UTF-8 <-> UTF-16: German and Chinese letters survive both directions.
    const std::string utf8 = "Gr\xC3\xBC\xC3\x9F"
                             "e, \xE4\xB8\x96\xE7\x95\x8C";
    std::wstring wide = STRING_UTIL::Utf82Unicode(utf8);
    bool wideOk = wide == L"Gr\u00fc\u00dfe, \u4e16\u754c" && STRING_UTIL::Unicode2Utf8(wide) == utf8;
    demo.Step(kText, "UTF-8 <-> UTF-16", wideOk,
              std::to_string(utf8.size()) + " UTF-8 bytes <-> " + std::to_string(wide.size()) +
                  " UTF-16 units");

    // UTF-8 <-> ANSI (Windows-1252 by default): one byte per Latin letter.
    const std::string latin = "Gr\xC3\xBC\xC3\x9F"
                              "e";
    std::string ansi = STRING_UTIL::Utf82Asci(latin);
    bool ansiOk = ansi == "Gr\xFC\xDF"
                          "e" &&
                  STRING_UTIL::Asci2Utf8(ansi) == latin &&
                  STRING_UTIL::Unicode2Asci(STRING_UTIL::Asci2Unicode(ansi)) == ansi;
    demo.Step(kText, "UTF-8 <-> ANSI", ansiOk,
              "\"Gr\xC3\xBC\xC3\x9F"
              "e\" as ANSI bytes " +
                  Hex(ansi));

    // MD5 of a string, against the RFC 1321 test vector.
    unsigned char digest[16] = {};
    STRING_UTIL::String2Md5(std::string("abc"), digest);
    std::string md5 = STRING_UTIL::Hex2String(digest, 16);
    demo.Step(kText, "MD5 of \"abc\"", md5 == "900150983cd24fb0d6963f7d28e17f72", md5);

    // Base64 round trip of bytes with NULs in them.
    const std::string bytes("zoth\0demo\x01\xFF", 11);
    std::string b64 = STRING_UTIL::Base64Encode(bytes);
    bool b64Ok = STRING_UTIL::Base64Decode(b64) == bytes && STRING_UTIL::Base64Encode("Man") == "TWFu";
    demo.Step(kText, "Base64 round trip", b64Ok, "11 bytes <-> " + b64);

    // URL escaping round trip.
    const std::string raw = "a b&c=d/\xC3\xBC";
    std::string escaped = STRING_UTIL::UrlEncode(raw);
    bool urlOk = escaped == "a+b%26c%3Dd%2F%C3%BC" && STRING_UTIL::UrlDecode(escaped) == raw;
    demo.Step(kText, "URL encode/decode", urlOk, escaped);

    // Host part and query of a URL.
    const std::string url = "https://example.com:8443/path/page?q=zoth&lang=en&q=again";
    std::string host = STRING_UTIL::Url2Domain(url);
    auto params = STRING_UTIL::Url2Params(url);
    bool paramsOk = host == "example.com:8443" &&
                    STRING_UTIL::Url2DomainHasHttpType(url) == "https://" + host && params.size() == 2 &&
                    params["q"] == "zoth" && params["lang"] == "en";
    std::string listed;
    for (const auto& [key, value] : params)
        listed += " " + key + "=" + value;
    demo.Step(kText, "URL host and parameters", paramsOk, host + " |" + listed);

    // GUID text: 32 upper-case hex digits, fresh each time.
    std::string g1 = STRING_UTIL::GetGuid();
    std::string g2 = STRING_UTIL::GetGuid();
    bool guidOk =
        g1.size() == 32 && g1.find_first_not_of("0123456789ABCDEF") == std::string::npos && g1 != g2;
    demo.Step(kText, "GUID", guidOk, g1);

    // Time text: the local clock through ticks and back gives the same date-time text.
    _SYSTEMTIME now = CTimeHelper::GetLocalSystemTime();
    __int64 ticks = CTimeHelper::SystemTimeToInt64(now);
    _SYSTEMTIME back = CTimeHelper::Int64ToSystemTime(ticks);
    std::string text = CTimeHelper::GetCurrentTimeStamp(ticks);
    std::string expected = STRING_UTIL::StdFormatA("%d-%d-%d %d:%d:%d", now.wYear, now.wMonth, now.wDay,
                                                   now.wHour, now.wMinute, now.wSecond);
    __int64 stamp = CTimeHelper::GetCurrentTimeStamp();
    bool timeOk = ticks > 0 && text == expected && back.wDayOfWeek == now.wDayOfWeek &&
                  back.wMilliseconds == now.wMilliseconds && std::to_string(stamp).size() == 13 &&
                  CTimeHelper::GetCurrentDate().size() == 10;
    demo.Step(kText, "time text", timeOk, text + ", unix ms " + std::to_string(stamp));

    // Whole days between two tick counts; not later counts as 10.
    const __int64 day = 864000000000LL;
    bool daysOk = CTimeHelper::CompareTimespanFormatDays(ticks, ticks) == 10 &&
                  CTimeHelper::CompareTimespanFormatDays(ticks + 1, ticks) == 0 &&
                  CTimeHelper::CompareTimespanFormatDays(ticks + day, ticks) == 1 &&
                  CTimeHelper::CompareTimespanFormatDays(ticks + 3 * day - 1, ticks) == 2 &&
                  CTimeHelper::CompareTimespanFormatDays(ticks - day, ticks) == 10;
    demo.Step(kText, "CompareTimespanFormatDays", daysOk,
              "same 10, +1 tick 0, +1 day 1, +3 days-1 tick 2, -1 day 10");
}

} // namespace zoth_cli
