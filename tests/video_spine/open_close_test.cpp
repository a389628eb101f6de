// The video output handle: open, close, the panel size and the common release tail.
#include <drm.h>
#include <drm_mode.h>
#include <unistd.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>

#include "spine_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using spine::kAllLevels;
using spine::only;
using spine::SpineTest;
using spine::operator+;

namespace {

const std::vector<std::string> kDefaultOpenCalls = {"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen",
                                                    "open /dev/dri/card0"};

class VideoOutputLifecycle : public SpineTest {};

TEST_F(VideoOutputLifecycle, open_discovers_the_display_and_returns_an_opened_handle) {
    ShowAllLevels();
    const int descriptors = emutv::process_open_descriptors();

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    EXPECT_EQ(calls(), kDefaultOpenCalls + DefaultDiscoveryCalls());
    EXPECT_EQ(lines(), std::vector<std::string>{vline("quarvel_video_output_open", "in")} + NoHalLines() +
                           std::vector<std::string>{
                               vline("quarvel_video_output_open", "succeed to get drm fd from korb")} +
                           DefaultDiscoveryLines(output->m_drm_fd));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors + 3);
    auto opens = tv().events("open");
    ASSERT_EQ(opens.size(), 3u);
    EXPECT_EQ(opens[0].field("flags"), O_RDWR);
    EXPECT_EQ(opens[1].field("flags"), O_RDWR);
    EXPECT_EQ(opens[2].field("flags"), 0x802);  // read-write, non-blocking
    EXPECT_EQ(output->m_valio_fd, opens[0].fd);
    EXPECT_EQ(output->m_dolby_fd, opens[1].fd);
    EXPECT_EQ(output->m_drm_fd, opens[2].fd);
    EXPECT_EQ(only("dlopen").field("mode"), RTLD_LAZY);

    EXPECT_TRUE(output->m_opened);
    EXPECT_EQ(output->m_num_buffers, 1);
    EXPECT_EQ(output->m_crtc_id, 42u);
    EXPECT_EQ(output->m_con_id, 40u);
    EXPECT_EQ(output->m_plane_type, 5u);
    EXPECT_EQ(output->m_drm_buffers[0].stride, 15360u);
    EXPECT_EQ(output->m_drm_buffers[0].size, 33177600u);
    EXPECT_EQ(output->m_drm_buffers[0].bo_handle, 100u);
    EXPECT_EQ(output->m_drm_buffers[0].fb_handle, 200u);
    const int planes[11] = {31, 32, 0, 0, 0, 35, 36, 0, 0, 0, 0};
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(output->m_plane_obj_id[i], planes[i]) << i;
    EXPECT_EQ(output->m_panel_width, 3840);
    EXPECT_EQ(output->m_panel_height, 2160);
    EXPECT_EQ(output->pre_source, 14);
    EXPECT_FALSE(output->m_first_frame_initialized);
    EXPECT_FALSE(output->m_queue_size_set);
    EXPECT_FALSE(output->m_ta_switch);
    EXPECT_EQ(output->m_dv_profile, -1);
    EXPECT_FALSE(output->m_is_ta);
    EXPECT_EQ(output->m_gem_buf_idx, -1);
    EXPECT_EQ(output->m_de_fd, -1);
    EXPECT_EQ(output->m_window, nullptr);
    EXPECT_EQ(output->m_frame_meta.w, 0u);
    EXPECT_EQ(output->m_frame_meta.h, 0u);
    EXPECT_EQ(output->m_frame_meta.dar_w, 0u);
    EXPECT_EQ(output->m_frame_meta.dar_h, 0u);
    EXPECT_EQ(output->m_frame_meta.sar_num, 1u);
    EXPECT_EQ(output->m_frame_meta.sar_denom, 1u);
    const quarvel_video_output_rect_s zero{};
    EXPECT_EQ(memcmp(&output->m_wanted_rect, &zero, sizeof(zero)), 0);
    EXPECT_EQ(memcmp(&output->m_rect_applied_to_driver, &zero, sizeof(zero)), 0);
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, open_at_the_default_mask_prints_errors_and_info_only) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           vline("quarvel_video_output_open", "in"),
                           vline("get_drm_fd_from_korb", "handle is NULL"),
                           vline("CreateDRMDummyBuffer", "drm_fd(" + std::to_string(output->m_drm_fd) +
                                                             "),fb_id(200),width(3840),height(2160)"),
                           "",
                       }));
    quarvel_video_output_close(output);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_close", "in"),
                                                 vline("get_drm_fd_from_korb", "handle is NULL")}));
}

