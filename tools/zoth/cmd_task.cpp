// zoth commands and demo section of the task subsystem.
#include "Commands.h"

namespace zoth_cli {

std::vector<Command> TaskCommands() {
    return {};
}

void TaskDemo(Demo&) {}

} // namespace zoth_cli
