// zoth commands and demo section of the database subsystem.
#include "Commands.h"

namespace zoth_cli {

std::vector<Command> DatabaseCommands() {
    return {};
}

void DatabaseDemo(Demo&) {}

} // namespace zoth_cli
