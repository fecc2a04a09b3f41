// Throughput of the URL and string operations: escaping and unescaping, splitting, formatting and
// GUID text. No peer: these figures watch for regressions.
#include "zoth/text/STRING_UTIL.h"

#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

using ZOTH::STRING_UTIL;

namespace {

// Mixed URL-like text: mostly unreserved bytes, some spaces, punctuation and bytes above 0x7F.
std::string MixedText(size_t size) {
    static const char kPool[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.~ /?&=%+\xC3\xA4\xE4\xB8\xAD";
    std::mt19937 rng(7);
    std::string text(size, ' ');
    for (char& c : text)
        c = kPool[rng() % (sizeof(kPool) - 1)];
    return text;
}

void BM_UrlEncode(benchmark::State& state) {
    std::string text = MixedText(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::UrlEncode(text));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_UrlEncode)->Arg(64)->Arg(64 << 10);

void BM_UrlDecode(benchmark::State& state) {
    std::string escaped = STRING_UTIL::UrlEncode(MixedText(static_cast<size_t>(state.range(0))));
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::UrlDecode(escaped));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(escaped.size()));
}
BENCHMARK(BM_UrlDecode)->Arg(64)->Arg(64 << 10);

void BM_Url2Params(benchmark::State& state) {
    std::string url = "https://example.com/path/page?";
    for (int i = 0; i < 20; ++i)
        url += "key" + std::to_string(i) + "=value" + std::to_string(i) + "&";
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::Url2Params(url));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_Url2Params);

void BM_SplitStringA(benchmark::State& state) {
    std::string csv;
    for (int i = 0; csv.size() < (64u << 10); ++i)
        csv += "field" + std::to_string(i) + (i % 7 == 0 ? ",," : ",");
    for (auto _ : state) {
        std::vector<std::string> pieces;
        STRING_UTIL::SplitStringA(csv, ',', pieces, 1);
        benchmark::DoNotOptimize(pieces.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(csv.size()));
}
BENCHMARK(BM_SplitStringA);

void BM_StdFormatA(benchmark::State& state) {
    int n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::StdFormatA("%d.%d.%d.%d", 10, n++ & 0xFF, 3, 4567));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_StdFormatA);

void BM_StdFormatW(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::StdFormatW(L"%ls-%d", L"build", 42));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_StdFormatW);

void BM_GetGuid(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(STRING_UTIL::GetGuid());
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_GetGuid);

} // namespace

BENCHMARK_MAIN();
