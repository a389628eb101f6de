// The per-frame call on a TA-mode handle: the converter fills the next frame-buffer pair,
// the renderer shows it; conversion failures, size changes, null frames and frames the
// compositor still holds.
#include <errno.h>
#include <string.h>

#include "osd_fixture.h"

namespace video_osd {
namespace {

using ruvo_test::vline;

using Lines = std::vector<std::string>;

class OsdFrame : public OsdTest {
  protected:
    void SetUp() override {
        OsdTest::SetUp();
        ASSERT_NE(OpenWithWindow(), nullptr);
        for (int i = 0; i < 6; ++i)
            gem_[i] = output_->m_gem_buf[i];
    }

    window* win() const { return static_cast<window*>(output_->m_window); }

    // Checks one recorded conversion of `frame` into the pair whose luma entry is `entry`.
    void ExpectConversion(const emutv::Event& e, const Frame& frame, int entry, uint32_t status = 0) {
        EXPECT_EQ(e.request, 0xC004DD03ul);
        EXPECT_EQ(e.fd, output_->m_de_fd);
        EXPECT_EQ(e.path, "/dev/qvkconverter");
        ASSERT_EQ(e.in.size(), 592u);
        EXPECT_EQ(e.in, ConverterRecord(frame.desc, gem_[entry], gem_[entry + 1]));
        if (e.result >= 0) {  // what the driver read
            EXPECT_EQ(e.field("out_y"), gem_[entry]);
            EXPECT_EQ(e.field("out_c"), gem_[entry + 1]);
            EXPECT_EQ(e.field("word24"), 1920);
        }
        // The driver's status word comes back in the record's first four bytes.
        std::vector<uint8_t> out = ConverterRecord(frame.desc, gem_[entry], gem_[entry + 1]);
        memcpy(out.data(), &status, sizeof(status));
        EXPECT_EQ(e.out, out);
    }

    // Lines of a conversion that failed with `ret` and `status`.
    static Lines FailedFrameLines(int ret, uint32_t status) {
        return {vline("display_on_osd", "osd display in"),
                vline("converter_process", "converter failed, ret:" + std::to_string(ret) +
                                               ", u32Retval:" + std::to_string(status) + "."),
                vline("converter_process", "converter success"), vline("display_on_osd", "converter failed"),
                vline(kPush, "display_on_osd failed")};
    }

    int gem_[6];
};

TEST_F(OsdFrame, successive_frames_fill_pairs_0_2_4_0_and_show_buffers_0_1_2_0) {
    Frame frames[4] = {{1920, 1080, 11}, {1920, 1080, 12}, {1920, 1080, 13}, {1920, 1080, 14}};
    const int next_pair[4] = {2, 4, 0, 2};
    const int shown[4] = {0, 1, 2, 0};

    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, frames[k].get()), 0) << k;
        EXPECT_EQ(output_->m_gem_buf_idx, next_pair[k]) << k;
        EXPECT_EQ(output_->m_wl_buf_idx, shown[k]) << k;
    }

    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 4u);
    const int filled[4] = {0, 2, 4, 0};
    for (int k = 0; k < 4; ++k) {
        SCOPED_TRACE(k);
        ExpectConversion(conversions[k], frames[k], filled[k]);
        EXPECT_EQ(conversions[k].result, 0);
    }
    EXPECT_EQ(tv().events().size(), 4u);  // nothing but the conversions

    // Buffers #3, #4, #5 are slots 0, 1, 2 since the first frame; each commit gives the
    // previous buffer back.
    EXPECT_EQ(comp().log(), Concat({DrawRequests(3, 1920, 1080, 3),
                                    {"-> buffer#2.release()", "-> callback#3.done()"},
                                    DrawRequests(4, 1920, 1080, 4),
                                    {"-> buffer#3.release()", "-> callback#4.done()"},
                                    DrawRequests(5, 1920, 1080, 5),
                                    {"-> buffer#4.release()", "-> callback#5.done()"},
                                    DrawRequests(3, 1920, 1080, 6),
                                    {"-> buffer#5.release()", "-> callback#6.done()"}}));
    EXPECT_EQ(lines(), Concat({ShownFrameLines(), ShownFrameLines(), ShownFrameLines(), ShownFrameLines()}));
}

TEST_F(OsdFrame, converter_status_1_fails_the_frame_and_the_same_pair_is_filled_next) {
    const int wl_before = output_->m_wl_buf_idx;
    tv().fail_status("CONVERTER_IOCTL_DECOMPRESS", 1);
    Frame refused(1920, 1080, 21);

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, refused.get()), -1);

    EXPECT_EQ(output_->m_gem_buf_idx, 0);
    EXPECT_EQ(output_->m_wl_buf_idx, wl_before);
    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 1u);
    ExpectConversion(conversions[0], refused, 0, 1);
    EXPECT_EQ(conversions[0].result, 0);
    EXPECT_EQ(lines(), FailedFrameLines(0, 1));
    EXPECT_TRUE(comp().log().empty());  // nothing shown

    Frame next(1920, 1080, 22);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    conversions = Conversions();
    ASSERT_EQ(conversions.size(), 2u);
    ExpectConversion(conversions[1], next, 0);
    EXPECT_EQ(output_->m_gem_buf_idx, 2);
    EXPECT_EQ(output_->m_wl_buf_idx, 0);
    EXPECT_EQ(comp().log(),
              Concat({DrawRequests(3, 1920, 1080, 3), {"-> buffer#2.release()", "-> callback#3.done()"}}));
    EXPECT_EQ(lines(), ShownFrameLines());
}

