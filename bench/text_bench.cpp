// Throughput of the text kernels against their usual peers, in one run: MD5 against OpenSSL and
// POCO's MD5Engine, Base64 against OpenSSL's EVP block calls and POCO's Base64Encoder/Decoder,
// UTF-8 <-> UTF-16 against glibc iconv and POCO's UnicodeConverter, ReplaceAll against POCO's
// replaceInPlace and Abseil's StrReplaceAll (one pass each, which is all these inputs need).
// Run: build/release/bench/bench_text_bench --benchmark_min_time=0.5
#include "PeakRss.h"
#include "zoth/platform/Win32Text.h"
#include "zoth/text/STRING_UTIL.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/MD5Engine.h>
#include <Poco/String.h>
#include <Poco/UnicodeConverter.h>
#include <absl/strings/str_replace.h>
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <openssl/evp.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using ZOTH::STRING_UTIL;

namespace {

constexpr size_t kSize = 256 * 1024;

std::string RandomBytes(size_t n) {
    std::mt19937 random(42);
    std::string bytes(n, '\0');
    for (auto& b : bytes)
        b = static_cast<char>(random());
    return bytes;
}

// About kSize bytes of UTF-8 made of one phrase repeated.
std::string Repeat(const std::string& phrase) {
    std::string text;
    while (text.size() < kSize)
        text += phrase;
    return text;
}

const std::string& Sample(int kind) {
    static const std::string ascii = Repeat("The quick brown fox jumps over the lazy dog, 0123456789. ");
    static const std::string latin = Repeat(
        "L'\xC3\xA9t\xC3\xA9 \xC3\xA0 Z\xC3\xBCrich: \xC3\xA7\xC3\xA0 co\xC3\xBBte tr\xC3\xA8s cher. ");
    static const std::string cjk = Repeat("\xE4\xB8\xAD\xE6\x96\x87\xE6\xB5\x8B\xE8\xAF\x95\xE6\x96\x87"
                                          "\xE6\x9C\xAC\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xED\x95\x9C"
                                          "\xEA\xB5\xAD\xEC\x96\xB4");
    return kind == 0 ? ascii : kind == 1 ? latin : cjk;
}

const char* SampleName(int kind) {
    return kind == 0 ? "ascii" : kind == 1 ? "latin" : "cjk";
}

// ---- MD5 ----

void Md5Zoth(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    unsigned char digest[16];
    for (auto _ : state) {
        STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(data.data()),
                                static_cast<unsigned int>(data.size()), digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void Md5OpenSsl(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    unsigned char digest[16];
    unsigned int length = 0;
    for (auto _ : state) {
        EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void Md5Poco(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    Poco::MD5Engine md5;
    for (auto _ : state) {
        md5.update(data.data(), data.size());
        benchmark::DoNotOptimize(md5.digest().data()); // digest() also resets the engine
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

// ---- Base64 ----

void Base64EncodeZoth(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    for (auto _ : state) {
        std::string text = STRING_UTIL::Base64Encode(data);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void Base64EncodeOpenSsl(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    std::vector<unsigned char> text(data.size() / 3 * 4 + 8);
    for (auto _ : state) {
        int n = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(data.data()),
                                static_cast<int>(data.size()));
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

// POCO's encoder is a stream; line breaks are switched off so that the text matches ours.
void Base64EncodePoco(benchmark::State& state) {
    std::string data = RandomBytes(kSize);
    for (auto _ : state) {
        std::ostringstream text;
        Poco::Base64Encoder encoder(text);
        encoder.rdbuf()->setLineLength(0);
        encoder.write(data.data(), static_cast<std::streamsize>(data.size()));
        encoder.close();
        benchmark::DoNotOptimize(text.str().data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void Base64DecodeZoth(benchmark::State& state) {
    std::string text = STRING_UTIL::Base64Encode(RandomBytes(kSize));
    for (auto _ : state) {
        std::string bytes = STRING_UTIL::Base64Decode(text);
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void Base64DecodeOpenSsl(benchmark::State& state) {
    std::string text = STRING_UTIL::Base64Encode(RandomBytes(kSize));
    std::vector<unsigned char> bytes(text.size() / 4 * 3 + 8);
    for (auto _ : state) {
        int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// POCO's decoder is a stream too; the bytes are read into a buffer made once.
void Base64DecodePoco(benchmark::State& state) {
    std::string text = STRING_UTIL::Base64Encode(RandomBytes(kSize));
    std::vector<char> bytes(text.size() / 4 * 3 + 8);
    for (auto _ : state) {
        std::istringstream in(text);
        Poco::Base64Decoder decoder(in);
        decoder.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (decoder.gcount() != static_cast<std::streamsize>(kSize)) state.SkipWithError("short decode");
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// ---- UTF-8 <-> UTF-16 ----

void Utf8ToWideZoth(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::wstring wide = STRING_UTIL::Utf82Unicode(text);
        benchmark::DoNotOptimize(wide.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

void Utf8ToWideIconv(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    std::vector<char> out(text.size() * 2 + 16);
    for (auto _ : state) {
        char* in = const_cast<char*>(text.data());
        size_t inLeft = text.size();
        char* o = out.data();
        size_t outLeft = out.size();
        iconv(cd, &in, &inLeft, &o, &outLeft);
        benchmark::DoNotOptimize(out.data());
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

void Utf8ToWidePoco(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Poco::UTF16String wide;
        Poco::UnicodeConverter::convert(text, wide);
        benchmark::DoNotOptimize(wide.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

void WideToUtf8Zoth(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    std::wstring wide = STRING_UTIL::Utf82Unicode(text);
    for (auto _ : state) {
        std::string utf8 = STRING_UTIL::Unicode2Utf8(wide);
        benchmark::DoNotOptimize(utf8.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size())); // UTF-8 bytes
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

void WideToUtf8Iconv(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    std::wstring wide = STRING_UTIL::Utf82Unicode(text);
    std::vector<uint16_t> units(wide.begin(), wide.end());
    iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
    std::vector<char> out(text.size() + 16);
    for (auto _ : state) {
        char* in = reinterpret_cast<char*>(units.data());
        size_t inLeft = units.size() * 2;
        char* o = out.data();
        size_t outLeft = out.size();
        iconv(cd, &in, &inLeft, &o, &outLeft);
        benchmark::DoNotOptimize(out.data());
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

void WideToUtf8Poco(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    Poco::UTF16String wide;
    Poco::UnicodeConverter::convert(text, wide);
    for (auto _ : state) {
        std::string utf8;
        Poco::UnicodeConverter::convert(wide, utf8);
        benchmark::DoNotOptimize(utf8.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

// The platform call alone, into a buffer made once: the converter without allocation.
void Utf8ToWidePlatformCall(benchmark::State& state) {
    const std::string& text = Sample(static_cast<int>(state.range(0)));
    std::vector<wchar_t> out(text.size() + 1);
    for (auto _ : state) {
        int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                    static_cast<int>(out.size()));
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(SampleName(static_cast<int>(state.range(0))));
}

// 1 MiB in which every other byte is the one replaced: half a million matches.
const std::string& ManyMatches() {
    static const std::string text = [] {
        std::string t;
        for (size_t i = 0; t.size() < (1u << 20); ++i)
            t += "ax";
        return t;
    }();
    return text;
}

void ReplaceAllZoth(benchmark::State& state) {
    for (auto _ : state) {
        std::string text = ManyMatches();
        STRING_UTIL::ReplaceAll(text, "x", "");
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ManyMatches().size()));
}

void ReplaceAllPoco(benchmark::State& state) {
    for (auto _ : state) {
        std::string text = ManyMatches();
        Poco::replaceInPlace(text, std::string("x"), std::string());
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ManyMatches().size()));
}

void ReplaceAllAbseil(benchmark::State& state) {
    for (auto _ : state) {
        std::string text = absl::StrReplaceAll(ManyMatches(), {{"x", ""}});
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ManyMatches().size()));
}

} // namespace

BENCHMARK(ReplaceAllZoth)->Unit(benchmark::kMillisecond);
BENCHMARK(ReplaceAllPoco)->Unit(benchmark::kMillisecond);
BENCHMARK(ReplaceAllAbseil)->Unit(benchmark::kMillisecond);
BENCHMARK(Md5Zoth);
BENCHMARK(Md5OpenSsl);
BENCHMARK(Md5Poco);
BENCHMARK(Base64EncodeZoth);
BENCHMARK(Base64EncodeOpenSsl);
BENCHMARK(Base64EncodePoco);
BENCHMARK(Base64DecodeZoth);
BENCHMARK(Base64DecodeOpenSsl);
BENCHMARK(Base64DecodePoco);
BENCHMARK(Utf8ToWideZoth)->DenseRange(0, 2);
BENCHMARK(Utf8ToWideIconv)->DenseRange(0, 2);
BENCHMARK(Utf8ToWidePoco)->DenseRange(0, 2);
BENCHMARK(Utf8ToWidePlatformCall)->DenseRange(0, 2);
BENCHMARK(WideToUtf8Zoth)->DenseRange(0, 2);
BENCHMARK(WideToUtf8Iconv)->DenseRange(0, 2);
BENCHMARK(WideToUtf8Poco)->DenseRange(0, 2);

// Peak resident memory of the whole program, after every benchmark has run.
int main(int argc, char** argv) {
    return RunBenchmarksAndReportPeakRss(argc, argv);
}