TEST_F(VideoOutputLifecycle, open_tries_the_video_platform_names_in_order) {
    tv().set_present("/dev/qvl/qvkvplt", false);
    tv().set_present("/tmp/qvkvplt", true);

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    auto all = calls();
    ASSERT_GE(all.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 4),
              (std::vector<std::string>{"open /dev/qvl/qvkvplt -> ENOENT", "open /dev/qvkvplt -> ENOENT",
                                        "open /tmp/qvkvplt", "open /dev/kdolby"}));
    EXPECT_EQ(output->m_valio_fd, tv().events("open")[2].fd);
    tv().clear_events();
    quarvel_video_output_close(output);
    EXPECT_EQ(calls().back(), "close /tmp/qvkvplt");
}

TEST_F(VideoOutputLifecycle, open_takes_the_second_video_platform_name_when_the_first_is_missing) {
    tv().set_present("/dev/qvl/qvkvplt", false);
    tv().set_present("/dev/qvkvplt", true);

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    auto all = calls();
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 3),
              (std::vector<std::string>{"open /dev/qvl/qvkvplt -> ENOENT", "open /dev/qvkvplt",
                                        "open /dev/kdolby"}));
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, no_video_platform_device_fails_open_before_dolby_and_drm) {
    ShowAllLevels();
    tv().set_present("/dev/qvl/qvkvplt", false);
    const int descriptors = emutv::process_open_descriptors();

    EXPECT_EQ(quarvel_video_output_open(false), nullptr);

    EXPECT_EQ(calls(),
              (std::vector<std::string>{"open /dev/qvl/qvkvplt -> ENOENT", "open /dev/qvkvplt -> ENOENT",
                                        "open /tmp/qvkvplt -> ENOENT"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_open", "in"),
                                                 vline("quarvel_video_output_open", "Failed valio init"),
                                                 vline("CloseDevice", "in")}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
}

TEST_F(VideoOutputLifecycle, open_tries_the_dolby_names_in_order) {
    tv().set_present("/dev/kdolby", false);
    tv().set_present("/tmp/kdolby", true);

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    auto all = calls();
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 5),
              (std::vector<std::string>{"open /dev/qvl/qvkvplt", "open /dev/kdolby -> ENOENT",
                                        "open /dev/qvl/kdolby -> ENOENT", "open /tmp/kdolby", "dlopen"}));
    EXPECT_EQ(output->m_dolby_fd, tv().events("open")[3].fd);
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, missing_dolby_device_fails_open_and_closes_the_video_platform_descriptor) {
    ShowAllLevels();
    tv().set_present("/dev/kdolby", false);
    const int descriptors = emutv::process_open_descriptors();

    EXPECT_EQ(quarvel_video_output_open(false), nullptr);

    EXPECT_EQ(calls(), (std::vector<std::string>{"open /dev/qvl/qvkvplt", "open /dev/kdolby -> ENOENT",
                                                 "open /dev/qvl/kdolby -> ENOENT",
                                                 "open /tmp/kdolby -> ENOENT", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_open", "in"),
                                                 vline("quarvel_video_output_open", "Failed dolby init"),
                                                 vline("CloseDevice", "in")}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
}

TEST_F(VideoOutputLifecycle, drm_device_that_cannot_be_opened_fails_open_with_its_reason) {
    ShowAllLevels();
    tv().set_present("/dev/dri/card0", false);
    const int descriptors = emutv::process_open_descriptors();

    EXPECT_EQ(quarvel_video_output_open(false), nullptr);

    EXPECT_EQ(calls(), (std::vector<std::string>{"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen",
                                                 "open /dev/dri/card0 -> ENOENT", "close /dev/kdolby",
                                                 "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("quarvel_video_output_open", "in")} + NoHalLines() +
               std::vector<std::string>{vline("quarvel_video_output_open",
                                              "Render drm open device Fail: No such file or directory"),
                                        vline("CloseDevice", "in")}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
}

TEST_F(VideoOutputLifecycle, hal_descriptor_is_used_and_card0_is_never_opened) {
    ShowAllLevels();
    tv().set_hal(emutv::HalMode::Working);

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    auto hal_fd = only("Hal_Video_Get_DrmDeviceId").result;
    EXPECT_EQ(output->m_drm_fd, hal_fd);
    EXPECT_EQ(calls(), (std::vector<std::string>{"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen",
                                                 "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}) +
                           DefaultDiscoveryCalls());
    for (const auto& e : tv().events(emutv::Device::Drm))
        EXPECT_EQ(e.fd, hal_fd) << e.name;
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("quarvel_video_output_open", "in"),
                                        vline("get_drm_fd_from_korb",
                                              "get cardID:0, drm_fd:" + std::to_string(hal_fd) + ", ret:0")} +
               DefaultDiscoveryLines(static_cast<int>(hal_fd))));
    tv().clear_events();
    const int descriptors = emutv::process_open_descriptors();

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_DESTROY_DUMB",
                                                 "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            vline("quarvel_video_output_close", "in"), vline("CloseDevice", "in"),
            vline("get_drm_fd_from_korb", "has got drm_fd from korb"),
            vline("get_drm_fd_from_korb", "get cardID:0, drm_fd:" + std::to_string(hal_fd) + ", ret:0")}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors - 2);
    EXPECT_EQ(fcntl(static_cast<int>(hal_fd), F_GETFD), FD_CLOEXEC) << "the HAL's descriptor stays open";
}

TEST_F(VideoOutputLifecycle, hal_that_fails_makes_open_fall_back_to_card0) {
    ShowAllLevels();
    tv().set_hal(emutv::HalMode::InitFails);

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    EXPECT_EQ(calls(), (std::vector<std::string>{"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen",
                                                 "Hal_Video_DrmInit", "open /dev/dri/card0"}) +
                           DefaultDiscoveryCalls());
    EXPECT_EQ(output->m_drm_fd, tv().events("open")[2].fd);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                            vline("quarvel_video_output_open", "in"),
                            vline("get_drm_fd_from_korb", "Hal_Video_DrmInit failn"),
                            vline("get_drm_fd_from_korb", "get cardID:0, drm_fd:0, ret:-1"),
                            vline("quarvel_video_output_open", "succeed to get drm fd from korb")} +
                        DefaultDiscoveryLines(output->m_drm_fd)));
    tv().clear_events();
    quarvel_video_output_close(output);
    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_DESTROY_DUMB",
                                                 "dlopen", "Hal_Video_DrmInit", "close /dev/dri/card0",
                                                 "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
}

