// SQL text cut into its statements, for `zoth sql`, which runs each in turn.
#pragma once

#include <string>
#include <vector>

namespace zoth_cli {

// The statements of `sql` in order, each up to and with its ';' (the last may lack one). A ';' inside
// a quoted text or name ('', "", ``, []), a comment (--, /* */) or the body of a CREATE TRIGGER (up
// to its END) ends nothing. Pieces of nothing but blanks, comments and ';' are left out.
std::vector<std::string> SplitStatements(const std::string& sql);

} // namespace zoth_cli
