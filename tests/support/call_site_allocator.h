// A replacement of the process's allocator that counts the allocations of every thread and
// tells apart those made from the program's own code (the library, linked statically, and
// the test) from those made inside shared libraries (libdrm, alsa-lib, the C library, the
// picture-quality client). What the emulated platform allocates for itself is not counted.
// For the programs that report what each call costs; it excludes alloc_counter.h.
#pragma once

namespace ruvo_test {

struct CallSiteCounts {
    long total = 0;
    long own = 0;  // allocated from the program's own code
};

void start_call_site_count();
CallSiteCounts stop_call_site_count();

}  // namespace ruvo_test
