// zoth: a command-line face of the library, and its end-to-end demo.
#include "Commands.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <unistd.h>

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

int RunDemo(const Args& args) {
    if (!args.empty()) return Fail("demo takes no arguments");
    char pattern[] = "/tmp/zoth-demo-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return Error("cannot create a temporary folder");
    Demo demo(pattern);
    std::printf("zoth demo: working in %s\n\n", demo.WorkDir().c_str());
    TextDemo(demo);
    TaskDemo(demo);
    FileDemo(demo);
    HttpDemo(demo);
    DatabaseDemo(demo); // last: it stores the rows of the steps before it
    std::error_code ec;
    std::filesystem::remove_all(demo.WorkDir(), ec);

    size_t failed = 0;
    std::printf("\n%-10s %-34s %s\n", "subsystem", "step", "result");
    std::printf("%-10s %-34s %s\n", "---------", "----", "------");
    for (const Demo::Row& r : demo.Rows()) {
        std::printf("%-10s %-34s %s\n", r.subsystem.c_str(), r.step.c_str(), r.ok ? "ok" : "FAILED");
        failed += r.ok ? 0 : 1;
    }
    std::printf("\n%zu steps, %zu failed\n", demo.Rows().size(), failed);
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
            std::printf("usage: zoth %s\n%s\n", c.usage, c.summary);
            return 0;
        }
        return c.run(args);
    }
    return Fail("unknown command '" + name + "' (see zoth --help)");
}
