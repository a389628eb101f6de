#include "handle_catch.h"

#include "ruvo_kit/alloc_interposer.h"

namespace {

thread_local bool t_catch_next_handle = false;
quarvel_video_output_s* g_caught_handle = nullptr;

void catch_handle(void* p, size_t size) {
    if (t_catch_next_handle && size == sizeof(quarvel_video_output_s)) {
        t_catch_next_handle = false;
        g_caught_handle = static_cast<quarvel_video_output_s*>(p);
    }
}

// Registered before main, so that no thread is allocating while the hook changes.
const bool g_hooked = (ruvo_kit::set_new_hook(catch_handle), true);

}  // namespace

namespace ruvo_test {

void catch_next_handle() {
    (void)g_hooked;
    g_caught_handle = nullptr;
    t_catch_next_handle = true;
}

quarvel_video_output_s* caught_handle() {
    return g_caught_handle;
}

void stop_catching() {
    t_catch_next_handle = false;
}

quarvel_video_output_s* open_in_ta_mode(std::function<void(const emutv::Event&)> also) {
    emutv::platform().set_listener([also](const emutv::Event& e) {
        if (e.name == "DRM_IOCTL_MODE_GETRESOURCES" && g_caught_handle != nullptr)
            g_caught_handle->m_is_ta = true;
        if (also)
            also(e);
    });
    catch_next_handle();
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    stop_catching();
    emutv::platform().set_listener(nullptr);
    return output;
}

}  // namespace ruvo_test
