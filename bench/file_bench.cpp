// File subsystem against its peers: GetLocalFileList of a folder of 100k files vs
// std::filesystem::directory_iterator and POCO's DirectoryIterator, DeleteDirectory of a 100k-file
// tree vs rm -rf and POCO's File::remove(true) (GetFileMd5 is measured in bigfile_bench). The data
// lives in a folder under /tmp that is removed at the end.
#include "zoth/file/CPathHelper.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string g_root;

void MakeFiles(const std::string& dir, int count) {
    fs::create_directories(dir);
    for (int i = 0; i < count; ++i) {
        int fd = ::open((dir + "/file" + std::to_string(i) + ".dat").c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd < 0) std::abort();
        ::close(fd);
    }
}

std::string FlatFolder() {
    static std::string path;
    if (!path.empty()) return path;
    path = g_root + "/flat";
    MakeFiles(path, 100000);
    return path;
}

// 100 folders of 1000 files each.
void MakeTree(const std::string& root) {
    for (int d = 0; d < 100; ++d)
        MakeFiles(root + "/d" + std::to_string(d), 1000);
}

// Each listing runs back to back (argument 0) and from a heap given back to the system before each
// call (argument 1, malloc_trim), as a client that lists a folder now and then finds it. Back to
// back, whether glibc keeps the freed heap between calls depends on which small chunks happen to sit
// in its per-thread cache at the top of the heap; where page faults are dear (virtual machines) that
// alone moves the figures by 15% or more.
template <class List> void ListLoop(benchmark::State& state, List list) {
    std::string dir = FlatFolder();
    for (auto _ : state) {
        if (state.range(0) != 0) {
            state.PauseTiming();
            ::malloc_trim(0);
            state.ResumeTiming();
        }
        std::vector<std::string> files = list(dir);
        if (files.size() != 100000) state.SkipWithError("wrong count");
        benchmark::DoNotOptimize(files);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 100000);
}

void BM_GetLocalFileList_100k(benchmark::State& state) {
    ListLoop(state, [](const std::string& dir) { return ZOTH::CPathHelper::GetLocalFileList(dir, ""); });
}

void BM_directory_iterator_100k(benchmark::State& state) {
    ListLoop(state, [](const std::string& dir) {
        std::vector<std::string> files;
        for (const fs::directory_entry& entry : fs::directory_iterator(dir))
            if (!entry.is_directory()) files.push_back(entry.path().string());
        return files;
    });
}

// POCO's iterator gives names; telling files from folders takes a Poco::File test (a stat) each.
void BM_Poco_DirectoryIterator_100k(benchmark::State& state) {
    ListLoop(state, [](const std::string& dir) {
        std::vector<std::string> files;
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it)
            if (!it->isDirectory()) files.push_back(it->path());
        return files;
    });
}

void BM_DeleteDirectory_100k(benchmark::State& state) {
    std::string root = g_root + "/tree";
    for (auto _ : state) {
        state.PauseTiming();
        MakeTree(root);
        ::sync();
        state.ResumeTiming();
        if (ZOTH::CPathHelper::DeleteDirectory(root) != 1) state.SkipWithError("tree not removed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 100000);
}

void BM_rm_rf_100k(benchmark::State& state) {
    std::string root = g_root + "/tree";
    std::string command = "rm -rf '" + root + "'";
    for (auto _ : state) {
        state.PauseTiming();
        MakeTree(root);
        ::sync();
        state.ResumeTiming();
        if (std::system(command.c_str()) != 0 || fs::exists(root)) state.SkipWithError("rm -rf failed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 100000);
}

void BM_Poco_File_remove_100k(benchmark::State& state) {
    std::string root = g_root + "/tree";
    for (auto _ : state) {
        state.PauseTiming();
        MakeTree(root);
        ::sync();
        state.ResumeTiming();
        Poco::File(root).remove(true);
        if (fs::exists(root)) state.SkipWithError("tree not removed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 100000);
}
BENCHMARK(BM_GetLocalFileList_100k)
    ->ArgName("trimmed_heap")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);
BENCHMARK(BM_directory_iterator_100k)
    ->ArgName("trimmed_heap")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);
BENCHMARK(BM_Poco_DirectoryIterator_100k)
    ->ArgName("trimmed_heap")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);
BENCHMARK(BM_DeleteDirectory_100k)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_rm_rf_100k)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Poco_File_remove_100k)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

} // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/zoth-file-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 1;
    g_root = pattern;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(g_root, ec);
    return 0;
}
