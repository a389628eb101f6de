// The malloc family of the programs that link it, wrapped around the C library's own
// allocator; the modes are described in ruvo_kit/alloc_interposer.h.
#include "ruvo_kit/alloc_interposer.h"

#include <errno.h>
#include <link.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#include "emutv/emutv.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {

// ---- Per-thread counting ----

thread_local bool t_counting = false;
thread_local size_t t_allocations = 0;

// ---- Calloc traps ----

thread_local bool t_calloc_armed = false;
thread_local unsigned t_calloc_count = 0;
thread_local unsigned t_calloc_trap_at = 0;
thread_local ruvo_kit::CallocTrap t_calloc_trap = ruvo_kit::CallocTrap::None;

// What the armed thread asked calloc for and got, in order.
constexpr unsigned kMaxCallocs = 16384;
void* g_calloc_returned[kMaxCallocs];
size_t g_calloc_sizes[kMaxCallocs];
unsigned g_calloc_returned_n = 0;
size_t g_calloc_failed_size = 0;

// ---- Call-site counting ----

std::atomic<bool> g_site_counting{false};
std::atomic<long> g_site_total{0};
std::atomic<long> g_site_own{0};
thread_local int t_in_site_counter = 0;

// The program's own code, from its executable loadable segment.
uintptr_t g_program_begin = 0;
uintptr_t g_program_end = 0;

int find_program(struct dl_phdr_info* info, size_t, void*) {
    if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0')
        return 0;  // a shared object
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X) != 0) {
            g_program_begin = info->dlpi_addr + ph.p_vaddr;
            g_program_end = g_program_begin + ph.p_memsz;
        }
    }
    return 1;
}

void count_for_thread() {
    if (t_counting && !emutv::inside_emulator())
        t_allocations++;
}

void count_call_site(const void* caller) {
    if (!g_site_counting.load(std::memory_order_relaxed) || t_in_site_counter != 0 ||
        emutv::inside_emulator())
        return;
    t_in_site_counter = 1;
    g_site_total.fetch_add(1, std::memory_order_relaxed);
    const uintptr_t a = reinterpret_cast<uintptr_t>(caller);
    if (a >= g_program_begin && a < g_program_end)
        g_site_own.fetch_add(1, std::memory_order_relaxed);
    t_in_site_counter = 0;
}

__attribute__((noinline)) void count_allocation(const void* caller) {
    count_for_thread();
    count_call_site(caller);
}

void* armed_calloc(size_t count, size_t size) {
    unsigned index = ++t_calloc_count;
    void* p;
    if (index == t_calloc_trap_at && t_calloc_trap == ruvo_kit::CallocTrap::Fail) {
        p = nullptr;
        g_calloc_failed_size = count * size;
    } else if (index == t_calloc_trap_at && t_calloc_trap == ruvo_kit::CallocTrap::Dirty) {
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

namespace ruvo_kit {

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

void start_call_site_count() {
    if (g_program_end == 0)
        dl_iterate_phdr(find_program, nullptr);
    g_site_total.store(0);
    g_site_own.store(0);
    g_site_counting.store(true);
}

CallSiteCounts stop_call_site_count() {
    g_site_counting.store(false);
    CallSiteCounts c;
    c.total = g_site_total.load();
    c.own = g_site_own.load();
    return c;
}

}  // namespace ruvo_kit

// Each entry point counts with its own caller's address.
#define COUNT() count_allocation(__builtin_return_address(0))

extern "C" {

void* ruvo_kit_malloc_for_new(size_t size, const void* caller) {
    count_allocation(caller);
    return __libc_malloc(size);
}

void* malloc(size_t size) {
    COUNT();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    COUNT();
    return t_calloc_armed ? armed_calloc(count, size) : __libc_calloc(count, size);
}

void* realloc(void* ptr, size_t size) {
    COUNT();
    return __libc_realloc(ptr, size);
}

void free(void* ptr) {
    __libc_free(ptr);
}

void* memalign(size_t alignment, size_t size) {
    COUNT();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    COUNT();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    COUNT();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}

}  // extern "C"
