// The on-screen-display branches of placement, first frame, resolution change and the
// per-frame path: converter requests, buffer rotation and the calls into the renderer.
//
// This program brings its own renderer: a recorder of the wayland_render_* calls that
// stands in for the Wayland client (its definitions here take the place of the library's
// renderer at link time). Tests against a real compositor belong to the integration
// suites.
#include <fcntl.h>
#include <unistd.h>

#include "video_present_fixture.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

struct RendererCall {
    std::string fn;
    window* win = nullptr;
    int a = 0, b = 0, c = 0, d = 0;
    st_wayland_render_config config{};
    uint32_t conversions_before = 0;  // converter requests answered when the call came
};

std::vector<RendererCall> g_calls;
char g_window_object;
window* const kWindow = reinterpret_cast<window*>(&g_window_object);
window* g_init_answer = kWindow;

void note(const std::string& fn, window* win, int a = 0, int b = 0, int c = 0, int d = 0) {
    RendererCall call;
    call.fn = fn;
    call.win = win;
    call.a = a;
    call.b = b;
    call.c = c;
    call.d = d;
    call.conversions_before = emutv::platform().converter().conversions;
    g_calls.push_back(call);
}

}  // namespace

extern "C" {
window* wayland_render_init(st_wayland_render_config* config) {
    note("init", nullptr);
    g_calls.back().config = *config;
    return g_init_answer;
}
void wayland_render_deinit(window* win) {
    note("deinit", win);
}
void wayland_render_redraw(window* win, int index) {
    note("redraw", win, index);
}
void wayland_render_set_geometry(window* win, int x, int y, int w, int h) {
    note("set_geometry", win, x, y, w, h);
}
void wayland_render_re_create_dmabuf_buffer(window* win, int width, int height) {
    note("re_create", win, width, height);
}
void wayland_render_re_create_dmabuf_buffer_directly(window* win, int width, int height) {
    note("re_create_directly", win, width, height);
}
}

namespace {

const char kInit[] = "quarvel_video_output_init_with_first_frame";
const char kPush[] = "quarvel_video_output_push_frame_to_display";
const char kNextRes[] = "quarvel_video_output_set_next_res";
const int kGemBuf[6] = {101, 102, 103, 104, 105, 106};

class OsdPath : public VideoHandleTest {
  protected:
    void SetUp() override {
        VideoHandleTest::SetUp();
        g_calls.clear();
        g_init_answer = kWindow;
        // A handle in on-screen-display mode with its frame-buffer pool and converter.
        de_fd_ = open("/dev/qvkconverter", O_RDWR);
        ASSERT_GE(de_fd_, 0);
        out_->m_is_ta = true;
        for (int i = 0; i < 6; ++i)
            out_->m_gem_buf[i] = kGemBuf[i];
        out_->m_gem_buf_idx = 0;
        out_->m_de_fd = de_fd_;
        tv().clear_events();
    }
    void TearDown() override {
        if (out_ != nullptr) {
            out_->m_is_ta = false;
            out_->m_de_fd = -1;
            out_->m_gem_buf_idx = -1;
        }
        if (de_fd_ >= 0)
            close(de_fd_);
        VideoHandleTest::TearDown();
    }

    void start(uint32_t w = 1920, uint32_t h = 1080) {
        TestFrame f(w, h);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
        g_calls.clear();
        tv().clear_events();
        (void)lines();
    }

    // The converter record for `d` into pair `pair`.
    std::vector<uint8_t> converter_record(const v4l2_drm& d, int pair) const {
        converter_decompress rec;
        memset(&rec, 0, sizeof(rec));
        rec.outDrmFd[0] = kGemBuf[2 * pair];
        rec.outDrmFd[1] = kGemBuf[2 * pair + 1];
        rec.stFbInfo = d;
        std::vector<uint8_t> bytes = bytes_of(rec);
        const uint32_t stride = 1920;
        memcpy(bytes.data() + 24, &stride, 4);
        return bytes;
    }

    static std::vector<std::string> call_names() {
        std::vector<std::string> out;
        for (const auto& c : g_calls)
            out.push_back(c.fn);
        return out;
    }

    int de_fd_ = -1;
};

// ---- Placement ------------------------------------------------------------------------------

TEST_F(OsdPath, a_rectangle_reaches_the_renderer_at_half_size) {
    out_->m_window = kWindow;
    const auto r = rect(-3, 5, 1921, 1081);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].fn, "set_geometry");
    EXPECT_EQ(g_calls[0].win, kWindow);
    EXPECT_EQ(g_calls[0].a, -1);
    EXPECT_EQ(g_calls[0].b, 2);
    EXPECT_EQ(g_calls[0].c, 960);
    EXPECT_EQ(g_calls[0].d, 540);
    EXPECT_TRUE(same_rect(out_->m_wanted_rect, r));
    EXPECT_TRUE(same_rect(out_->m_rect_applied_to_driver, rect(0, 0, 0, 0)));
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_set_rect",
                                                       "x(-3) y(5) w(1921) h(1081) dar_w(0) dar_h(0)")}));
}

