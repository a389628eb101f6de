// avsink-probe on the emulated platform: it reports what the platform was set up with, in
// sections that each stand on their own, and sends nothing that would change the picture
// or the sound.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "json.h"
#include "probe.h"
#include "ruvo/driver/sdp_drm.h"
#include "test_support.h"
#include "topology.h"

namespace {

using avsink_probe::Json;
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

// The lines from the first one equal to `from`, `n` of them.
std::vector<std::string> lines_from(const std::vector<std::string>& all, const std::string& from, size_t n) {
    auto it = std::find(all.begin(), all.end(), from);
    if (it == all.end())
        return {"(no line \"" + from + "\")"};
    size_t left = static_cast<size_t>(all.end() - it);
    return std::vector<std::string>(it, it + static_cast<long>(std::min(n, left)));
}

bool has_line(const std::vector<std::string>& all, const std::string& line) {
    return std::find(all.begin(), all.end(), line) != all.end();
}

class ProbeTest : public ruvo_test::PlatformTest {
  protected:
    avsink_probe::ProbeOptions options() {
        avsink_probe::ProbeOptions opt;
        opt.compr_dir = tv().sandbox_root() + "/no-snd";  // no node of the machine running the test
        return opt;
    }
};

TEST_F(ProbeTest, ReportsThePowerOnPlatform) {
    EXPECT_EQ(avsink_probe::run_probe(options()), 0);
    auto got = probe_lines(lines());
    ASSERT_FALSE(got.empty());
    // The library is linked into this test program: no shared library, no version.
    EXPECT_EQ(got[0].compare(0, 16, "probe: library: "), 0) << got[0];
    EXPECT_NE(got[0].find(" (probe 1.0.0)"), std::string::npos) << got[0];
    // The library's own descriptor: the last to fetch the resources.
    const int drm_fd = tv().events("DRM_IOCTL_MODE_GETRESOURCES").back().fd;
    EXPECT_EQ(
        std::vector<std::string>(got.begin() + 1, got.end()),
        (std::vector<std::string>{
            "probe: device: /dev/qvl/qvkvplt (video platform, O_RDWR): opens",
            "probe: device: /dev/qvkvplt (video platform, O_RDWR): No such file or directory (errno 2)",
            "probe: device: /tmp/qvkvplt (video platform, O_RDWR): No such file or directory (errno 2)",
            "probe: device: /dev/kdolby (dolby, O_RDWR): opens",
            "probe: device: /dev/qvl/kdolby (dolby, O_RDWR): No such file or directory (errno 2)",
            "probe: device: /tmp/kdolby (dolby, O_RDWR): No such file or directory (errno 2)",
            "probe: device: /dev/dri/card0 (drm, O_RDWR|O_NONBLOCK): opens",
            "probe: device: /dev/qvkconverter (frame converter, O_RDWR): opens",
            "probe: device: /dev/video10 (broadcast decoder, O_RDONLY): opens",
            "probe: hal: /mtd_apexe/board/lib/libKORB3.so: not loaded (no loader message); the library "
            "opens /dev/dri/card0 itself",
            "probe: drm: /dev/dri/card0: driver unknown",
            "probe: drm: crtcs: 42",
            "probe: drm: connector 40: connected, size 0x0, encoder 41, encoders 41, 1 modes: 1920x1080@60",
            "probe: drm: encoder 41: crtc 42, possible crtcs 0x1",
            "probe: drm: plane 31: type OSDP, 1 formats, properties type=1 plane_type=0",
            "probe: drm: plane 32: type GP, 1 formats, properties type=1 plane_type=1",
            "probe: drm: plane 35: type DP_MAIN, 1 formats, properties type=0 plane_type=5",
            "probe: drm: plane 36: type DP_SUB, 1 formats, properties type=1 plane_type=6",
            // The chip's driver lists every plane without being asked.
            "probe: drm: universal planes: not offered: Inappropriate ioctl for device (errno 25)",
            "probe: opening a video output",
            "probe: drm fd: " + std::to_string(drm_fd),
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
            "probe: closing the video output",
            "probe: compressed: no comprC* node in " + tv().sandbox_root() + "/no-snd",
            "probe: mixer controls on 'default': 4",
            "probe: mixer control: 'audio dec0 playback rate' numid=3 iface=MIXER type=INTEGER count=1 "
            "range=-2147483647..2147483647 value=0",
            "probe: mixer control: 'main out mute' numid=4 iface=MIXER type=INTEGER count=1 "
            "range=-2147483647..2147483647 value=0",
            "probe: mixer control: 'qvl hp main gain' numid=2 iface=MIXER type=INTEGER count=1 "
            "range=-2147483647..2147483647 value=0",
            "probe: mixer control: 'qvl speaker main gain' numid=1 iface=MIXER type=INTEGER count=1 "
            "range=-2147483647..2147483647 value=0",
            "probe: mixer: library control 'qvl speaker main gain': present",
            "probe: mixer: library control 'qvl hp main gain': present",
            "probe: mixer: library control 'audio dec0 playback rate': present",
            "probe: mixer: library control 'main out mute': present",
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

    EXPECT_EQ(avsink_probe::run_probe(options()), 0);
    auto got = probe_lines(lines());
    EXPECT_EQ(lines_from(got, "probe: drm: crtcs: 77", 7),
              (std::vector<std::string>{
                  "probe: drm: crtcs: 77",
                  "probe: drm: connector 60: connected, size 1366x768, encoder 41, encoders 41, 1 modes: "
                  "1366x768@60",
                  "probe: drm: encoder 41: crtc 77, possible crtcs 0x1",
                  "probe: drm: plane 21: type OSDP, 1 formats, properties type=1 plane_type=0",
                  "probe: drm: plane 23: type SGP, 1 formats, properties type=1 plane_type=2",
                  "probe: drm: plane 55: type DP_MAIN, 1 formats, properties type=0 plane_type=5",
                  "probe: drm: plane 56: type DP_SUB, 1 formats, properties type=1 plane_type=6",
              }));
    EXPECT_EQ(lines_from(got, "probe: connector: 60", 13),
              (std::vector<std::string>{
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
              }));
    EXPECT_EQ(lines_from(got, "probe: mixer controls on 'default': 3", 8),
              (std::vector<std::string>{
                  "probe: mixer controls on 'default': 3",
                  "probe: mixer control: 'audio dec0 playback rate' numid=3 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: mixer control: 'qvl hp main gain' numid=2 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=0",
                  "probe: mixer control: 'qvl speaker main gain' numid=1 iface=MIXER type=INTEGER count=1 "
                  "range=-2147483647..2147483647 value=16384",
                  "probe: mixer: library control 'qvl speaker main gain': present",
                  "probe: mixer: library control 'qvl hp main gain': present",
                  "probe: mixer: library control 'audio dec0 playback rate': present",
                  "probe: mixer: library control 'main out mute': missing",
              }));
}

TEST_F(ProbeTest, ChangesNothingTheViewerSeesOrHears) {
    tv().add_compr_device("/dev/snd/comprC0D3");
    auto opt = options();
    opt.compr_paths = {"/dev/snd/comprC0D3"};
    EXPECT_EQ(avsink_probe::run_probe(opt), 0);
    for (const char* name :
         {"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_ONOFF",
          "FR2IP_SetDispQueueSize", "FR2IP_SetPTS", "FR2IP_SetNextResolution", "DOLBY_IOC_SET_DV_PROFILE",
          "SNDRV_CTL_IOCTL_ELEM_WRITE", "write", "SNDRV_COMPRESS_SET_PARAMS", "SNDRV_COMPRESS_START",
          "SNDRV_COMPRESS_SET_METADATA"})
        EXPECT_EQ(tv().count(name), 0u) << name;
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_GET_CAPS"), 1u);
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

TEST_F(ProbeTest, AFailedOpenIsReportedWithTheLibrarysReasonAndTheOtherSectionsStillRun) {
    tv().set_present("/dev/qvl/qvkvplt", false);
    auto opt = options();
    opt.mixer = false;
    EXPECT_EQ(avsink_probe::run_probe(opt), 1);
    auto all = lines();
    auto got = probe_lines(all);
    EXPECT_EQ(lines_from(got, "probe: opening a video output", 3),
              (std::vector<std::string>{
                  "probe: opening a video output",
                  "probe: quarvel_video_output_open failed (the library's lines above say why)",
                  "probe: compressed: no comprC* node in " + tv().sandbox_root() + "/no-snd",
              }));
    // Every path the library tried is named with its errno.
    for (const char* path : {"/dev/qvl/qvkvplt", "/dev/qvkvplt", "/tmp/qvkvplt"})
        EXPECT_TRUE(has_line(got, std::string("probe: device: ") + path +
                                      " (video platform, O_RDWR): No such file or directory (errno 2)"))
            << path;
    EXPECT_TRUE(has_line(got, "probe: drm: crtcs: 42"));
    EXPECT_TRUE(has_line(all, vline("quarvel_video_output_open", "Failed valio init")));
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_CARD_INFO"), 0u);
}

TEST_F(ProbeTest, AnOpenRefusedByTheDriverIsReportedWithItsErrno) {
    tv().fail("open:/dev/kdolby", EACCES, -1);
    EXPECT_EQ(avsink_probe::run_probe(options()), 1);
    auto got = probe_lines(lines());
    EXPECT_TRUE(has_line(got, "probe: device: /dev/kdolby (dolby, O_RDWR): Permission denied (errno 13)"));
    // The mixer section runs after the failed video output.
    EXPECT_TRUE(has_line(got, "probe: mixer controls on 'default': 4"));
}

TEST_F(ProbeTest, WithoutTheDrmDeviceTheDrmSectionSaysWhyAndTheOthersRun) {
    tv().set_present("/dev/dri/card0", false);
    EXPECT_EQ(avsink_probe::run_probe(options()), 1);
    auto got = probe_lines(lines());
    EXPECT_TRUE(has_line(got, "probe: drm: /dev/dri/card0: No such file or directory (errno 2)"));
    EXPECT_TRUE(has_line(got,
                         "probe: device: /dev/dri/card0 (drm, O_RDWR|O_NONBLOCK): No such file or "
                         "directory (errno 2)"));
    EXPECT_TRUE(has_line(got, "probe: mixer: library control 'main out mute': present"));
}

TEST_F(ProbeTest, TheHalIsLoadedAndItsEntryPointsLookedUpButNotCalled) {
    tv().set_hal(emutv::HalMode::NoGetSymbol);
    auto opt = options();
    opt.mixer = false;
    avsink_probe::run_probe(opt);
    auto got = probe_lines(lines());
    EXPECT_TRUE(has_line(got,
                         "probe: hal: /mtd_apexe/board/lib/libKORB3.so: loaded, Hal_Video_DrmInit present, "
                         "Hal_Video_Get_DrmDeviceId missing (not called)"));
}

TEST_F(ProbeTest, CompressedNodesAreListedWithTheirCapabilities) {
    tv().add_compr_device("/dev/snd/comprC1D0");
    tv().compr().min_fragments = 3;
    tv().compr().max_fragment_size = 32768;
    auto opt = options();
    opt.mixer = false;
    opt.compr_paths = {"/dev/snd/comprC1D0", "/dev/snd/comprC1D9"};
    avsink_probe::Json report;
    avsink_probe::run_probe(opt, &report);
    auto got = probe_lines(lines());
    EXPECT_EQ(
        lines_from(got,
                   "probe: compressed: /dev/snd/comprC1D0: fragments 3..8 of 4096..32768 bytes, codecs 2", 2),
        (std::vector<std::string>{
            "probe: compressed: /dev/snd/comprC1D0: fragments 3..8 of 4096..32768 bytes, codecs 2",
            "probe: compressed: /dev/snd/comprC1D9: No such file or directory (errno 2)",
        }));
    EXPECT_EQ(report.get("compressed")->compact(),
              "[{\"path\": \"/dev/snd/comprC1D0\", \"open\": true, \"caps\": {\"direction\": 0, "
              "\"min_fragment_size\": 4096, \"max_fragment_size\": 32768, \"min_fragments\": 3, "
              "\"max_fragments\": 8, \"codecs\": [2]}}, {\"path\": \"/dev/snd/comprC1D9\", \"open\": false, "
              "\"errno\": 2, \"error\": \"No such file or directory\"}]");
}

TEST_F(ProbeTest, VsyncNotYetAvailableIsReportedAndTheProbeGoesOn) {
    tv().vplt().vsync_hz = 0;
    auto opt = options();
    opt.mixer = false;
    EXPECT_EQ(avsink_probe::run_probe(opt), 0);
    auto got = probe_lines(lines());
    EXPECT_TRUE(has_line(got, "probe: vsync: not available (result -1)"));
    EXPECT_TRUE(has_line(got, "probe: decoder frames: dec0=2 dec1=1"));
}

TEST_F(ProbeTest, AMissingMixerIsReported) {
    tv().set_present("/dev/snd/controlC0", false);
    EXPECT_EQ(avsink_probe::run_probe(options()), 0);
    auto got = probe_lines(lines());
    bool reported = false;
    for (const auto& l : got)
        reported = reported || l.compare(0, 37, "probe: mixer: cannot open 'default': ") == 0;
    EXPECT_TRUE(reported);
}

TEST_F(ProbeTest, TheJsonReportPrintsNoProbeLinesAndReadsBack) {
    auto opt = options();
    opt.json = true;
    Json report;
    EXPECT_EQ(avsink_probe::run_probe(opt, &report), 0);
    EXPECT_TRUE(probe_lines(lines()).empty());
    std::vector<std::string> sections;
    for (const auto& m : report.members())
        sections.push_back(m.first);
    EXPECT_EQ(sections, (std::vector<std::string>{"tool", "library", "devices", "hal", "drm_topology",
                                                  "drm_details", "video_output", "compressed", "mixer"}));
    EXPECT_EQ(
        report.get("drm_topology")->pretty(),
        "{\n"
        "  \"path\": \"/dev/dri/card0\",\n"
        "  \"open\": true,\n"
        "  \"crtcs\": [42],\n"
        "  \"connectors\": [{\"id\": 40, \"connection\": 1, \"mm_width\": 0, \"mm_height\": 0, "
        "\"count_modes\": 1, \"encoder_id\": 41, \"encoders\": [41]}],\n"
        "  \"encoders\": [{\"id\": 41, \"crtc_id\": 42, \"possible_crtcs\": 1}],\n"
        "  \"planes\": [{\"id\": 31, \"count_formats\": 1, \"properties\": [{\"name\": \"type\", \"value\": "
        "1}, "
        "{\"name\": \"plane_type\", \"value\": 0}]}, {\"id\": 32, \"count_formats\": 1, \"properties\": "
        "[{\"name\": \"type\", \"value\": 1}, {\"name\": \"plane_type\", \"value\": 1}]}, {\"id\": 35, "
        "\"count_formats\": 1, \"properties\": [{\"name\": \"type\", \"value\": 0}, {\"name\": "
        "\"plane_type\", "
        "\"value\": 5}]}, {\"id\": 36, \"count_formats\": 1, \"properties\": [{\"name\": \"type\", "
        "\"value\": "
        "1}, {\"name\": \"plane_type\", \"value\": 6}]}]\n"
        "}\n");
    EXPECT_EQ(
        report.get("mixer")->get("library_controls")->compact(),
        "{\"qvl speaker main gain\": true, \"qvl hp main gain\": true, \"audio dec0 playback rate\": true, "
        "\"main out mute\": true}");
    Json back;
    std::string error;
    ASSERT_TRUE(avsink_probe::parse_json(report.pretty(), &back, &error)) << error;
    EXPECT_EQ(back.compact(), report.compact());
}

TEST_F(ProbeTest, TheTopologyOfAReportSetsTheEmulatedDeviceUp) {
    // A report of another machine: two CRTCs, a connector with a size and no current
    // encoder, a primary plane without the chip's plane type.
    const std::string text = R"({
  "drm_topology": {
    "path": "/dev/dri/card0",
    "open": true,
    "crtcs": [50, 51],
    "connectors": [
      {"id": 60, "connection": 1, "mm_width": 320, "mm_height": 200, "count_modes": 3, "encoder_id": 0, "encoders": [61]},
      {"id": 62, "connection": 2, "mm_width": 0, "mm_height": 0, "count_modes": 0, "encoder_id": 0, "encoders": []}
    ],
    "encoders": [
      {"id": 61, "crtc_id": 0, "possible_crtcs": 2}
    ],
    "planes": [
      {"id": 70, "count_formats": 9, "properties": [{"name": "type", "value": 1}]}
    ]
  }
})";
    Json report;
    std::string error;
    ASSERT_TRUE(avsink_probe::parse_json(text, &report, &error)) << error;
    ASSERT_TRUE(avsink_probe::apply_topology(report, &error)) << error;
    auto opt = options();
    opt.json = true;
    opt.mixer = false;
    Json probed;
    avsink_probe::run_probe(opt, &probed);
    EXPECT_EQ(probed.get("drm_topology")->pretty(), report.get("drm_topology")->pretty());
    // The library takes the connector's size for the panel and the second CRTC.
    EXPECT_EQ(probed.get("video_output")->get("panel")->as_string(), "320x200");
    EXPECT_EQ(probed.get("video_output")->get("crtc")->as_int(), 51);
}

TEST_F(ProbeTest, AReportWithoutAnOpenDrmDeviceIsRefused) {
    Json report;
    std::string error;
    ASSERT_TRUE(avsink_probe::parse_json(R"({"drm_topology": {"path": "/dev/dri/card0", "open": false}})",
                                         &report, &error));
    EXPECT_FALSE(avsink_probe::apply_topology(report, &error));
    EXPECT_EQ(error, "the DRM device was not open when the report was made");
    EXPECT_FALSE(avsink_probe::apply_topology(Json::object(), &error));
    EXPECT_EQ(error, "the report has no \"drm_topology\" section");
    EXPECT_FALSE(avsink_probe::apply_topology_file("/nonexistent/report.json", &error));
    EXPECT_EQ(error, "cannot read /nonexistent/report.json");
}

TEST(ProbeJson, ParsesWhatItPrintsAndSaysWhereTextIsBroken) {
    Json v;
    std::string error;
    ASSERT_TRUE(avsink_probe::parse_json(R"( {"a": [1, -2, 3.5, true, false, null, "x\"y\\z\n"], "b": {}} )",
                                         &v, &error))
        << error;
    EXPECT_EQ(v.compact(),
              "{\"a\": [1, -2, 3.500000, true, false, null, \"x\\\"y\\\\z\\u000a\"], \"b\": {}}");
    EXPECT_FALSE(avsink_probe::parse_json("{\"a\": [1, 2}", &v, &error));
    EXPECT_EQ(error, "expected ',' or ']' at offset 11");
    EXPECT_FALSE(avsink_probe::parse_json("{} x", &v, &error));
    EXPECT_EQ(error, "text after the value at offset 3");
}

}  // namespace
