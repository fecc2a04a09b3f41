// zoth commands and demo section of the text subsystem.
#include "Commands.h"

namespace zoth_cli {

std::vector<Command> TextCommands() {
    return {};
}

void TextDemo(Demo&) {}

} // namespace zoth_cli
