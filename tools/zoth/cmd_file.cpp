// zoth commands and demo section of the file subsystem.
#include "Commands.h"

namespace zoth_cli {

std::vector<Command> FileCommands() {
    return {};
}

void FileDemo(Demo&) {}

} // namespace zoth_cli