TEST_F(OsdPath, a_rectangle_without_a_window_is_only_stored) {
    const auto r = rect(10, 20, 640, 360);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_TRUE(same_rect(out_->m_wanted_rect, r));
    EXPECT_EQ(tv().events().size(), 0u);
    // Creating the window later does not position it.
    start();
    EXPECT_TRUE(g_calls.empty());
}

// ---- First frame ----------------------------------------------------------------------------

TEST_F(OsdPath, first_frame_creates_the_window_over_the_six_buffers_and_shows_each_once) {
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    TestFrame f(1440, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);

    EXPECT_EQ(call_names(),
              (std::vector<std::string>{"init", "redraw", "redraw", "redraw", "re_create_directly"}));
    const st_wayland_render_config& c = g_calls[0].config;
    EXPECT_EQ(c.width, 1440);
    EXPECT_EQ(c.height, 1080);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(c.dma_fd[i][0], kGemBuf[2 * i]) << i;
        EXPECT_EQ(c.dma_fd[i][1], kGemBuf[2 * i + 1]) << i;
    }
    EXPECT_EQ(c.strides[0], 1920u);
    EXPECT_EQ(c.strides[1], 1920u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(g_calls[1 + i].win, kWindow);
        EXPECT_EQ(g_calls[1 + i].a, i);
    }
    EXPECT_EQ(g_calls[4].win, kWindow);
    EXPECT_EQ(g_calls[4].a, 1440);
    EXPECT_EQ(g_calls[4].b, 1080);

    EXPECT_EQ(out_->m_window, static_cast<void*>(kWindow));
    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{1440, 1080, 5760, 3240, 4, 3}));
    // No profile, source, queue, plane or picture-quality request on this path.
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_FALSE(out_->m_queue_size_set);
    EXPECT_TRUE(hmx_standin_transactions().empty());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kInit, "in"), vline(kInit, "wayland render init"),
                                        vline(kInit, "wayland render init done"), vline(kInit, "out")}));
}

TEST_F(OsdPath, first_frame_without_a_window_returns_minus_1_and_is_tried_again) {
    g_init_answer = nullptr;
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -1);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"init"}));
    EXPECT_EQ(out_->m_window, nullptr);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kInit, "in"), vline(kInit, "wayland_render_init failed")}));

    g_init_answer = kWindow;
    g_calls.clear();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(call_names(),
              (std::vector<std::string>{"init", "redraw", "redraw", "redraw", "re_create_directly"}));
    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kInit, "in"), vline(kInit, "out")}));
}

TEST_F(OsdPath, a_resolution_change_returns_early) {
    start();
    TestFrame f(1280, 720);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kNextRes, "in"),
                                                 vline(kNextRes, "New Reslution:width = 1280, height = 720"),
                                                 vline(kNextRes, "TA early return")}));
}

// ---- Per frame ------------------------------------------------------------------------------

TEST_F(OsdPath, no_frame_does_nothing) {
    start();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(out_->m_gem_buf_idx, 0);
    EXPECT_EQ(out_->m_frame_meta.w, 1920u);
    EXPECT_TRUE(lines().empty());
}

TEST_F(OsdPath, successive_frames_fill_pairs_0_2_4_0_and_show_buffers_0_1_2_0) {
    start();
    TestFrame f(1920, 1080);
    const v4l2_drm original = f.desc;
    const int pairs[] = {0, 1, 2, 0};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0) << i;
        EXPECT_EQ(out_->m_wl_buf_idx, pairs[i]) << i;
        EXPECT_EQ(out_->m_gem_buf_idx, ((pairs[i] + 1) % 3) * 2) << i;
    }
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ev[i].name, "CONVERTER_IOCTL_DECOMPRESS");
        EXPECT_EQ(ev[i].request, 0xC004DD03ul);
        EXPECT_EQ(ev[i].fd, de_fd_);
        EXPECT_EQ(ev[i].in.size(), 592u);
        EXPECT_EQ(ev[i].in, converter_record(original, pairs[i])) << i;
        EXPECT_EQ(le32_at(ev[i].in, 0), 0u);
        EXPECT_EQ(le32_at(ev[i].in, 4), static_cast<uint32_t>(kGemBuf[2 * pairs[i]]));
        EXPECT_EQ(le32_at(ev[i].in, 8), static_cast<uint32_t>(kGemBuf[2 * pairs[i] + 1]));
        EXPECT_EQ(le32_at(ev[i].in, 12), 0u);
        EXPECT_EQ(le32_at(ev[i].in, 24), 1920u);  // over the copy's aspect ratio
        EXPECT_EQ(ev[i].field("word24"), 1920);
    }
    ASSERT_EQ(g_calls.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(g_calls[i].fn, "redraw");
        EXPECT_EQ(g_calls[i].win, kWindow);
        EXPECT_EQ(g_calls[i].a, pairs[i]);
        EXPECT_EQ(g_calls[i].conversions_before, static_cast<uint32_t>(i + 1));  // after its conversion
    }
    // The caller's descriptor is left alone.
    EXPECT_EQ(memcmp(&f.desc, &original, sizeof(original)), 0);
    EXPECT_TRUE(lines().empty());
}

