// zoth commands and demo section of the http subsystem.
#include "Commands.h"

namespace zoth_cli {

std::vector<Command> HttpCommands() {
    return {};
}

void HttpDemo(Demo&) {}

} // namespace zoth_cli
