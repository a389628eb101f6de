// Allocation failures inside the renderer's init. The replaced allocator of this program
// (alloc_counter.h) can, on the thread that armed it, fail one
// chosen call or hand out uninitialised (dirty) memory for it. The call to trap is found
// in a reference run of init: the ordinal of the calloc that returned the display record,
// the window, or a proxy of the window.
#include <string.h>

#include "alloc_counter.h"
#include "wayland_fixture.h"

namespace ruvo_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

struct Ordinals {
    unsigned display = 0;
    unsigned window = 0;
    unsigned xdg_surface = 0;
    unsigned xdg_toplevel = 0;
};

// One init and deinit against a compositor like `cfg`, counting the callocs of init.
Ordinals reference_run(const CompositorConfig& cfg, st_wayland_render_config* config) {
    Ordinals o;
    TestCompositor comp(cfg);
    comp.start();
    arm_calloc();
    window* w = wayland_render_init(config);
    disarm_calloc();
    if (w == nullptr)
        return o;
    o.display = calloc_ordinal_of(w->display);
    o.window = calloc_ordinal_of(w);
    o.xdg_surface = calloc_ordinal_of(w->xdg_surface);
    o.xdg_toplevel = calloc_ordinal_of(w->xdg_toplevel);
    wayland_render_deinit(w);
    comp.stop();
    return o;
}

class AllocDeathTest : public RendererDeathTest {
  protected:
    void SetUp() override {
        RendererDeathTest::SetUp();
        cfg_ = config_in_base();
        o_ = reference_run(cfg_, &config_);
        ASSERT_NE(o_.display, 0u);
        ASSERT_GT(o_.window, o_.display);
        ASSERT_GT(o_.xdg_surface, o_.window);
        ASSERT_GT(o_.xdg_toplevel, o_.xdg_surface);
    }
    CompositorConfig cfg_;
    Ordinals o_;
};

TEST_F(AllocDeathTest, NoMemoryForTheDisplayRecordEndsTheProcess) {
    EXPECT_EXIT(init_with_compositor(cfg_, [&] { arm_calloc(CallocTrap::Fail, o_.display); }),
                ExitedWithCode(1),
                "^" + vline_re("wayland_render_init", "in") + escape_re("out of memory\n") + "$");
}

TEST_F(AllocDeathTest, NoXdgSurfaceIsAFatalAssertion) {
    EXPECT_DEATH(init_with_compositor(cfg_, [&] { arm_calloc(CallocTrap::Fail, o_.xdg_surface); }),
                 "^" + vline_re("wayland_render_init", "in") + assertion_end_re("window->xdg_surface"));
}

TEST_F(AllocDeathTest, NoXdgToplevelIsAFatalAssertion) {
    EXPECT_DEATH(init_with_compositor(cfg_, [&] { arm_calloc(CallocTrap::Fail, o_.xdg_toplevel); }),
                 "^" + vline_re("wayland_render_init", "in") + assertion_end_re("window->xdg_toplevel"));
}

TEST_F(AllocDeathTest, SlotAlreadyHoldingABufferIsAFatalAssertion) {
    // A window that does not come zeroed: its first slot seems to hold a buffer.
    EXPECT_DEATH(init_with_compositor(cfg_, [&] { arm_calloc(CallocTrap::Dirty, o_.window); }),
                 "^" + vline_re("wayland_render_init", "in") + assertion_end_re("!buffer->buffer"));
}

class AllocTest : public RendererTest {};

TEST_F(AllocTest, NoMemoryForTheWindowReportsItAndLeavesTheConnectionOpen) {
    CompositorConfig cfg;
    Ordinals o = reference_run(cfg, &config_);
    ASSERT_GT(o.window, o.display);
    start(cfg);
    lines();

    arm_calloc(CallocTrap::Fail, o.window);
    window* w = wayland_render_init(&config_);
    disarm_calloc();

    EXPECT_EQ(w, nullptr);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_init", "in"),
                                     vline("create_window", "create window failed.")));
    EXPECT_EQ(comp().clients(), 1);
    EXPECT_EQ(comp().requests(), kConnectRequests);
}

}  // namespace
}  // namespace ruvo_test