TEST_F(OsdFrame, failed_converter_request_fails_the_frame_and_the_same_pair_is_filled_next) {
    Frame two(1920, 1080, 31);
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, two.get()), 0);
    Forget();
    tv().fail("CONVERTER_IOCTL_DECOMPRESS", EIO);
    Frame refused(1920, 1080, 32);

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, refused.get()), -1);

    EXPECT_EQ(output_->m_gem_buf_idx, 2);
    EXPECT_EQ(output_->m_wl_buf_idx, 0);
    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 1u);
    EXPECT_EQ(conversions[0].result, -1);
    EXPECT_EQ(conversions[0].err, EIO);
    EXPECT_FALSE(conversions[0].has("out_y"));  // the driver never saw it
    ExpectConversion(conversions[0], refused, 2);
    EXPECT_EQ(lines(), FailedFrameLines(-1, 0));
    EXPECT_TRUE(comp().log().empty());

    Frame next(1920, 1080, 33);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    conversions = Conversions();
    ASSERT_EQ(conversions.size(), 2u);
    ExpectConversion(conversions[1], next, 2);
    EXPECT_EQ(output_->m_wl_buf_idx, 1);
    EXPECT_EQ(comp().log(),
              Concat({DrawRequests(4, 1920, 1080, 4), {"-> buffer#3.release()", "-> callback#4.done()"}}));
}

TEST_F(OsdFrame, failed_conversion_without_the_trace_level_prints_the_three_errors) {
    g_ruvo_logmask = 0;  // error and info
    tv().fail_status("CONVERTER_IOCTL_DECOMPRESS", 7);
    Frame refused(1920, 1080);

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, refused.get()), -1);

    EXPECT_EQ(lines(),
              (Lines{vline("converter_process", "converter failed, ret:0, u32Retval:7."),
                     vline("display_on_osd", "converter failed"), vline(kPush, "display_on_osd failed")}));
}

TEST_F(OsdFrame, a_new_frame_size_recreates_the_buffers_once_before_its_conversion) {
    // A 4:3 frame: only the width and height follow it, the aspect stays the first frame's.
    int count_at_conversion = -1, width_at_conversion = 0, height_at_conversion = 0;
    window* const w = win();
    tv().set_listener([&](const emutv::Event& e) {
        if (e.name == "CONVERTER_IOCTL_DECOMPRESS" && count_at_conversion < 0) {
            count_at_conversion = w->need_re_create_cnt;
            width_at_conversion = w->display->format.width;
            height_at_conversion = w->display->format.height;
        }
    });
    Frame sd[4] = {{720, 576, 41}, {720, 576, 42}, {720, 576, 43}, {720, 576, 44}};
    for (auto& f : sd)
        f.desc.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_300_400;

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, sd[0].get()), 0);

    EXPECT_EQ(count_at_conversion, 3);
    EXPECT_EQ(width_at_conversion, 720);
    EXPECT_EQ(height_at_conversion, 576);
    EXPECT_EQ(w->need_re_create_cnt, 2);
    const quarvel_frame_size_s meta = output_->m_frame_meta;
    EXPECT_EQ(meta.w, 720u);
    EXPECT_EQ(meta.h, 576u);
    EXPECT_EQ(meta.dar_w, 1920u);
    EXPECT_EQ(meta.dar_h, 1080u);
    EXPECT_EQ(meta.sar_num, 1u);
    EXPECT_EQ(meta.sar_denom, 1u);
    EXPECT_EQ(lines(), (Lines{vline("display_on_osd", "osd display in"), vline(kLazy, "in, w(720) h(576)"),
                              vline("converter_process", "converter success"), vline(kRedraw, "in"),
                              vline(kRedraw, "need_re_create_cnt(3) index(0)"), vline(kRedraw, "out"),
                              vline("display_on_osd", "osd display out")}));
    // Slot 0 is renewed at its redraw: destroyed, created at 720 x 576 with the
    // configured strides, then shown.
    EXPECT_EQ(comp().log(), Concat({{"buffer#3.destroy()"},
                                    Created(6, 0, 720, 576, kStride),
                                    {"display.sync()", "params#6.destroy()"},
                                    DrawRequests(6, 720, 576, 3),
                                    {"-> buffer#2.release()", "-> callback#3.done()"}}));
    comp().clear_log();

    // The same size again: no further re-creation request; the next two redraws renew
    // the other two slots, the fourth frame renews nothing.
    for (int k = 1; k < 4; ++k)
        EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, sd[k].get()), 0) << k;

    EXPECT_EQ(w->need_re_create_cnt, 0);
    EXPECT_EQ(
        lines(),
        Concat({{vline("display_on_osd", "osd display in"), vline("converter_process", "converter success"),
                 vline(kRedraw, "in"), vline(kRedraw, "need_re_create_cnt(2) index(1)"),
                 vline(kRedraw, "out"), vline("display_on_osd", "osd display out")},
                {vline("display_on_osd", "osd display in"), vline("converter_process", "converter success"),
                 vline(kRedraw, "in"), vline(kRedraw, "need_re_create_cnt(1) index(2)"),
                 vline(kRedraw, "out"), vline("display_on_osd", "osd display out")},
                ShownFrameLines()}));
    EXPECT_EQ(comp().log(), Concat({{"buffer#4.destroy()"},
                                    Created(7, 1, 720, 576, kStride),
                                    {"display.sync()", "params#7.destroy()"},
                                    DrawRequests(7, 720, 576, 4),
                                    {"-> buffer#6.release()", "-> callback#4.done()", "buffer#5.destroy()"},
                                    Created(8, 2, 720, 576, kStride),
                                    {"display.sync()", "params#8.destroy()"},
                                    DrawRequests(8, 720, 576, 5),
                                    {"-> buffer#7.release()", "-> callback#5.done()"},
                                    DrawRequests(6, 720, 576, 6),
                                    {"-> buffer#8.release()", "-> callback#6.done()"}}));
    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 4u);
    const int filled[4] = {0, 2, 4, 0};
    for (int k = 0; k < 4; ++k) {
        SCOPED_TRACE(k);
        ExpectConversion(conversions[k], sd[k], filled[k]);
        EXPECT_EQ(conversions[k].field("hres"), 720);
    }
}

