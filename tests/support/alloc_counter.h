// The counting allocator under the names its tests use: a front of the kit's allocation
// interposer (ruvo_kit/alloc_interposer.h; target ruvo_alloc_counter). It replaces the
// process's malloc family, counts what the calling thread allocates (leaving out what the
// emulated platform allocates for its own record), and can make one chosen calloc fail or
// hand out uninitialised memory.
#pragma once

#include "ruvo_kit/alloc_interposer.h"

namespace ruvo_test {

using ruvo_kit::AllocationCounter;
using ruvo_kit::arm_calloc;
using ruvo_kit::calloc_ordinal_of;
using ruvo_kit::calloc_size_of;
using ruvo_kit::CallocTrap;
using ruvo_kit::disarm_calloc;
using ruvo_kit::last_failed_size;

}  // namespace ruvo_test