TEST_F(VideoOutputLifecycle, the_ta_case_argument_is_ignored) {
    quarvel_video_output_s* with_ta = quarvel_video_output_open(true);
    ASSERT_NE(with_ta, nullptr);
    auto ta_calls = calls();
    EXPECT_FALSE(with_ta->m_is_ta);
    EXPECT_EQ(with_ta->m_gem_buf_idx, -1);
    EXPECT_EQ(with_ta->m_de_fd, -1);
    quarvel_video_output_close(with_ta);
    tv().reset();
    lines();

    quarvel_video_output_s* without_ta = quarvel_video_output_open(false);
    ASSERT_NE(without_ta, nullptr);
    EXPECT_FALSE(without_ta->m_is_ta);
    EXPECT_EQ(calls(), ta_calls);
    EXPECT_EQ(ta_calls, kDefaultOpenCalls + DefaultDiscoveryCalls());
    quarvel_video_output_close(without_ta);
}

TEST_F(VideoOutputLifecycle, panel_size_is_the_default_when_no_connector_reports_one) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    int width = 0;
    int height = 0;

    quarvel_video_output_get_panel_size(output, &width, &height);

    EXPECT_EQ(width, 3840);
    EXPECT_EQ(height, 2160);
    EXPECT_EQ(lines(),
              std::vector<std::string>{vline("quarvel_video_output_get_panel_size", "w(3840) h(2160)")});
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, panel_size_is_the_one_the_connector_reports) {
    tv().drm().connectors[0].mm_width = 1366;
    tv().drm().connectors[0].mm_height = 768;
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    tv().clear_events();
    int width = 0;
    int height = 0;

    quarvel_video_output_get_panel_size(output, &width, &height);

    EXPECT_EQ(width, 1366);
    EXPECT_EQ(height, 768);
    EXPECT_EQ(lines(),
              std::vector<std::string>{vline("quarvel_video_output_get_panel_size", "w(1366) h(768)")});
    EXPECT_TRUE(calls().empty());
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, panel_size_is_not_printed_when_info_is_masked_off) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    g_ruvo_logmask = RUVO_LOG_ERR;
    int width = 0;
    int height = 0;

    quarvel_video_output_get_panel_size(output, &width, &height);

    EXPECT_EQ(width, 3840);
    EXPECT_TRUE(lines().empty());
    quarvel_video_output_close(output);
}

