// The global allocator of the on-screen-display programs: the C library's, plus the catch
// of the video output handle inside open (see osd_fixture.h). Kept apart from the code
// that allocates, so that the compiler pairs every new with the delete below.
#include <stdlib.h>

#include <new>

#include "osd_fixture.h"

namespace {

thread_local bool t_catch_next_handle = false;
quarvel_video_output_s* g_caught_handle = nullptr;

}  // namespace

void* operator new(std::size_t size) {
    void* p = malloc(size == 0 ? 1 : size);
    if (p == nullptr)
        throw std::bad_alloc();
    if (t_catch_next_handle && size == sizeof(quarvel_video_output_s)) {
        t_catch_next_handle = false;
        g_caught_handle = static_cast<quarvel_video_output_s*>(p);
    }
    return p;
}

void operator delete(void* p) noexcept {
    free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    free(p);
}

namespace video_osd {

void CatchNextHandle() {
    g_caught_handle = nullptr;
    t_catch_next_handle = true;
}

quarvel_video_output_s* CaughtHandle() {
    return g_caught_handle;
}

void StopCatching() {
    t_catch_next_handle = false;
}

}  // namespace video_osd
