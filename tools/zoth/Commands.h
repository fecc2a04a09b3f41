// The zoth tool: one command table per subsystem and a demo that each subsystem adds a section to.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <winsock2.h> // before <windows.h>, as the library's headers include them
#include <windows.h>
#endif

namespace zoth_cli {

using Args = std::vector<std::string>; // the arguments behind the command name

struct Command {
    const char* name;    // "md5"
    const char* usage;   // "md5 FILE | md5 -s TEXT"
    const char* summary; // one line for `zoth --help`, and the first of `zoth md5 --help`
    int (*run)(const Args& args);
    const char* options = nullptr; // lines shown after the usage by `zoth md5 --help`, if any
};

// Prints "zoth: <message>" on stderr and returns the exit code for bad input (2).
int Fail(const std::string& message);
// Prints "zoth: <message>" on stderr and returns the exit code for a failed operation (1).
int Error(const std::string& message);
// Usage errors of `command` (exit 2), one line each, ending with a pointer to its help:
// "zoth: md5: <problem>; see zoth md5 --help".
inline int Usage(const std::string& command, const std::string& problem) {
    return Fail(command + ": " + problem + "; see zoth " + command + " --help");
}
// An argument beyond what `command` takes.
inline int Extra(const std::string& command, const std::string& argument) {
    return Usage(command, "unexpected argument '" + argument + "'");
}
// An option that `command` does not know.
inline int UnknownOption(const std::string& command, const std::string& option) {
    return Usage(command, "unknown option '" + option + "'");
}
// Whether `argument` has the form of an option ("-x", "--x"; "-" alone names standard input).
inline bool IsOption(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-';
}
// Reads all of standard input as bytes.
std::string ReadStdin();
// `md5 -`: streams standard input through MD5 in constant memory and prints "<hex>  -"; 1 with a
// message when it cannot be read.
int Md5OfStdin();

// The DLLs that the Windows build delay-loads: the library links against them but loads each only on
// its first call, which ends the program with an exception when the DLL cannot be loaded.
constexpr const char* kCurlDll = "libcurl-x64.dll";
constexpr const char* kSqliteDll = "sqlite3.dll";
// Whether `dll` can be loaded, tried before the first call into it. Elsewhere the libraries are
// linked as usual and always there.
inline bool CanLoadDll(const char* dll) {
#if defined(_WIN32)
    HMODULE module = LoadLibraryA(dll);
    if (module == nullptr) return false;
    FreeLibrary(module);
    return true;
#else
    (void)dll;
    return true;
#endif
}
// 0 when `dll` can be loaded; else says in one line that `command` needs it and returns 1.
inline int NeedDll(const char* command, const char* dll) {
    return CanLoadDll(dll) ? 0 : Error(std::string(command) + " needs " + dll + ", which cannot be loaded");
}

// Collects what the demo did; `zoth demo` prints the rows as a table at the end.
class Demo {
public:
    struct Row {
        std::string subsystem;
        std::string step;
        bool ok;
        std::string detail;
        bool skipped = false; // not run: what it needs is missing here (`detail` says what)
    };
    explicit Demo(std::string workDir) : m_workDir(std::move(workDir)) {}
    // A folder of the demo's own, removed when the demo ends.
    const std::string& WorkDir() const { return m_workDir; }
    // Records one step and prints it as it happens.
    void Step(const std::string& subsystem, const std::string& step, bool ok, const std::string& detail);
    // Records a step that was not run, and why, and prints it.
    void Skip(const std::string& subsystem, const std::string& step, const std::string& reason) {
        m_rows.push_back({subsystem, step, true, reason, true});
        std::printf("[%-8s] %-4s %s: %s\n", subsystem.c_str(), "skip", step.c_str(), reason.c_str());
        std::fflush(stdout);
    }
    const std::vector<Row>& Rows() const { return m_rows; }

private:
    std::string m_workDir;
    std::vector<Row> m_rows;
};

// Each subsystem's file (cmd_<subsystem>.cpp) gives these two.
std::vector<Command> TextCommands();
void TextDemo(Demo& demo);
std::vector<Command> TaskCommands();
void TaskDemo(Demo& demo);
std::vector<Command> DatabaseCommands();
void DatabaseDemo(Demo& demo);
std::vector<Command> FileCommands();
void FileDemo(Demo& demo);
std::vector<Command> HttpCommands();
void HttpDemo(Demo& demo);

} // namespace zoth_cli
