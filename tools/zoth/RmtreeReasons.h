// Why `zoth rmtree` refuses a folder, and what resisted when the removal fell short.
#pragma once

#include <string>

namespace zoth_cli {

// "" when `dir` may be removed; else why not, naming it: no such folder, not a folder, a link (not
// followed, not removed), the root, "." or "..".
std::string RmtreeRefusal(const std::string& dir);
// After a removal of `dir` that fell short: the first entry that still resists, with the reason,
// found by trying it once more with the library's own calls (what gives way now is removed).
std::string WhatResisted(const std::string& dir);

} // namespace zoth_cli
