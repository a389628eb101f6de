// The one replacement of the global operator new/delete in a test program that links it:
// they allocate with malloc and release with free (the counting allocator's when the
// program has it, alloc_counter.h), and the plain operator new shows every block it hands
// out to a hook. Test helpers that must see the library's allocations register a hook
// here instead of replacing operator new again.
#pragma once

#include <stddef.h>

namespace ruvo_test {

// Called on the allocating thread with every block of the plain (throwing) operator new.
using NewHook = void (*)(void* p, size_t size);
// One hook per program; null removes it.
void set_new_hook(NewHook hook);

}  // namespace ruvo_test
