// The main of a benchmark program that ends by printing the whole program's peak resident memory.
#pragma once

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdio>

// Runs the benchmarks the command line selects, then prints "peak RSS: N MiB" (getrusage maxrss).
inline int RunBenchmarksAndReportPeakRss(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak RSS: %.1f MiB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
    return 0;
}
