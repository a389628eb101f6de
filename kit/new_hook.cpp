// The global operator new/delete. Kept apart from code that allocates, so that the
// compiler pairs every new with the delete below (also under a sanitizer's allocator).
#include <stdlib.h>

#include <atomic>
#include <new>

#include "ruvo_kit/alloc_interposer.h"

// The malloc family's entry for operator new (alloc_interposer.cpp), there when the program
// links it: it counts the block with the address operator new was called from.
extern "C" void* ruvo_kit_malloc_for_new(size_t size, const void* caller) __attribute__((weak));

namespace {

std::atomic<ruvo_kit::NewHook> g_new_hook{nullptr};

void* allocate(size_t size, const void* caller) {
    if (size == 0)
        size = 1;
    return ruvo_kit_malloc_for_new != nullptr ? ruvo_kit_malloc_for_new(size, caller) : malloc(size);
}

void* checked(void* p) {
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

}  // namespace

namespace ruvo_kit {

void set_new_hook(NewHook hook) {
    g_new_hook.store(hook);
}

}  // namespace ruvo_kit

#define CALLER() __builtin_return_address(0)

void* operator new(size_t size) {
    void* p = checked(allocate(size, CALLER()));
    if (ruvo_kit::NewHook hook = g_new_hook.load(std::memory_order_relaxed))
        hook(p, size);
    return p;
}
void* operator new[](size_t size) {
    return checked(allocate(size, CALLER()));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, CALLER());
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, CALLER());
}
void operator delete(void* p) noexcept {
    free(p);
}
void operator delete[](void* p) noexcept {
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    free(p);
}
void operator delete[](void* p, size_t) noexcept {
    free(p);
}
