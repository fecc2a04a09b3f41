// URL escaping, splitting and GUID text against their peers in one run: libcurl's curl_easy_escape /
// curl_easy_unescape, absl::StrSplit, and POCO's URI::encode / URI::decode, StringTokenizer and
// UUIDGenerator; and, without a peer, formatting and query parameters, to watch for regressions.
// Run: build/release/bench/bench_url_strings --benchmark_repetitions=3 --benchmark_report_aggregates_only
#include "PeakRss.h"
#include "zoth/text/STRING_UTIL.h"

#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>
#include <Poco/UUIDGenerator.h>
#include <absl/strings/str_split.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sys/resource.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

using ZOTH::STRING_UTIL;

namespace {

constexpr size_t kSize = 64 << 10;

// Query text as clients send it: words of letters and digits joined by "=" and "&", now and then a
// space, "-", "." or a two-byte UTF-8 letter.
std::string QueryText(size_t size) {
    static const char kAlnum[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::mt19937 rng(11);
    std::string text;
    while (text.size() < size) {
        for (unsigned int n = 3 + rng() % 10; n > 0; --n)
            text += kAlnum[rng() % 62];
        unsigned int r = rng() % 100;
        text += r < 40 ? "=" : r < 80 ? "&" : r < 90 ? " " : r < 95 ? "-" : r < 98 ? "." : "\xC3\xA4";
    }
    text.resize(size);
    return text;
}

// Mixed URL-like text: mostly unreserved bytes, some spaces, punctuation and bytes above 0x7F.
std::string MixedText(size_t size) {
    static const char kPool[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.~ /?&=%+\xC3\xA4\xE4\xB8\xAD";
    std::mt19937 rng(7);
    std::string text(size, ' ');
    for (char& c : text)
        c = kPool[rng() % (sizeof(kPool) - 1)];
    return text;
}

const std::string& Text(int kind) {
    static const std::string query = QueryText(kSize), mixed = MixedText(kSize), shortMixed = MixedText(64);
    return kind == 0 ? query : kind == 1 ? mixed : shortMixed;
}

void Label(benchmark::State& state) {
    static const char* const kNames[] = {"query 64KiB", "mixed 64KiB", "mixed 64B"};
    state.SetLabel(kNames[state.range(0)]);
}

// POCO escapes only what its reserved list names besides the bytes it always escapes; naming every
// URI delimiter makes it escape what UrlEncode escapes (it writes a space as %20, not "+").
const std::string kPocoReserved = "!#$&'()*+,/:;=?@[]";

void UrlEncode_Zoth(benchmark::State& state) {
    const std::string& text = Text(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::UrlEncode(text));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    Label(state);
}

void UrlEncode_Curl(benchmark::State& state) {
    const std::string& text = Text(static_cast<int>(state.range(0)));
    CURL* curl = curl_easy_init();
    for (auto _ : state) {
        char* escaped = curl_easy_escape(curl, text.data(), static_cast<int>(text.size()));
        benchmark::DoNotOptimize(escaped);
        curl_free(escaped);
    }
    curl_easy_cleanup(curl);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    Label(state);
}

void UrlEncode_Poco(benchmark::State& state) {
    const std::string& text = Text(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::string escaped;
        Poco::URI::encode(text, kPocoReserved, escaped);
        benchmark::DoNotOptimize(escaped.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    Label(state);
}

// Decoding rows take the escaped form of the same text; bytes are counted on the escaped side.
const std::string& Escaped(int kind) {
    static const std::string escaped[] = {STRING_UTIL::UrlEncode(Text(0)), STRING_UTIL::UrlEncode(Text(1)),
                                          STRING_UTIL::UrlEncode(Text(2))};
    return escaped[kind];
}

void UrlDecode_Zoth(benchmark::State& state) {
    const std::string& escaped = Escaped(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::UrlDecode(escaped));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * escaped.size()));
    Label(state);
}

// curl_easy_unescape leaves "+" alone, so its input has every space as %20 (same length).
void UrlDecode_Curl(benchmark::State& state) {
    std::string escaped = Escaped(static_cast<int>(state.range(0)));
    for (size_t at = escaped.find('+'); at != std::string::npos; at = escaped.find('+', at))
        escaped.replace(at, 1, "%20");
    CURL* curl = curl_easy_init();
    for (auto _ : state) {
        int length = 0;
        char* text = curl_easy_unescape(curl, escaped.data(), static_cast<int>(escaped.size()), &length);
        benchmark::DoNotOptimize(text);
        curl_free(text);
    }
    curl_easy_cleanup(curl);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * escaped.size()));
    Label(state);
}

void UrlDecode_Poco(benchmark::State& state) {
    const std::string& escaped = Escaped(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::string text;
        Poco::URI::decode(escaped, text, true);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * escaped.size()));
    Label(state);
}

