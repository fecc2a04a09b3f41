// The hook between the library's file calls and the C library (see FileCallHook.cpp): it records the
// calls a thread makes and fails one chosen call.
#pragma once

#include <string>
#include <vector>

namespace zoth_test {

// One recorded call: its name ("fsync" of a folder is recorded as "fsync(folder)").
struct FileCall {
    std::string name;
};

// Starts recording the calls of the calling thread; when `failName` is not empty, its call number
// `failIndex` (from 0) fails with `failErrno` instead of running.
void ArmFileCalls(const std::string& failName = "", int failIndex = -1, int failErrno = 0);
// Stops and returns what was recorded since ArmFileCalls.
std::vector<std::string> DisarmFileCalls();
// Whether the chosen call was reached and failed.
bool FileCallFailed();

} // namespace zoth_test
