#include "alloc_counter.h"

#include <errno.h>
#include <string.h>

#include "emutv/emutv.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {

thread_local bool t_counting = false;
thread_local size_t t_allocations = 0;

thread_local bool t_calloc_armed = false;
thread_local unsigned t_calloc_count = 0;
thread_local unsigned t_calloc_trap_at = 0;
thread_local ruvo_test::CallocTrap t_calloc_trap = ruvo_test::CallocTrap::None;

// What the armed thread asked calloc for and got, in order.
constexpr unsigned kMaxCallocs = 16384;
void* g_calloc_returned[kMaxCallocs];
size_t g_calloc_sizes[kMaxCallocs];
unsigned g_calloc_returned_n = 0;
size_t g_calloc_failed_size = 0;

inline void count_allocation() {
    if (t_counting && !emutv::inside_emulator())
        t_allocations++;
}

void* armed_calloc(size_t count, size_t size) {
    unsigned index = ++t_calloc_count;
    void* p;
    if (index == t_calloc_trap_at && t_calloc_trap == ruvo_test::CallocTrap::Fail) {
        p = nullptr;
        g_calloc_failed_size = count * size;
    } else if (index == t_calloc_trap_at && t_calloc_trap == ruvo_test::CallocTrap::Dirty) {
        p = __libc_malloc(count * size);
        if (p)
            memset(p, 0xa5, count * size);
    } else {
        p = __libc_calloc(count, size);
    }
    if (g_calloc_returned_n < kMaxCallocs) {
        g_calloc_returned[g_calloc_returned_n] = p;
        g_calloc_sizes[g_calloc_returned_n] = count * size;
        g_calloc_returned_n++;
    }
    return p;
}

}  // namespace

namespace ruvo_test {

void AllocationCounter::start() {
    t_allocations = 0;
    t_counting = true;
}

size_t AllocationCounter::stop() {
    t_counting = false;
    return t_allocations;
}

void arm_calloc(CallocTrap trap, unsigned at) {
    g_calloc_returned_n = 0;
    g_calloc_failed_size = 0;
    t_calloc_count = 0;
    t_calloc_trap = trap;
    t_calloc_trap_at = at;
    t_calloc_armed = true;
}

void disarm_calloc() {
    t_calloc_armed = false;
}

unsigned calloc_ordinal_of(const void* p) {
    for (unsigned i = g_calloc_returned_n; i > 0; i--)
        if (g_calloc_returned[i - 1] == p)
            return i;
    return 0;
}

size_t calloc_size_of(unsigned ordinal) {
    return ordinal >= 1 && ordinal <= g_calloc_returned_n ? g_calloc_sizes[ordinal - 1] : 0;
}

size_t last_failed_size() {
    return g_calloc_failed_size;
}

}  // namespace ruvo_test

extern "C" {

void* malloc(size_t size) {
    count_allocation();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    count_allocation();
    return t_calloc_armed ? armed_calloc(count, size) : __libc_calloc(count, size);
}

void* realloc(void* ptr, size_t size) {
    count_allocation();
    return __libc_realloc(ptr, size);
}

void free(void* ptr) {
    __libc_free(ptr);
}

void* memalign(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    count_allocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}

}  // extern "C"
