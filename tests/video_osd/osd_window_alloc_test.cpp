// The one renderer failure a first frame reports as -1: no memory for the window. This
// program replaces calloc with a wrapper around the C library's own that fails one
// chosen call of the thread that armed it; the call is found in a reference run of a
// first frame (the ordinal of the calloc that returned the window).
#include <string.h>

#include "osd_fixture.h"

extern "C" {
void* __libc_calloc(size_t count, size_t size);
}

namespace {

thread_local bool t_armed = false;
thread_local unsigned t_count = 0;
thread_local unsigned t_fail_at = 0;

// What the armed thread asked calloc for and got, in order (written by that thread only).
constexpr unsigned kMaxCalls = 16384;
void* g_returned[kMaxCalls];
size_t g_sizes[kMaxCalls];
unsigned g_calls = 0;
size_t g_failed_size = 0;

void arm(unsigned fail_at = 0) {
    g_calls = 0;
    g_failed_size = 0;
    t_count = 0;
    t_fail_at = fail_at;
    t_armed = true;
}

void disarm() {
    t_armed = false;
}

// 1-based ordinal of the armed calloc that returned `p` (the last one), 0 if none did.
unsigned ordinal_of(const void* p) {
    for (unsigned i = g_calls; i > 0; i--)
        if (g_returned[i - 1] == p)
            return i;
    return 0;
}

}  // namespace

extern "C" void* calloc(size_t count, size_t size) {
    if (!t_armed)
        return __libc_calloc(count, size);
    const unsigned index = ++t_count;
    void* p = nullptr;
    if (index == t_fail_at)
        g_failed_size = count * size;
    else
        p = __libc_calloc(count, size);
    if (g_calls < kMaxCalls) {
        g_returned[g_calls] = p;
        g_sizes[g_calls] = count * size;
        g_calls++;
    }
    return p;
}

namespace video_osd {
namespace {

using ruvo_test::vline;

using Lines = std::vector<std::string>;

using OsdWindowAlloc = OsdTest;

TEST_F(OsdWindowAlloc, no_memory_for_the_window_fails_the_first_frame_with_minus_1_and_the_next_one_retries) {
    StartCompositor();

    // Reference run on a first handle: which calloc of a first frame makes the window.
    ASSERT_NE(OpenReady(), nullptr);
    Frame first(1920, 1080);
    arm();
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);
    disarm();
    const unsigned window_call = ordinal_of(output_->m_window);
    ASSERT_NE(window_call, 0u);
    ASSERT_EQ(g_sizes[window_call - 1], sizeof(window));
    CloseHandle();
    ASSERT_TRUE(comp().wait_disconnected());

    ASSERT_NE(OpenReady(), nullptr);
    arm(window_call);
    const int result = quarvel_video_output_init_with_first_frame(output_, first.get());
    disarm();

    EXPECT_EQ(g_failed_size, sizeof(window));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(output_->m_window, nullptr);
    EXPECT_FALSE(output_->m_first_frame_initialized);
    EXPECT_EQ(lines(), (Lines{vline(kInit, "in"), vline(kInit, "wayland render init"), vline(kRender, "in"),
                              vline("create_window", "create window failed."),
                              vline(kInit, "wayland_render_init failed")}));
    EXPECT_TRUE(tv().events().empty());
    // The renderer had connected and checked the globals (objects are numbered across
    // clients: this is the second connection); that connection stays open.
    EXPECT_EQ(comp().log(),
              (Lines{"display.get_registry()", "display.sync()", "registry.bind(\"wl_compositor\", 1)",
                     "registry.bind(\"wp_viewporter\", 1)", "registry.bind(\"wl_seat\", 1)",
                     "-> seat#1.capabilities(0)", "registry.bind(\"xdg_wm_base\", 1)",
                     "registry.bind(\"zwp_linux_dmabuf_v1\", 3)", "-> dmabuf#1.format(0x3231564e)",
                     "-> dmabuf#1.modifier(0x3231564e, 0x00000000, 0x00000000)", "display.sync()"}));
    EXPECT_EQ(comp().clients(), 1);

    // The first frame was not taken: the next call tries again, on a new connection.
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);
    EXPECT_NE(output_->m_window, nullptr);
    EXPECT_TRUE(output_->m_first_frame_initialized);
    EXPECT_EQ(comp().clients(), 2);
    EXPECT_EQ(lines().back(), vline(kInit, "out"));
}

}  // namespace
}  // namespace video_osd
