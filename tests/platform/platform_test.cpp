// The emulated TV platform itself: the real libdrm against the emulated DRM device,
// presence, scripted faults, the record and the sandbox.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <xf86drmMode.h>

#include "emutv/lines.h"
#include "test_support.h"

using ruvo_test::PlatformTest;

class EmulatedPlatform : public PlatformTest {};

TEST_F(EmulatedPlatform, real_libdrm_reads_the_default_topology) {
    int fd = open("/dev/dri/card0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    drmModeRes* res = drmModeGetResources(fd);
    ASSERT_NE(res, nullptr);
    ASSERT_EQ(res->count_connectors, 1);
    EXPECT_EQ(res->connectors[0], 40u);
    ASSERT_EQ(res->count_crtcs, 1);
    drmModeConnector* con = drmModeGetConnector(fd, res->connectors[0]);
    ASSERT_NE(con, nullptr);
    EXPECT_EQ(con->connection, DRM_MODE_CONNECTED);
    EXPECT_EQ(con->encoder_id, 41u);
    drmModeFreeConnector(con);
    drmModeFreeResources(res);

    drmModePlaneRes* planes = drmModeGetPlaneResources(fd);
    ASSERT_NE(planes, nullptr);
    EXPECT_EQ(planes->count_planes, 4u);
    drmModeObjectProperties* props = drmModeObjectGetProperties(fd, planes->planes[2], DRM_MODE_OBJECT_PLANE);
    ASSERT_NE(props, nullptr);
    ASSERT_EQ(props->count_props, 2u);
    drmModePropertyRes* prop = drmModeGetProperty(fd, props->props[1]);
    ASSERT_NE(prop, nullptr);
    EXPECT_STREQ(prop->name, "plane_type");
    EXPECT_EQ(props->prop_values[1], 5u);
    drmModeFreeProperty(prop);
    drmModeFreeObjectProperties(props);
    drmModeFreePlaneResources(planes);
    EXPECT_EQ(close(fd), 0);

    auto opens = tv().events("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].path, "/dev/dri/card0");
    EXPECT_EQ(tv().events("close").size(), 1u);
    EXPECT_GE(tv().count("DRM_IOCTL_MODE_GETRESOURCES"), 2u);
}

TEST_F(EmulatedPlatform, an_absent_node_fails_with_enoent_and_is_recorded) {
    tv().set_present("/dev/kdolby", false);
    errno = 0;
    EXPECT_EQ(open("/dev/kdolby", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    auto opens = tv().events("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].result, -1);
    EXPECT_EQ(opens[0].err, ENOENT);
}

TEST_F(EmulatedPlatform, a_scripted_fault_fails_the_request_once) {
    int fd = open("/dev/dri/card0", O_RDWR);
    ASSERT_GE(fd, 0);
    tv().fail("DRM_IOCTL_MODE_RMFB", EINVAL);
    uint32_t id = 999;
    EXPECT_EQ(ioctl(fd, DRM_IOCTL_MODE_RMFB, &id), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ioctl(fd, DRM_IOCTL_MODE_RMFB, &id), -1);
    EXPECT_EQ(errno, ENOENT);  // the driver itself: no such framebuffer
    close(fd);
}

TEST_F(EmulatedPlatform, emulated_descriptors_are_real_descriptors) {
    int before = emutv::process_open_descriptors();
    int fd = open("/dev/qvl/qvkvplt", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(emutv::process_open_descriptors(), before + 1);
    EXPECT_EQ(tv().open_descriptors(), 1);
    close(fd);
    EXPECT_EQ(emutv::process_open_descriptors(), before);
}

TEST_F(EmulatedPlatform, marker_files_live_in_the_sandbox) {
    tv().sandbox_write("/tmp/RUVO", "8");
    FILE* fp = fopen("/tmp/RUVO", "r");
    ASSERT_NE(fp, nullptr);
    char buf[4] = {};
    EXPECT_EQ(fread(buf, 1, 3, fp), 1u);
    fclose(fp);
    EXPECT_STREQ(buf, "8");
    EXPECT_EQ(tv().sandbox_path("/tmp/RUVO"), tv().sandbox_root() + "/tmp/RUVO");
}

TEST_F(EmulatedPlatform, a_reset_numbers_the_records_from_one_again) {
    close(open("/dev/qvl/qvkvplt", O_RDWR));
    tv().reset();
    close(open("/dev/qvl/qvkvplt", O_RDWR));
    auto opens = tv().events("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].seq, 1u);
}

// Parses `text` as a platform file and applies its lines to a freshly reset platform.
::testing::AssertionResult apply_platform_file(const std::string& text) {
    std::vector<emutv::lines::PlatformLine> lines;
    std::string error;
    if (!emutv::lines::parse_platform_file(text, "tv.platform", &lines, &error))
        return ::testing::AssertionFailure() << error;
    emutv::platform().reset();
    for (const auto& l : lines)
        if (!emutv::lines::apply_platform_line(emutv::platform(), l))
            return ::testing::AssertionFailure() << "not applied: " << l.name;
    return ::testing::AssertionSuccess();
}

TEST(PlatformFileLines, SetsTheAudioDecodersBuffers) {
    ASSERT_TRUE(apply_platform_file(
        "platform compr-device /dev/snd/comprC0D0\nplatform compr buffer=16384 dsp=2048\n"));
    EXPECT_EQ(emutv::platform().compr().ring_bytes, 16384u);
    EXPECT_EQ(emutv::platform().compr().dsp_bytes, 2048);
}

// "platform fail REQUEST ERRNO [TIMES] at=N": the calls before the Nth pass, then TIMES fail.
TEST(PlatformFileLines, AFaultAtTheNthCallLetsTheCallsBeforeItThrough) {
    ASSERT_TRUE(apply_platform_file("platform fail DRM_IOCTL_MODE_RMFB EINVAL 2 at=3\n"));
    int fd = open("/dev/dri/card0", O_RDWR);
    ASSERT_GE(fd, 0);
    std::vector<int> errnos;
    for (int call = 1; call <= 5; ++call) {
        uint32_t id = 999;
        errno = 0;
        EXPECT_EQ(ioctl(fd, DRM_IOCTL_MODE_RMFB, &id), -1);
        errnos.push_back(errno);
    }
    close(fd);
    // ENOENT is the driver's own answer (no such framebuffer); EINVAL the scripted one.
    EXPECT_EQ(errnos, (std::vector<int>{ENOENT, ENOENT, EINVAL, EINVAL, ENOENT}));
}

TEST(PlatformFileLines, AFaultAtCallZeroIsRefusedWithItsLine) {
    std::vector<emutv::lines::PlatformLine> lines;
    std::string error;
    EXPECT_FALSE(emutv::lines::parse_platform_file("\nplatform status FR2IP_SetPTS -1 at=0\n", "tv.platform",
                                                   &lines, &error));
    EXPECT_EQ(error.rfind("tv.platform:2: platform status: ", 0), 0u) << error;
    EXPECT_NE(error.find("at"), std::string::npos) << error;
}

// A platform file can give the DRM device another topology: what the real libdrm then reads.
TEST(PlatformFileLines, ATopologyOfItsOwnIsWhatLibdrmReads) {
    ASSERT_TRUE(
        apply_platform_file("platform drm-empty\n"
                            "platform crtc 7\n"
                            "platform encoder 8 crtc=7 possible=1\n"
                            "platform connector 9 encoder=8 panel=1920x1080\n"
                            "platform connector 10 connected=0\n"
                            "platform plane 11 type=1 plane_type=5\n"));
    int fd = open("/dev/dri/card0", O_RDWR);
    ASSERT_GE(fd, 0);
    drmModeRes* res = drmModeGetResources(fd);
    ASSERT_NE(res, nullptr);
    ASSERT_EQ(res->count_crtcs, 1);
    EXPECT_EQ(res->crtcs[0], 7u);
    ASSERT_EQ(res->count_connectors, 2);
    ASSERT_EQ(res->count_encoders, 1);
    drmModeConnector* con = drmModeGetConnector(fd, 9);
    ASSERT_NE(con, nullptr);
    EXPECT_EQ(con->connection, DRM_MODE_CONNECTED);
    EXPECT_EQ(con->encoder_id, 8u);
    EXPECT_EQ(con->mmWidth, 1920u);
    EXPECT_EQ(con->mmHeight, 1080u);
    drmModeFreeConnector(con);
    con = drmModeGetConnector(fd, 10);
    ASSERT_NE(con, nullptr);
    EXPECT_EQ(con->connection, DRM_MODE_DISCONNECTED);
    drmModeFreeConnector(con);
    drmModeEncoder* enc = drmModeGetEncoder(fd, 8);
    ASSERT_NE(enc, nullptr);
    EXPECT_EQ(enc->crtc_id, 7u);
    drmModeFreeEncoder(enc);
    drmModeFreeResources(res);
    drmModePlaneRes* planes = drmModeGetPlaneResources(fd);
    ASSERT_NE(planes, nullptr);
    ASSERT_EQ(planes->count_planes, 1u);
    EXPECT_EQ(planes->planes[0], 11u);
    drmModeObjectProperties* props = drmModeObjectGetProperties(fd, 11, DRM_MODE_OBJECT_PLANE);
    ASSERT_NE(props, nullptr);
    ASSERT_EQ(props->count_props, 2u);
    EXPECT_EQ(props->prop_values[0], 1u);
    EXPECT_EQ(props->prop_values[1], 5u);
    drmModeFreeObjectProperties(props);
    drmModeFreePlaneResources(planes);
    close(fd);
}

// A line for an object that exists changes it: the default connector can be disconnected.
TEST(PlatformFileLines, AConnectorLineForAnExistingIdChangesIt) {
    ASSERT_TRUE(apply_platform_file("platform connector 40 connected=0\n"));
    const auto& cons = emutv::platform().drm().connectors;
    ASSERT_EQ(cons.size(), 1u);
    EXPECT_EQ(cons[0].connection, 2u);
    EXPECT_EQ(cons[0].encoder_id, 41u);  // kept
}

TEST(PlatformFileLines, APlaneTypeOutOfRangeIsRefusedWithItsLine) {
    std::vector<emutv::lines::PlatformLine> lines;
    std::string error;
    EXPECT_FALSE(
        emutv::lines::parse_platform_file("platform plane 3 type=7\n", "tv.platform", &lines, &error));
    EXPECT_EQ(error.rfind("tv.platform:1: platform plane: ", 0), 0u) << error;
}
