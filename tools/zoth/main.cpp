// zoth: a command-line face of the library, and its end-to-end demo.
#include "Commands.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <random>

namespace zoth_cli {

int Fail(const std::string& message) {
    std::fprintf(stderr, "zoth: %s\n", message.c_str());
    return 2;
}

int Error(const std::string& message) {
    std::fprintf(stderr, "zoth: %s\n", message.c_str());
    return 1;
}

std::string ReadStdin() {
    std::string data((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    return data;
}

void Demo::Step(const std::string& subsystem, const std::string& step, bool ok, const std::string& detail) {
    m_rows.push_back({subsystem, step, ok, detail});
    std::printf("[%-8s] %-4s %s: %s\n", subsystem.c_str(), ok ? "ok" : "FAIL", step.c_str(), detail.c_str());
    std::fflush(stdout);
}

} // namespace zoth_cli

namespace {

using namespace zoth_cli;

std::vector<Command> AllCommands() {
    std::vector<Command> all;
    for (auto list : {TextCommands(), TaskCommands(), DatabaseCommands(), FileCommands(), HttpCommands()})
        all.insert(all.end(), list.begin(), list.end());
    return all;
}

void PrintHelp(const std::vector<Command>& commands) {
    std::printf("usage: zoth COMMAND [ARGS...]\n       zoth COMMAND --help\n       zoth --version\n\n");
    std::printf("  %-14s %s\n", "demo", "walk every subsystem end to end and print a summary");
    for (const Command& c : commands)
        std::printf("  %-14s %s\n", c.name, c.summary);
    std::printf("\nget, post, put, download, upload and speed take --verify (check the HTTPS server's\n"
                "certificate and host name against the system trust store) and --cacert FILE (trust the\n"
                "CA in FILE instead; implies --verify) before the URL. Without them HTTPS is encrypted\n"
                "but not authenticated: any certificate is accepted.\n");
}

// A new folder of our own in the system's temporary folder (an existing name is never reused);
// empty on failure.
std::string MakeWorkDir() {
    std::error_code ec;
    const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    if (ec) return "";
    std::mt19937_64 random(
        std::random_device{}() ^
        static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count()));
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::filesystem::path dir = base / ("zoth-demo-" + std::to_string(random() % 1000000000));
        if (!std::filesystem::create_directory(dir, ec)) continue;
        // Ours alone, as mkdtemp would make it.
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all, ec);
        return dir.string();
    }
    return "";
}

int RunDemo(const Args& args) {
    if (!args.empty()) return Fail("demo takes no arguments");
    const std::string workDir = MakeWorkDir();
    if (workDir.empty()) return Error("cannot create a temporary folder");
    Demo demo(workDir);
    std::printf("zoth demo: working in %s\n\n", demo.WorkDir().c_str());
    TextDemo(demo);
    TaskDemo(demo);
    FileDemo(demo);
    HttpDemo(demo);
    DatabaseDemo(demo); // last: it stores the rows of the steps before it
    std::error_code ec;
    std::filesystem::remove_all(demo.WorkDir(), ec);

    size_t failed = 0, skipped = 0;
    std::printf("\n%-10s %-34s %s\n", "subsystem", "step", "result");
    std::printf("%-10s %-34s %s\n", "---------", "----", "------");
    for (const Demo::Row& r : demo.Rows()) {
        std::printf("%-10s %-34s %s\n", r.subsystem.c_str(), r.step.c_str(),
                    r.skipped ? "skipped"
                    : r.ok    ? "ok"
                              : "FAILED");
        failed += r.ok ? 0 : 1;
        skipped += r.skipped ? 1 : 0;
    }
    std::printf("\n%zu steps, %zu failed", demo.Rows().size(), failed);
    if (skipped > 0) std::printf(", %zu skipped (see above why)", skipped);
    std::printf("\n");
    return failed == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Command> commands = AllCommands();
    if (argc < 2) {
        PrintHelp(commands);
        return 2;
    }
    std::string name = argv[1];
    Args args(argv + 2, argv + argc);
    if (name == "--help" || name == "-h" || name == "help") {
        PrintHelp(commands);
        return 0;
    }
    if (name == "--version") {
        std::printf("zoth %s\n", ZOTH_VERSION);
        return 0;
    }
    if (name == "demo") {
        if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
            std::printf("usage: zoth demo\n");
            return 0;
        }
        return RunDemo(args);
    }
    for (const Command& c : commands) {
        if (name != c.name) continue;
        if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
            std::printf("%s\n\nusage: zoth %s\n", c.summary, c.usage); // what it does, then how
            return 0;
        }
        return c.run(args);
    }
    return Fail("unknown command '" + name + "' (see zoth --help)");
}