TEST_F(OsdPath, a_successful_frame_is_traced) {
    start();
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("display_on_osd", "osd display in"),
                                                 vline("converter_process", "converter success"),
                                                 vline("display_on_osd", "osd display out")}));
}

TEST_F(OsdPath, a_converter_status_of_1_fails_the_frame_and_the_same_pair_is_used_next) {
    start();
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(out_, TestFrame(1920, 1080).get()), 0);
    tv().clear_events();
    g_calls.clear();

    TestFrame f(1920, 1080);
    tv().fail_status("CONVERTER_IOCTL_DECOMPRESS", 1);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -1);
    EXPECT_TRUE(g_calls.empty());  // nothing shown
    EXPECT_EQ(out_->m_gem_buf_idx, 2);
    EXPECT_EQ(out_->m_wl_buf_idx, 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].result, 0);
    EXPECT_EQ(ev[0].field("status"), 1);
    EXPECT_EQ(le32_at(ev[0].out, 0), 1u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("converter_process", "converter failed, ret:0, u32Retval:1."),
                                        vline("display_on_osd", "converter failed"),
                                        vline(kPush, "display_on_osd failed")}));

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[1].in, converter_record(f.desc, 1));
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].a, 1);
    EXPECT_EQ(out_->m_gem_buf_idx, 4);
}

TEST_F(OsdPath, a_failed_conversion_with_trace_on_logs_the_failure_and_then_success) {
    start();
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    tv().fail_status("CONVERTER_IOCTL_DECOMPRESS", 1);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, TestFrame(1920, 1080).get()), -1);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("display_on_osd", "osd display in"),
                                        vline("converter_process", "converter failed, ret:0, u32Retval:1."),
                                        vline("converter_process", "converter success"),
                                        vline("display_on_osd", "converter failed"),
                                        vline(kPush, "display_on_osd failed")}));
}

TEST_F(OsdPath, a_failing_converter_request_fails_the_frame_and_the_next_one_works) {
    start();
    tv().fail("CONVERTER_IOCTL_DECOMPRESS", EIO);
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -1);
    EXPECT_EQ(out_->m_gem_buf_idx, 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("converter_process", "converter failed, ret:-1, u32Retval:0."),
                                        vline("display_on_osd", "converter failed"),
                                        vline(kPush, "display_on_osd failed")}));
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(out_->m_gem_buf_idx, 2);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"redraw"}));
}

TEST_F(OsdPath, a_frame_of_a_new_size_recreates_the_buffers_once_before_its_conversion) {
    start();
    TestFrame f(1280, 720);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    ASSERT_EQ(call_names(), (std::vector<std::string>{"re_create", "redraw"}));
    EXPECT_EQ(g_calls[0].win, kWindow);
    EXPECT_EQ(g_calls[0].a, 1280);
    EXPECT_EQ(g_calls[0].b, 720);
    EXPECT_EQ(g_calls[0].conversions_before, 0u);
    // Only the size follows the frame; the aspect terms stay.
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{1280, 720, 1920, 1080, 1, 1}));

    g_calls.clear();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"redraw"}));
    EXPECT_EQ(tv().count("CONVERTER_IOCTL_DECOMPRESS"), 2u);
}

TEST_F(OsdPath, a_new_height_alone_is_a_new_size) {
    start();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, TestFrame(1920, 1088).get()), 0);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"re_create", "redraw"}));
}

TEST_F(OsdPath, a_failed_conversion_of_a_new_size_keeps_the_new_size) {
    start();
    tv().fail_status("CONVERTER_IOCTL_DECOMPRESS", 1);
    TestFrame f(1280, 720);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -1);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"re_create"}));
    EXPECT_EQ(out_->m_frame_meta.w, 1280u);
    g_calls.clear();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(call_names(), (std::vector<std::string>{"redraw"}));
}

}  // namespace
