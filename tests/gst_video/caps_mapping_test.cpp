// How video/x-raw caps become the decoder frame descriptor of a software-decoded frame
// (the table in the README), and what reaches the plane for it.
#include "gst_video_fixture.h"
#include "ruvovideosink_frames.h"

using namespace gst_video;

namespace {

GstVideoInfo info_of(const char* caps_text) {
    GstCaps* caps = gst_caps_from_string(caps_text);
    GstVideoInfo info;
    EXPECT_TRUE(gst_video_info_from_caps(&info, caps)) << caps_text;
    gst_caps_unref(caps);
    return info;
}

v4l2_drm describe(const char* caps_text) {
    GstVideoInfo info = info_of(caps_text);
    v4l2_drm d;
    ruvo_gst::describe_raw_frame(info, &d);
    return d;
}

TEST(CapsMapping, SizeFormatAndPortOfAnNv12Frame) {
    gst_init(nullptr, nullptr);
    const v4l2_drm d = describe("video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1");
    EXPECT_EQ(d.inputport, V4L2_DRM_INPUTPORT_TYPE_MM);
    EXPECT_EQ(d.u.dec_info.hres, 1920u);
    EXPECT_EQ(d.u.dec_info.vres, 1080u);
    EXPECT_EQ(d.u.dec_info.effective_hres, 1920u);
    EXPECT_EQ(d.u.dec_info.aspectratio, V4L2_ASPECTRATIO_TYPE_900_1600);
    EXPECT_EQ(d.u.dec_info.framerate, V4L2_DRM_FRAMERATE_25HZ);
    EXPECT_EQ(d.u.dec_info.scantype, 0u);
    EXPECT_EQ(d.u.dec_info.bpp, 8u);
    EXPECT_EQ(d.u.dec_info.pFrame[0].y_linesize, 1920u);
    EXPECT_EQ(d.u.dec_info.pFrame[0].u_linesize, 1920u);
    EXPECT_EQ(d.u.dec_info.pFrame[0].v_linesize, 0u);
    EXPECT_EQ(d.u.dec_info.pFrame[0].colorformat, V4L2_DRM_COLORFORMAT_YUV420);
    EXPECT_EQ(d.u.dec_info.pFrame[0].display_index, 0u);
    EXPECT_EQ(d.u.dec_info.pFrame[0].y_viraddr, 0u);  // no pixels handed over
}

TEST(CapsMapping, TenBitInterlacedI420AndP010) {
    gst_init(nullptr, nullptr);
    const v4l2_drm p010 =
        describe("video/x-raw,format=P010_10LE,width=3840,height=2160,framerate=60000/1001");
    EXPECT_EQ(p010.u.dec_info.bpp, 10u);
    EXPECT_EQ(p010.u.dec_info.framerate, V4L2_DRM_FRAMERATE_59_94HZ);
    EXPECT_EQ(p010.u.dec_info.pFrame[0].y_linesize, 7680u);
    const v4l2_drm i420 = describe(
        "video/x-raw,format=I420,width=720,height=576,framerate=25/1,interlace-mode=interleaved,"
        "pixel-aspect-ratio=16/15");
    EXPECT_EQ(i420.u.dec_info.scantype, 1u);
    EXPECT_EQ(i420.u.dec_info.aspectratio, V4L2_ASPECTRATIO_TYPE_300_400);
    EXPECT_EQ(i420.u.dec_info.pFrame[0].u_linesize, 360u);
}

TEST(CapsMapping, DisplayAspectValues) {
    gst_init(nullptr, nullptr);
    using ruvo_gst::aspect_code;
    using ruvo_gst::content_aspect;
    EXPECT_EQ(aspect_code(content_aspect(info_of("video/x-raw,format=NV12,width=720,height=480,"
                                                 "pixel-aspect-ratio=32/27"))),
              V4L2_ASPECTRATIO_TYPE_900_1600);
    EXPECT_EQ(aspect_code(content_aspect(info_of("video/x-raw,format=NV12,width=1080,height=1080"))),
              V4L2_ASPECTRATIO_TYPE_100_100);
    EXPECT_EQ(aspect_code(content_aspect(info_of("video/x-raw,format=NV12,width=2210,height=1000"))),
              V4L2_ASPECTRATIO_TYPE_100_221);
    // An unlisted aspect: 0, the coded size is then the display aspect.
    EXPECT_EQ(aspect_code(content_aspect(info_of("video/x-raw,format=NV12,width=1280,height=1024"))), 0u);
}

TEST(CapsMapping, FrameRateValues) {
    using ruvo_gst::framerate_code;
    EXPECT_EQ(framerate_code(24000, 1001), V4L2_DRM_FRAMERATE_23_97HZ);
    EXPECT_EQ(framerate_code(24, 1), V4L2_DRM_FRAMERATE_24HZ);
    EXPECT_EQ(framerate_code(30000, 1001), V4L2_DRM_FRAMERATE_29_97HZ);
    EXPECT_EQ(framerate_code(30, 1), V4L2_DRM_FRAMERATE_30HZ);
    EXPECT_EQ(framerate_code(48000, 1001), V4L2_DRM_FRAMERATE__47_94HZ);
    EXPECT_EQ(framerate_code(50, 1), V4L2_DRM_FRAMERATE_50HZ);
    EXPECT_EQ(framerate_code(60, 1), V4L2_DRM_FRAMERATE_60HZ);
    EXPECT_EQ(framerate_code(120, 1), V4L2_DRM_FRAMERATE_120HZ);
    EXPECT_EQ(framerate_code(0, 1), V4L2_DRM_FRAMERATE_ETC);  // variable
    EXPECT_EQ(framerate_code(15, 1), V4L2_DRM_FRAMERATE_ETC);
}

TEST(PanelHistory, TheLatchedFrameIsTheNewestOneNotHeld) {
    ruvo_gst::PanelHistory h;
    EXPECT_EQ(h.latched(0), GST_CLOCK_TIME_NONE);
    for (int i = 0; i < 40; ++i) {
        h.push(i * GST_SECOND);
    }
    EXPECT_EQ(h.latched(0), 39 * GST_SECOND);
    EXPECT_EQ(h.latched(3), 36 * GST_SECOND);
    EXPECT_EQ(h.latched(31), 8 * GST_SECOND);
    EXPECT_EQ(h.latched(32), GST_CLOCK_TIME_NONE);  // beyond what is remembered
    h.reset();
    EXPECT_EQ(h.latched(0), GST_CLOCK_TIME_NONE);
}

// What the plane is told for an interlaced PAL frame with 4:3 display aspect.
TEST_F(SinkTest, APalFrameReachesThePlaneWithItsAspect) {
    start(
        "video/x-raw,format=I420,width=720,height=576,framerate=25/1,pixel-aspect-ratio=16/15,"
        "interlace-mode=interleaved");
    push_frames(1);
    auto sources = requests("DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[1].field("hres"), 720);
    EXPECT_EQ(sources[1].field("vres"), 576);
    EXPECT_EQ(sources[1].field("inputport"), V4L2_DRM_INPUTPORT_TYPE_MM);
    // The whole coded picture is scanned out into the rectangle.
    const auto* out = tv().drm().plane_state.count(35) ? &tv().drm().plane_state[35] : nullptr;
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->src_w, 720u << 16);
    EXPECT_EQ(out->src_h, 576u << 16);
}

}  // namespace