TEST_F(VideoOutputLifecycle, close_releases_buffer_and_descriptors_in_order) {
    ShowAllLevels();
    const int descriptors = emutv::process_open_descriptors();
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    tv().clear_events();

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), DefaultCloseCalls());
    EXPECT_EQ(lines(), DefaultCloseLines());
    auto rmfb = only("DRM_IOCTL_MODE_RMFB");
    EXPECT_EQ(rmfb.request, 0xC00464AFul);
    EXPECT_EQ(rmfb.in, spine::bytes_of(uint32_t{200}));
    auto destroy = only("DRM_IOCTL_MODE_DESTROY_DUMB");
    EXPECT_EQ(destroy.request, 0xC00464B4ul);
    drm_mode_destroy_dumb expected_destroy{};
    expected_destroy.handle = 100;
    EXPECT_EQ(destroy.in, spine::bytes_of(expected_destroy));
    EXPECT_TRUE(tv().drm().framebuffers.empty());
    EXPECT_TRUE(tv().drm().dumb_handles.empty());
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(VideoOutputLifecycle, close_logs_a_failed_framebuffer_removal_and_goes_on) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    tv().clear_events();
    tv().fail("DRM_IOCTL_MODE_RMFB", EBUSY);

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), (std::vector<std::string>{
                           "DRM_IOCTL_MODE_RMFB -> EBUSY", "DRM_IOCTL_MODE_DESTROY_DUMB", "dlopen",
                           "close /dev/dri/card0", "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("quarvel_video_output_close", "in"),
                                        vline("quarvel_video_output_close",
                                              "ioctl(DRM_IOCTL_MODE_RMFB) failed: Device or resource busy"),
                                        vline("get_drm_fd_from_korb", "handle is NULL")}));
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(VideoOutputLifecycle, close_logs_a_failed_dumb_buffer_destruction_and_goes_on) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    lines();
    tv().clear_events();
    tv().fail("DRM_IOCTL_MODE_DESTROY_DUMB", EPERM);

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), (std::vector<std::string>{
                           "DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_DESTROY_DUMB -> EPERM", "dlopen",
                           "close /dev/dri/card0", "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           vline("quarvel_video_output_close", "in"),
                           vline("quarvel_video_output_close",
                                 "ioctl(DRM_IOCTL_MODE_DESTROY_DUMB) failed: Operation not permitted"),
                           vline("get_drm_fd_from_korb", "handle is NULL")}));
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(VideoOutputLifecycle, close_releases_only_buffer_zero_whatever_the_buffer_count_says) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    output->m_num_buffers = 3;
    tv().clear_events();

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), DefaultCloseCalls());
}