TEST_F(OsdFrame, a_null_frame_returns_0_and_changes_nothing) {
    quarvel_video_output_s before;
    memcpy(&before, output_, sizeof(before));

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, nullptr), 0);

    EXPECT_EQ(memcmp(&before, output_, sizeof(before)), 0);
    EXPECT_TRUE(lines().empty());
    EXPECT_TRUE(tv().events().empty());
    EXPECT_TRUE(comp().log().empty());
}

TEST_F(OsdFrame, a_frame_for_a_slot_the_compositor_still_holds_is_dropped_as_busy) {
    comp().set_release_policy(ruvo_test::ReleasePolicy::Never);
    Frame frames[4] = {{1920, 1080, 51}, {1920, 1080, 52}, {1920, 1080, 53}, {1920, 1080, 54}};
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, frames[k].get()), 0);
    ASSERT_EQ(win()->buffers[0].busy, 1);
    Forget();
    comp().send_ping(7);  // the one event the busy redraw's dispatch reads

    // The renderer's outcome is not looked at: the frame was converted and counts as shown.
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, frames[3].get()), 0);

    EXPECT_EQ(output_->m_gem_buf_idx, 2);
    EXPECT_EQ(output_->m_wl_buf_idx, 0);
    EXPECT_EQ(win()->buffers[0].busy, 1);
    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 1u);
    ExpectConversion(conversions[0], frames[3], 0);
    EXPECT_EQ(lines(), (Lines{vline("display_on_osd", "osd display in"),
                              vline("converter_process", "converter success"), vline(kRedraw, "in"),
                              vline(kRedraw, "buffer busy."), vline("display_on_osd", "osd display out")}));
    EXPECT_EQ(comp().log(), Lines{"-> wm_base#0.ping(7)"});  // nothing attached
}

using OsdEarlyFrame = OsdTest;

TEST_F(OsdEarlyFrame, frames_before_the_first_frame_are_converted_but_the_renderer_refuses_them) {
    StartCompositor();
    ASSERT_NE(OpenReady(), nullptr);
    Frame early(1920, 1080, 61);

    EXPECT_EQ(quarvel_video_output_push_frame_to_display(output_, early.get()), 0);

    EXPECT_EQ(output_->m_gem_buf_idx, 2);
    EXPECT_EQ(output_->m_wl_buf_idx, 0);
    EXPECT_EQ(output_->m_frame_meta.w, 1920u);
    EXPECT_EQ(output_->m_frame_meta.h, 1080u);
    auto conversions = Conversions();
    ASSERT_EQ(conversions.size(), 1u);
    EXPECT_EQ(conversions[0].in, ConverterRecord(early.desc, output_->m_gem_buf[0], output_->m_gem_buf[1]));
    EXPECT_EQ(lines(),
              (Lines{vline("display_on_osd", "osd display in"), vline(kLazy, "in, w(1920) h(1080)"),
                     vline(kLazy, "invalid parameter."), vline("converter_process", "converter success"),
                     vline(kRedraw, "in"), vline(kRedraw, "invalid parameter."),
                     vline("display_on_osd", "osd display out")}));
    EXPECT_EQ(comp().clients(), 0);
}

}  // namespace
}  // namespace video_osd