// A 64 KiB line of short fields ("field123"), an empty one every seventh; empty pieces are kept.
const std::string& Line() {
    static const std::string line = [] {
        std::string csv;
        for (int i = 0; csv.size() < kSize; ++i)
            csv += "field" + std::to_string(i) + (i % 7 == 0 ? ",," : ",");
        return csv;
    }();
    return line;
}

void Split_Zoth(benchmark::State& state) {
    size_t pieces = 0;
    for (auto _ : state) {
        std::vector<std::string> fields;
        STRING_UTIL::SplitStringA(Line(), ',', fields, 1);
        pieces = fields.size();
        benchmark::DoNotOptimize(fields.data());
    }
    state.counters["pieces"] = static_cast<double>(pieces);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Line().size()));
}

void Split_Absl(benchmark::State& state) {
    size_t pieces = 0;
    for (auto _ : state) {
        std::vector<std::string> fields = absl::StrSplit(Line(), ',');
        pieces = fields.size();
        benchmark::DoNotOptimize(fields.data());
    }
    state.counters["pieces"] = static_cast<double>(pieces);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Line().size()));
}

void Split_Poco(benchmark::State& state) {
    size_t pieces = 0;
    for (auto _ : state) {
        Poco::StringTokenizer fields(Line(), ",");
        pieces = fields.count();
        benchmark::DoNotOptimize(&*fields.begin());
    }
    state.counters["pieces"] = static_cast<double>(pieces);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Line().size()));
}

void GetGuid_Zoth(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::GetGuid());
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// A random (version 4) UUID and its text, as POCO makes them.
void GetGuid_Poco(benchmark::State& state) {
    Poco::UUIDGenerator& generator = Poco::UUIDGenerator::defaultGenerator();
    for (auto _ : state)
        benchmark::DoNotOptimize(generator.createRandom().toString());
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void Url2Params_Zoth(benchmark::State& state) {
    std::string url = "https://example.com/path/page?";
    for (int i = 0; i < 20; ++i)
        url += "key" + std::to_string(i) + "=value" + std::to_string(i) + "&";
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::Url2Params(url));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void StdFormatA_Zoth(benchmark::State& state) {
    int n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::StdFormatA("%d.%d.%d.%d", 10, n++ & 0xFF, 3, 4567));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void StdFormatW_Zoth(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::StdFormatW(L"%ls-%d", L"build", 42));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

} // namespace

BENCHMARK(UrlEncode_Zoth)->DenseRange(0, 2);
BENCHMARK(UrlEncode_Curl)->DenseRange(0, 2);
BENCHMARK(UrlEncode_Poco)->DenseRange(0, 2);
BENCHMARK(UrlDecode_Zoth)->DenseRange(0, 2);
BENCHMARK(UrlDecode_Curl)->DenseRange(0, 2);
BENCHMARK(UrlDecode_Poco)->DenseRange(0, 2);
BENCHMARK(Split_Zoth);
BENCHMARK(Split_Absl);
BENCHMARK(Split_Poco);
BENCHMARK(GetGuid_Zoth);
BENCHMARK(GetGuid_Poco);
BENCHMARK(Url2Params_Zoth);
BENCHMARK(StdFormatA_Zoth);
BENCHMARK(StdFormatW_Zoth);

// Peak resident memory of the whole program, after every benchmark has run.
int main(int argc, char** argv) {
    return RunBenchmarksAndReportPeakRss(argc, argv);
}