TEST_F(VideoOutputLifecycle, close_of_a_null_handle_is_logged_and_ignored) {
    ShowAllLevels();

    quarvel_video_output_close(nullptr);

    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_close", "in"),
                                                 vline("quarvel_video_output_close", "output is null")}));
    EXPECT_TRUE(calls().empty());
}

TEST_F(VideoOutputLifecycle, close_device_of_a_null_handle_is_logged_and_ignored) {
    ShowAllLevels();

    CloseDevice(static_cast<quarvel_video_output_s*>(nullptr));

    EXPECT_EQ(lines(), std::vector<std::string>{vline("CloseDevice", "output is null")});
    EXPECT_TRUE(calls().empty());
}

TEST_F(VideoOutputLifecycle, close_restores_the_display_queue_a_handle_held) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    ASSERT_TRUE(InitQueueMode(output));
    ASSERT_EQ(tv().vplt().queue_size, 0);
    tv().clear_events();

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_DESTROY_DUMB",
                                                 "FR2IP_SetDispQueueSize", "dlopen", "close /dev/dri/card0",
                                                 "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(tv().vplt().queue_size, 3);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
}

TEST_F(VideoOutputLifecycle, close_of_a_handle_without_queue_hold_sends_no_queue_command) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    tv().clear_events();

    quarvel_video_output_close(output);

    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 0u);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
}

TEST_F(VideoOutputLifecycle, close_device_without_video_platform_descriptor_releases_no_queue_hold) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    ASSERT_TRUE(InitQueueMode(output));
    const int valio_fd = output->m_valio_fd;
    output->m_valio_fd = -1;
    tv().clear_events();

    quarvel_video_output_close(output);

    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 0u);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_EQ(calls().back(), "close /dev/kdolby");
    close(valio_fd);
}

TEST_F(VideoOutputLifecycle, discovery_failure_fails_open_and_leaves_the_dumb_buffer_to_the_driver) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_GETPLANERESOURCES", EACCES);
    const int descriptors = emutv::process_open_descriptors();

    EXPECT_EQ(quarvel_video_output_open(false), nullptr);

    EXPECT_EQ(calls(), (kDefaultOpenCalls +
                        std::vector<std::string>{
                            "DRM_IOCTL_MODE_GETRESOURCES", "DRM_IOCTL_MODE_GETCONNECTOR",
                            "DRM_IOCTL_MODE_GETENCODER", "DRM_IOCTL_MODE_CREATE_DUMB",
                            "DRM_IOCTL_MODE_ADDFB2", "DRM_IOCTL_MODE_GETPLANERESOURCES -> EACCES", "dlopen",
                            "close /dev/dri/card0", "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    auto printed = lines();
    ASSERT_GE(printed.size(), 5u);
    EXPECT_EQ(std::vector<std::string>(printed.end() - 5, printed.end()),
              (std::vector<std::string>{
                  vline("DRMFindPlane", "in"), vline("DRMFindPlane", "drmModeGetPlaneResources failed"),
                  vline("CloseDevice", "in"), vline("get_drm_fd_from_korb", "handle is NULL"),
                  vline("get_drm_fd_from_korb", "get cardID:0, drm_fd:0, ret:-1")}));
    EXPECT_EQ(tv().drm().dumb_handles.size(), 1u);
    EXPECT_EQ(tv().drm().framebuffers.size(), 1u);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
}

}  // namespace
