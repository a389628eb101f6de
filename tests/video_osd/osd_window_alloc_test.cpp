// The one renderer failure a first frame reports as -1: no memory for the window. The
// counting allocator's calloc trap (alloc_counter.h) fails one chosen call of the thread
// that armed it; the call is found in a reference run of a first frame (the ordinal of
// the calloc that returned the window).
#include "alloc_counter.h"
#include "osd_fixture.h"

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
    ruvo_test::arm_calloc();
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);
    ruvo_test::disarm_calloc();
    const unsigned window_call = ruvo_test::calloc_ordinal_of(output_->m_window);
    ASSERT_NE(window_call, 0u);
    ASSERT_EQ(ruvo_test::calloc_size_of(window_call), sizeof(window));
    CloseHandle();
    ASSERT_TRUE(comp().wait_disconnected());

    ASSERT_NE(OpenReady(), nullptr);
    ruvo_test::arm_calloc(ruvo_test::CallocTrap::Fail, window_call);
    const int result = quarvel_video_output_init_with_first_frame(output_, first.get());
    ruvo_test::disarm_calloc();

    EXPECT_EQ(ruvo_test::last_failed_size(), sizeof(window));
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
