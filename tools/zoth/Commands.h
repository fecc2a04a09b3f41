// The zoth tool: one command table per subsystem and a demo that each subsystem adds a section to.
#pragma once

#include <string>
#include <vector>

namespace zoth_cli {

using Args = std::vector<std::string>; // the arguments behind the command name

struct Command {
    const char* name;    // "md5"
    const char* usage;   // "md5 FILE | md5 -s TEXT"
    const char* summary; // one line for `zoth --help`
    int (*run)(const Args& args);
};

// Prints "zoth: <message>" on stderr and returns the exit code for bad input (2).
int Fail(const std::string& message);
// Prints "zoth: <message>" on stderr and returns the exit code for a failed operation (1).
int Error(const std::string& message);
// Reads all of standard input as bytes.
std::string ReadStdin();

// Collects what the demo did; `zoth demo` prints the rows as a table at the end.
class Demo {
public:
    struct Row {
        std::string subsystem;
        std::string step;
        bool ok;
        std::string detail;
    };
    explicit Demo(std::string workDir) : m_workDir(std::move(workDir)) {}
    // A folder of the demo's own, removed when the demo ends.
    const std::string& WorkDir() const { return m_workDir; }
    // Records one step and prints it as it happens.
    void Step(const std::string& subsystem, const std::string& step, bool ok, const std::string& detail);
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
