// avsink-probe on the emulated platform: it reports what the platform was set up with and
// sends nothing that would change the picture or the sound.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "probe.h"
#include "ruvo/driver/sdp_drm.h"
#include "test_support.h"

namespace {

using ruvo_test::vline;

emutv::DrmPlane plane(uint32_t id, uint64_t type) {
    emutv::DrmPlane p;
    p.id = id;
    p.props = {{"type", type == DRM_SDP_PLANE_DP_MAIN ? 0u : 1u}, {"plane_type", type}};
    return p;
}

std::vector<std::string> probe_lines(const std::vector<std::string>& all) {
    std::vector<std::string> out;
    for (const auto& l : all)
        if (l.compare(0, 7, "probe: ") == 0)
            out.push_back(l);
    return out;
}

class ProbeTest : public ruvo_test::PlatformTest {};

TEST_F(ProbeTest, ReportsThePowerOnPlatform) {
    EXPECT_EQ(avsink_probe::run_probe(avsink_probe::ProbeOptions()), 0);
    EXPECT_EQ(probe_lines(lines()),
              (std::vector<std::string>{
                  "probe: opening a video output",
                  "probe: drm fd: " + std::to_string(tv().events("DRM_IOCTL_MODE_GETRESOURCES").at(0).fd),
                  "probe: connector: 40",
                  "probe: crtc: 42",
                  "probe: panel: 3840x2160",
                  "probe: get_panel_size: 3840x2160",
                  "probe: placeholder framebuffer: fb=200 dumb=100 stride=15360 size=33177600",
                  "probe: plane OSDP(0): 31",
                  "probe: plane GP(1): 32",
                  "probe: plane DP_MAIN(5): 35",
                  "probe: plane DP_SUB(6): 36",
                  "probe: video plane: 35 (type DP_MAIN)",
                  "probe: vsync fps: 59.940060",
                  "probe: vsync offset: 0 s 1000000 ns",
                  "probe: decoder frames: dec0=2 dec1=1",
                  "probe: mixer controls on 'default': 4",
                  "probe: mixer control: 'audio dec0 playback rate' numid=3 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: mixer control: 'main out mute' numid=4 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: mixer control: 'qvl hp main gain' numid=2 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: mixer control: 'qvl speaker main gain' numid=1 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: closing the video output",
              }));
}

TEST_F(ProbeTest, ReportsWhatTheEmulatorWasConfiguredWith) {
    auto& drm = tv().drm();
    drm.crtcs = {77};
    drm.connectors[0].id = 60;
    drm.connectors[0].mm_width = 1366;
    drm.connectors[0].mm_height = 768;
    drm.encoders = {emutv::DrmEncoder{41, 77, 0x1}};
    drm.planes = {plane(21, DRM_SDP_PLANE_OSDP), plane(23, DRM_SDP_PLANE_SGP),
                  plane(55, DRM_SDP_PLANE_DP_MAIN), plane(56, DRM_SDP_PLANE_DP_SUB)};
    tv().vplt().vsync_hz = 50000;
    tv().vplt().offset_sec = 1;
    tv().vplt().offset_nsec = 2500000;
    tv().vplt().frames[0] = 4;
    tv().vplt().frames[1] = 0;
    ASSERT_TRUE(tv().sound().remove_control("main out mute"));
    for (auto& c : tv().sound().controls)
        if (c.name == "qvl speaker main gain")
            c.value = 16384;

    EXPECT_EQ(avsink_probe::run_probe(avsink_probe::ProbeOptions()), 0);
    auto got = probe_lines(lines());
    std::vector<std::string> want = {
        "probe: connector: 60",
        "probe: crtc: 77",
        "probe: panel: 1366x768",
        "probe: get_panel_size: 1366x768",
        // A panel below full HD still gets a full-HD placeholder buffer.
        "probe: placeholder framebuffer: fb=200 dumb=100 stride=7680 size=8294400",
        "probe: plane OSDP(0): 21",
        "probe: plane SGP(2): 23",
        "probe: plane DP_MAIN(5): 55",
        "probe: plane DP_SUB(6): 56",
        "probe: video plane: 55 (type DP_MAIN)",
        "probe: vsync fps: 50.000000",
        "probe: vsync offset: 1 s 2500000 ns",
        "probe: decoder frames: dec0=4 dec1=0",
        "probe: mixer controls on 'default': 3",
        "probe: mixer control: 'audio dec0 playback rate' numid=3 iface=MIXER type=INTEGER count=1 "
        "range=-2147483647..2147483647 value=0",
        "probe: mixer control: 'qvl hp main gain' numid=2 iface=MIXER type=INTEGER count=1 "
        "range=-2147483647..2147483647 value=0",
        "probe: mixer control: 'qvl speaker main gain' numid=1 iface=MIXER type=INTEGER count=1 "
        "range=-2147483647..2147483647 value=16384",
    };
    ASSERT_GE(got.size(), want.size() + 3);
    EXPECT_EQ(std::vector<std::string>(got.begin() + 2, got.begin() + 2 + static_cast<long>(want.size())),
              want);
}

TEST_F(ProbeTest, ChangesNothingTheViewerSeesOrHears) {
    EXPECT_EQ(avsink_probe::run_probe(avsink_probe::ProbeOptions()), 0);
    for (const char* name :
         {"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_ONOFF",
          "FR2IP_SetDispQueueSize", "FR2IP_SetPTS", "FR2IP_SetNextResolution", "DOLBY_IOC_SET_DV_PROFILE",
          "SNDRV_CTL_IOCTL_ELEM_WRITE", "write"})
        EXPECT_EQ(tv().count(name), 0u) << name;
    // Only vsync, offset and decoder usage queries reach the video-platform device.
    std::vector<std::string> vplt;
    for (const auto& e : tv().events(emutv::Device::Vplt))
        if (e.kind == emutv::Kind::Ioctl)
            vplt.push_back(e.name);
    EXPECT_EQ(vplt, (std::vector<std::string>{"FR2IP_GetVsyncHZ", "FR2IP_GetOffsetFromVsync",
                                              "FR2IP_GetDirectlyFrames"}));
    // The placeholder framebuffer of open is gone again, and every descriptor is closed.
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_ADDFB2"), 1u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_RMFB"), 1u);
    EXPECT_TRUE(tv().drm().framebuffers.empty());
    EXPECT_TRUE(tv().drm().dumb_handles.empty());
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(ProbeTest, AFailedOpenIsReportedWithTheLibrarysReason) {
    tv().set_present("/dev/qvl/qvkvplt", false);
    avsink_probe::ProbeOptions opt;
    opt.mixer = false;
    EXPECT_EQ(avsink_probe::run_probe(opt), 1);
    auto all = lines();
    EXPECT_EQ(probe_lines(all),
              (std::vector<std::string>{
                  "probe: opening a video output",
                  "probe: quarvel_video_output_open failed (the library's lines above say why)",
              }));
    bool reason = false;
    for (const auto& l : all)
        reason = reason || l == vline("quarvel_video_output_open", "Failed valio init");
    EXPECT_TRUE(reason);
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_CARD_INFO"), 0u);
}

TEST_F(ProbeTest, VsyncNotYetAvailableIsReportedAndTheProbeGoesOn) {
    tv().vplt().vsync_hz = 0;
    avsink_probe::ProbeOptions opt;
    opt.mixer = false;
    EXPECT_EQ(avsink_probe::run_probe(opt), 0);
    auto got = probe_lines(lines());
    EXPECT_NE(std::find(got.begin(), got.end(), "probe: vsync: not available (result -1)"), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "probe: decoder frames: dec0=2 dec1=1"), got.end());
}

TEST_F(ProbeTest, AMissingMixerIsReported) {
    tv().set_present("/dev/snd/controlC0", false);
    EXPECT_EQ(avsink_probe::run_probe(avsink_probe::ProbeOptions()), 0);
    auto got = probe_lines(lines());
    bool reported = false;
    for (const auto& l : got)
        reported = reported || l.compare(0, 37, "probe: mixer: cannot open 'default': ") == 0;
    EXPECT_TRUE(reported);
}

}  // namespace
