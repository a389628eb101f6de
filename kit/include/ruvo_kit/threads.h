// Threads of the calling process.
#pragma once

#include <chrono>

namespace ruvo_kit {

// The entries of /proc/self/task, -1 when it cannot be read. It does not allocate, so it
// may run while allocations are counted.
int thread_count();

// Waits, looking every millisecond, until the process has no more threads than `baseline`
// (a thread_count() taken before): the threads started since have ended. True when they
// have; false when `limit` passed first, or at once when `baseline` is negative (the count
// could not be read).
bool wait_for_threads_to_end(int baseline, std::chrono::milliseconds limit);

}  // namespace ruvo_kit
