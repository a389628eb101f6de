// A replacement of the process's allocator for the programs that link it: the malloc
// family, wrapped around the C library's own allocator (the global operator new/delete
// come from new_hook.h and allocate through it). It counts what the calling thread
// allocates (leaving out what the emulated platform allocates for its own record), and it
// can make one chosen calloc fail or hand out uninitialised memory.
#pragma once

#include <stddef.h>

namespace ruvo_test {

// Counts the heap allocations the calling thread makes between start() and stop().
class AllocationCounter {
  public:
    void start();
    size_t stop();
};

enum class CallocTrap { None, Fail, Dirty };

// From now on, on the calling thread: count calloc calls and remember what each returned;
// the `at`-th one (1-based) fails or returns memory filled with 0xa5.
void arm_calloc(CallocTrap trap = CallocTrap::None, unsigned at = 0);
void disarm_calloc();
// 1-based ordinal of the armed calloc that last returned `p`, 0 if none did.
unsigned calloc_ordinal_of(const void* p);
// Bytes the armed calloc of 1-based `ordinal` asked for (count times size), 0 past the
// calls seen.
size_t calloc_size_of(unsigned ordinal);
// Bytes the failed armed calloc asked for, 0 while none failed since arm_calloc().
size_t last_failed_size();

}  // namespace ruvo_test
