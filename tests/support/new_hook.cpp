// Kept apart from code that allocates, so that the compiler pairs every new with the
// delete below (both on malloc and free, also under a sanitizer's allocator).
#include "new_hook.h"

#include <stdlib.h>

#include <atomic>
#include <new>

namespace {

std::atomic<ruvo_test::NewHook> g_new_hook{nullptr};

void* checked(void* p) {
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

}  // namespace

namespace ruvo_test {

void set_new_hook(NewHook hook) {
    g_new_hook.store(hook);
}

}  // namespace ruvo_test

void* operator new(size_t size) {
    void* p = checked(malloc(size ? size : 1));
    if (ruvo_test::NewHook hook = g_new_hook.load(std::memory_order_relaxed))
        hook(p, size);
    return p;
}
void* operator new[](size_t size) {
    return checked(malloc(size ? size : 1));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return malloc(size ? size : 1);
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
