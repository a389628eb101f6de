// Threads of the calling process.
#pragma once

namespace ruvo_kit {

// The entries of /proc/self/task, -1 when it cannot be read. It does not allocate, so it
// may run while allocations are counted.
int thread_count();

}  // namespace ruvo_kit
