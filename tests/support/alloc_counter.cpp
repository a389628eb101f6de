#include "alloc_counter.h"

#include <errno.h>
#include <string.h>

#include <new>

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

// What the armed thread got from calloc, in order.
void* g_calloc_returned[16384];
unsigned g_calloc_returned_n = 0;

inline void count_allocation() {
    if (t_counting && !emutv::inside_emulator())
        t_allocations++;
}

void* checked(void* p) {
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* armed_calloc(size_t count, size_t size) {
    unsigned index = ++t_calloc_count;
    void* p;
    if (index == t_calloc_trap_at && t_calloc_trap == ruvo_test::CallocTrap::Fail) {
        p = nullptr;
    } else if (index == t_calloc_trap_at && t_calloc_trap == ruvo_test::CallocTrap::Dirty) {
        p = __libc_malloc(count * size);
        if (p)
            memset(p, 0xa5, count * size);
    } else {
        p = __libc_calloc(count, size);
    }
    if (g_calloc_returned_n < sizeof(g_calloc_returned) / sizeof(g_calloc_returned[0]))
        g_calloc_returned[g_calloc_returned_n++] = p;
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

void* operator new(size_t size) {
    count_allocation();
    return checked(__libc_malloc(size ? size : 1));
}
void* operator new[](size_t size) {
    count_allocation();
    return checked(__libc_malloc(size ? size : 1));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    count_allocation();
    return __libc_malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    count_allocation();
    return __libc_malloc(size ? size : 1);
}
void operator delete(void* p) noexcept {
    __libc_free(p);
}
void operator delete[](void* p) noexcept {
    __libc_free(p);
}
void operator delete(void* p, size_t) noexcept {
    __libc_free(p);
}
void operator delete[](void* p, size_t) noexcept {
    __libc_free(p);
}
