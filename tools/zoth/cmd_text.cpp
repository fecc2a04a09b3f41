// zoth commands and demo section of the text subsystem.
#include "Commands.h"

#include "text/Md5.h"
#include "zoth/text/CTimeHelper.h"
#include "zoth/text/STRING_UTIL.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

namespace zoth_cli {

namespace {

using ZOTH::CTimeHelper;
using ZOTH::STRING_UTIL;

// Standard input and output as bytes, also on Windows, where they are text streams by default.
void BinaryStdio() {
#if defined(_WIN32)
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
#endif
}

// Reads the next piece of standard input, up to `most` bytes, into `piece` (replaced); false at the
// end or on a read error (then ferror(stdin) is set).
bool ReadPiece(std::string& piece, size_t most) {
    piece.resize(most);
    piece.resize(std::fread(piece.data(), 1, most, stdin));
    return !piece.empty();
}

bool Write(const std::string& bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
}

// Padding may only end the text, one or two '=' (the decoder reads "====" as a byte of its own).
bool PaddingOk(const std::string& text) {
    const size_t last = text.find_last_not_of('=');
    const size_t pads = last == std::string::npos ? text.size() : text.size() - last - 1;
    return pads <= 2 && (pads == 0 || text.find('=') == text.size() - pads) && pads < text.size();
}

constexpr size_t kPiece = 3 * 65536; // whole Base64 groups: a multiple of 3 and of 4

// Encodes standard input piece by piece: pieces of whole 3-byte groups encode to the text of the
// whole, so memory stays constant however long the input is.
int EncodeStdin() {
    std::string piece, carry;
    bool ok = true;
    while (ok && ReadPiece(piece, kPiece)) {
        carry += piece;
        size_t whole = carry.size() / 3 * 3;
        ok = Write(STRING_UTIL::Base64Encode(carry.substr(0, whole)));
        carry.erase(0, whole);
    }
    if (std::ferror(stdin)) return Error("base64: cannot read standard input");
    ok = ok && Write(STRING_UTIL::Base64Encode(carry)) && Write("\n") && std::fflush(stdout) == 0;
    return ok ? 0 : Error("base64: cannot write standard output");
}

// Decodes standard input piece by piece, as one call on the whole would: the text ends at its first
// NUL, trailing line breaks are dropped (unless a NUL came first), and padding may end the text only.
// Whole 4-character groups are decoded as they come; the last group and any trailing line breaks
// wait for the end. Bytes of groups before an invalid one are already written by then.
int DecodeStdin() {
    std::string piece, pending;
    bool sawNul = false, ok = true;
    auto invalid = [] { return Error("base64: input is not valid Base64 text"); };
    while (ok && !sawNul && ReadPiece(piece, kPiece)) {
        size_t nul = piece.find('\0');
        if (nul != std::string::npos) {
            piece.erase(nul);
            sawNul = true;
        }
        pending += piece;
        size_t keep = pending.find_last_not_of("\r\n");
        keep = keep == std::string::npos ? 0 : keep + 1;  // up to the trailing line breaks
        size_t ready = keep > 4 ? (keep - 4) / 4 * 4 : 0; // the last group waits
        if (ready == 0) continue;
        if (pending[ready - 1] == '=') return invalid(); // padding before the end
        std::string bytes = STRING_UTIL::Base64Decode(pending.substr(0, ready));
        if (bytes.empty()) return invalid();
        ok = Write(bytes);
        pending.erase(0, ready);
    }
    if (std::ferror(stdin)) return Error("base64: cannot read standard input");
    while (!sawNul && !pending.empty() && (pending.back() == '\n' || pending.back() == '\r'))
        pending.pop_back();
    if (!pending.empty()) {
        if (!PaddingOk(pending)) return invalid();
        std::string bytes = STRING_UTIL::Base64Decode(pending);
        if (bytes.empty()) return invalid();
        ok = ok && Write(bytes);
    }
    ok = ok && std::fflush(stdout) == 0;
    return ok ? 0 : Error("base64: cannot write standard output");
}

// base64 encode|decode [TEXT]: TEXT, or all of standard input when it is absent, streamed.
int RunBase64(const Args& args) {
    if (args.empty()) return Usage("base64", "needs encode or decode");
    if (args.size() > 2) return Extra("base64", args[2]);
    const std::string& mode = args[0];
    if (mode != "encode" && mode != "decode") return Usage("base64", "unknown mode '" + mode + "'");
    BinaryStdio();
    if (args.size() == 1) return mode == "encode" ? EncodeStdin() : DecodeStdin();
    std::string input = args[1];
    if (mode == "encode") {
        std::printf("%s\n", STRING_UTIL::Base64Encode(input).c_str());
        return 0;
    }
    // Text usually ends in a line break, which is no Base64 character.
    while (!input.empty() && (input.back() == '\n' || input.back() == '\r'))
        input.pop_back();
    if (!input.empty() && !PaddingOk(input)) return Error("base64: input is not valid Base64 text");
    std::string bytes = STRING_UTIL::Base64Decode(input);
    if (bytes.empty() && !input.empty()) return Error("base64: input is not valid Base64 text");
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return 0;
}

// Where `text` holds a "%" not followed by two hex digits, which no decoder can read back; npos when
// there is none.
size_t BadEscape(const std::string& text) {
    auto hex = [](char ch) { return std::isxdigit(static_cast<unsigned char>(ch)) != 0; };
    for (size_t at = text.find('%'); at != std::string::npos; at = text.find('%', at + 1))
        if (at + 2 >= text.size() || !hex(text[at + 1]) || !hex(text[at + 2])) return at;
    return std::string::npos;
}

// url encode|decode|domain|params TEXT
int RunUrl(const Args& args) {
    if (args.empty()) return Usage("url", "needs encode, decode, domain or params, and TEXT");
    const std::string& mode = args[0];
    if (mode != "encode" && mode != "decode" && mode != "domain" && mode != "params")
        return Usage("url", "unknown mode '" + mode + "'");
    if (args.size() < 2) return Usage("url", mode + " needs TEXT");
    if (args.size() > 2) return Extra("url", args[2]);
    const std::string& text = args[1];
    if (mode == "encode") {
        std::printf("%s\n", STRING_UTIL::UrlEncode(text).c_str());
    } else if (mode == "decode") {
        if (size_t at = BadEscape(text); at != std::string::npos)
            return Error("url: '" + text.substr(at, 3) + "' at byte " + std::to_string(at + 1) +
                         " is no escape (% and two hex digits)");
        std::string bytes = STRING_UTIL::UrlDecode(text);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::printf("\n");
    } else if (mode == "domain") {
        std::string host = STRING_UTIL::Url2Domain(text);
        if (host.empty()) return Error("url: no host in '" + text + "'");
        std::printf("%s\n", host.c_str());
    } else {
        for (const auto& [key, value] : STRING_UTIL::Url2Params(text))
            std::printf("%s=%s\n", key.c_str(), value.c_str());
    }
    return 0;
}

int RunGuid(const Args& args) {
    if (!args.empty()) return Extra("guid", args[0]);
    std::printf("%s\n", STRING_UTIL::GetGuid().c_str());
    return 0;
}

// time: the local clock in its three forms; time TICKS: those file-time ticks as text.
int RunTime(const Args& args) {
    if (args.size() > 1) return Extra("time", args[1]);
    if (args.size() == 1) {
        const std::string& text = args[0];
        char* end = nullptr;
        errno = 0;
        long long ticks = std::strtoll(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno == ERANGE)
            return Usage("time", "TICKS must be a whole number, not '" + text + "'");
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

int Md5OfStdin() {
    BinaryStdio();
    ZOTH::text::Md5Context context;
    ZOTH::text::Md5Init(context);
    std::string piece;
    while (ReadPiece(piece, kPiece))
        ZOTH::text::Md5Update(context, reinterpret_cast<const unsigned char*>(piece.data()),
                              static_cast<unsigned int>(piece.size()));
    if (std::ferror(stdin)) return Error("md5: cannot read standard input");
    ZOTH::text::Md5Final(context);
    std::printf("%s  -\n", STRING_UTIL::Hex2String(context.digest, 16).c_str());
    return 0;
}

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
