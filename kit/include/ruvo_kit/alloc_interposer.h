// The one replacement of the process's allocator in a test or benchmark program, in two
// parts a program links as it needs:
//
// - ruvo_new_hook (new_hook.cpp): the global operator new/delete. They allocate through
//   the malloc family below when the program has it, through the C library's otherwise,
//   and the plain operator new shows every block it hands out to a hook. A program run
//   under a sanitizer links only this part: the sanitizer's allocator stays in place.
// - ruvo_alloc_interposer (alloc_interposer.cpp): the malloc family, wrapped around the C
//   library's own allocator, with three modes that may run together:
//     * per-thread counting: what the calling thread allocates between start and stop;
//     * calloc traps: on the armed thread, make one chosen calloc fail or hand out
//       uninitialised memory, and remember what every calloc asked for and returned;
//     * call-site counting: what every thread allocates, told apart by where the call
//       comes from (the program's own code, or a shared library).
//   What the emulated platform allocates for its own record is never counted.
#pragma once

#include <stddef.h>

namespace ruvo_kit {

// ---- ruvo_new_hook ----------------------------------------------------------------------

// Called on the allocating thread with every block of the plain (throwing) operator new.
using NewHook = void (*)(void* p, size_t size);
// One hook per program; null removes it.
void set_new_hook(NewHook hook);

// ---- ruvo_alloc_interposer: per-thread counting ----------------------------------------

// Counts the heap allocations the calling thread makes between start() and stop().
class AllocationCounter {
  public:
    void start();
    size_t stop();
};

// ---- ruvo_alloc_interposer: calloc traps ------------------------------------------------

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

// ---- ruvo_alloc_interposer: call-site counting ------------------------------------------

struct CallSiteCounts {
    long total = 0;
    long own = 0;  // allocated from the program's own code (the library, linked statically, too)
};

void start_call_site_count();
CallSiteCounts stop_call_site_count();

}  // namespace ruvo_kit
