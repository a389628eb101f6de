#include "call_site_allocator.h"

#include <errno.h>
#include <link.h>
#include <stdint.h>

#include <atomic>
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

std::atomic<bool> g_counting{false};
std::atomic<long> g_total{0};
std::atomic<long> g_own{0};
thread_local int t_in_counter = 0;

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

__attribute__((noinline)) void count_allocation(const void* caller) {
    if (!g_counting.load(std::memory_order_relaxed) || t_in_counter != 0 || emutv::inside_emulator())
        return;
    t_in_counter = 1;
    g_total.fetch_add(1, std::memory_order_relaxed);
    const uintptr_t a = reinterpret_cast<uintptr_t>(caller);
    if (a >= g_program_begin && a < g_program_end)
        g_own.fetch_add(1, std::memory_order_relaxed);
    t_in_counter = 0;
}

void* checked(void* p) {
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

}  // namespace

// Each entry point counts with its own caller's address.
#define COUNT() count_allocation(__builtin_return_address(0))

namespace ruvo_test {

void start_call_site_count() {
    if (g_program_end == 0)
        dl_iterate_phdr(find_program, nullptr);
    g_total.store(0);
    g_own.store(0);
    g_counting.store(true);
}

CallSiteCounts stop_call_site_count() {
    g_counting.store(false);
    CallSiteCounts c;
    c.total = g_total.load();
    c.own = g_own.load();
    return c;
}

}  // namespace ruvo_test

extern "C" {
void* malloc(size_t size) {
    COUNT();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    COUNT();
    return __libc_calloc(count, size);
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
}

void* operator new(size_t size) {
    COUNT();
    return checked(__libc_malloc(size ? size : 1));
}
void* operator new[](size_t size) {
    COUNT();
    return checked(__libc_malloc(size ? size : 1));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    COUNT();
    return __libc_malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    COUNT();
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
