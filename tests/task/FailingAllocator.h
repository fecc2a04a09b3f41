// The task test program replaces the global allocator with one that can be told to fail.
#pragma once

namespace task_test {

// Arms the calling thread: failAt > 0 makes the allocation that many calls from now throw
// std::bad_alloc (once), -1 makes every one throw, 0 disarms.
void FailAllocations(long failAt);

} // namespace task_test
