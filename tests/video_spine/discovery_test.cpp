// DRM display discovery during open: connectors, CRTC, panel size, the placeholder
// scan-out buffer and the planes by their chip-specific type.
#include <drm.h>
#include <drm_fourcc.h>
#include <drm_mode.h>
#include <xf86drmMode.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>

#include "spine_fixture.h"

using emutv::DrmConnector;
using emutv::DrmEncoder;
using emutv::DrmPlane;
using ruvo_test::vline;
using spine::only;
using spine::SpineTest;
using spine::operator+;

namespace {

class DisplayDiscovery : public SpineTest {
  protected:
    // Opens a handle; the test's expectations then look at what discovery printed.
    quarvel_video_output_s* Open() {
        output_ = quarvel_video_output_open(false);
        return output_;
    }
    void TearDown() override {
        if (output_ != nullptr)
            quarvel_video_output_close(output_);
        SpineTest::TearDown();
    }
    // Printed lines of the given functions only.
    std::vector<std::string> lines_of(const std::vector<std::string>& functions) {
        std::vector<std::string> out;
        for (auto& line : lines()) {
            for (auto& f : functions)
                if (line.rfind("[qvl_disp_corvi] " + f + "(#) ", 0) == 0)
                    out.push_back(line);
        }
        return out;
    }
    static DrmConnector Connector(uint32_t id, uint32_t encoder_id, std::vector<uint32_t> encoders,
                                  uint32_t connection = DRM_MODE_CONNECTED) {
        DrmConnector c;
        c.id = id;
        c.connection = connection;
        c.encoder_id = encoder_id;
        c.encoders = std::move(encoders);
        return c;
    }
    static DrmPlane Plane(uint32_t id, std::vector<emutv::DrmProperty> props) {
        DrmPlane p;
        p.id = id;
        p.props = std::move(props);
        return p;
    }
    quarvel_video_output_s* output_ = nullptr;
};

TEST_F(DisplayDiscovery, small_panel_keeps_its_size_and_gets_a_full_hd_buffer) {
    ShowAllLevels();
    tv().drm().connectors[0].mm_width = 1366;
    tv().drm().connectors[0].mm_height = 768;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_panel_width, 1366);
    EXPECT_EQ(output_->m_panel_height, 768);
    auto create = only("DRM_IOCTL_MODE_CREATE_DUMB");
    EXPECT_EQ(create.request, 0xC02064B2ul);
    drm_mode_create_dumb sent{};
    sent.height = 1080;
    sent.width = 1920;
    sent.bpp = 4;
    sent.size = 8294400;
    EXPECT_EQ(create.in, spine::bytes_of(sent));
    EXPECT_EQ(output_->m_drm_buffers[0].size, 8294400u);
    EXPECT_EQ(output_->m_drm_buffers[0].stride, 7680u);
    auto fb = only("DRM_IOCTL_MODE_ADDFB2");
    EXPECT_EQ(fb.field("width"), 1920);
    EXPECT_EQ(fb.field("height"), 1080);
    EXPECT_EQ(fb.field("pitch0"), 7680);
    EXPECT_EQ(fb.field("pixel_format"), 0x34325258);
    EXPECT_EQ(fb.field("handle0"), 100);
    const int fd = output_->m_drm_fd;
    EXPECT_EQ(lines_of({"DRMKMSInit", "CreateDRMDummyBuffer"}),
              (std::vector<std::string>{
                  vline("DRMKMSInit", "in"), vline("DRMKMSInit", "drm panel size, [1366x768]"),
                  vline("CreateDRMDummyBuffer", "in"),
                  vline("CreateDRMDummyBuffer", "HD panel,set fb buffer size to 1920x1080"),
                  vline("CreateDRMDummyBuffer",
                        "drm_fd(" + std::to_string(fd) + "),fb_id(200),width(1920),height(1080)")}));
}

TEST_F(DisplayDiscovery, full_hd_buffer_notice_is_followed_by_an_empty_line) {
    tv().drm().connectors[0].mm_width = 1280;
    tv().drm().connectors[0].mm_height = 720;

    ASSERT_NE(Open(), nullptr);

    auto printed = lines();
    auto at = std::find(printed.begin(), printed.end(),
                        vline("CreateDRMDummyBuffer", "HD panel,set fb buffer size to 1920x1080"));
    ASSERT_NE(at, printed.end());
    ASSERT_NE(at + 1, printed.end());
    EXPECT_EQ(*(at + 1), "");
}

TEST_F(DisplayDiscovery, no_reported_size_keeps_the_default_panel_and_buffer) {
    ShowAllLevels();

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_panel_width, 3840);
    EXPECT_EQ(output_->m_panel_height, 2160);
    auto create = only("DRM_IOCTL_MODE_CREATE_DUMB");
    drm_mode_create_dumb sent{};
    sent.height = 2160;
    sent.width = 3840;
    sent.bpp = 4;
    sent.size = 33177600;
    EXPECT_EQ(create.in, spine::bytes_of(sent));
    EXPECT_EQ(output_->m_drm_buffers[0].size, 33177600u);
    EXPECT_EQ(only("DRM_IOCTL_MODE_ADDFB2").field("pitch0"), 15360);
    EXPECT_EQ(lines_of({"DRMKMSInit"}), std::vector<std::string>{vline("DRMKMSInit", "in")});
}

TEST_F(DisplayDiscovery, larger_panel_gets_a_buffer_of_its_own_size) {
    tv().drm().connectors[0].mm_width = 7680;
    tv().drm().connectors[0].mm_height = 4320;

    ASSERT_NE(Open(), nullptr);

    auto create = only("DRM_IOCTL_MODE_CREATE_DUMB").record_in<drm_mode_create_dumb>();
    EXPECT_EQ(create.width, 7680u);
    EXPECT_EQ(create.height, 4320u);
    EXPECT_EQ(create.size, 132710400u);
    EXPECT_EQ(output_->m_drm_buffers[0].size, 132710400u);
    EXPECT_EQ(
        lines_of({"CreateDRMDummyBuffer"}),
        std::vector<std::string>{vline("CreateDRMDummyBuffer", "drm_fd(" + std::to_string(output_->m_drm_fd) +
                                                                   "),fb_id(200),width(7680),height(4320)")});
}

TEST_F(DisplayDiscovery, full_hd_panel_is_not_called_an_hd_panel) {
    tv().drm().connectors[0].mm_width = 1920;
    tv().drm().connectors[0].mm_height = 1080;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(
        lines_of({"CreateDRMDummyBuffer"}),
        std::vector<std::string>{vline("CreateDRMDummyBuffer", "drm_fd(" + std::to_string(output_->m_drm_fd) +
                                                                   "),fb_id(200),width(1920),height(1080)")});
}

TEST_F(DisplayDiscovery, panel_area_is_compared_as_a_32_bit_product) {
    // 65536 x 65536 wraps to 0 in 32 bits: the buffer falls back to full HD.
    tv().drm().connectors[0].mm_width = 65536;
    tv().drm().connectors[0].mm_height = 65536;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_panel_width, 65536);
    auto create = only("DRM_IOCTL_MODE_CREATE_DUMB").record_in<drm_mode_create_dumb>();
    EXPECT_EQ(create.width, 1920u);
    EXPECT_EQ(create.height, 1080u);
}

TEST_F(DisplayDiscovery, a_size_with_one_zero_dimension_is_ignored) {
    tv().drm().connectors[0].mm_width = 1366;
    tv().drm().connectors[0].mm_height = 0;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_panel_width, 3840);
    EXPECT_EQ(output_->m_panel_height, 2160);
}

TEST_F(DisplayDiscovery, two_connected_connectors_leave_the_later_ones_ids) {
    ShowAllLevels();
    auto& drm = tv().drm();
    drm.crtcs = {42, 43};
    drm.connectors = {Connector(40, 41, {41}), Connector(50, 51, {51})};
    drm.encoders = {DrmEncoder{41, 42, 0x1}, DrmEncoder{51, 43, 0x2}};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_con_id, 50u);
    EXPECT_EQ(output_->m_crtc_id, 43u);
    auto all = calls();
    EXPECT_EQ(std::vector<std::string>(all.begin() + 4, all.begin() + 9),
              (std::vector<std::string>{"DRM_IOCTL_MODE_GETRESOURCES", "DRM_IOCTL_MODE_GETCONNECTOR",
                                        "DRM_IOCTL_MODE_GETENCODER", "DRM_IOCTL_MODE_GETCONNECTOR",
                                        "DRM_IOCTL_MODE_GETENCODER"}));
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMSetMode", "DRMFindCRTC"}),
              std::vector<std::string>{vline("DRMKMSInit", "in")});
}

TEST_F(DisplayDiscovery, disconnected_connector_after_a_connected_one_takes_only_the_connector_id) {
    ShowAllLevels();
    auto& drm = tv().drm();
    drm.connectors.push_back(Connector(50, 0, {}, DRM_MODE_DISCONNECTED));

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_con_id, 50u);
    EXPECT_EQ(output_->m_crtc_id, 42u);
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMSetMode"}),
              (std::vector<std::string>{vline("DRMKMSInit", "in"),
                                        vline("DRMSetMode", "Ignoring unsed connector 50"),
                                        vline("DRMKMSInit", "Can't setup device for connector 1:50")}));
}

TEST_F(DisplayDiscovery, disconnected_connector_still_reports_the_panel_size) {
    auto& drm = tv().drm();
    drm.connectors[0].connection = DRM_MODE_DISCONNECTED;
    drm.connectors[0].mm_width = 1366;
    drm.connectors[0].mm_height = 768;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_panel_width, 1366);
    EXPECT_EQ(output_->m_panel_height, 768);
    EXPECT_EQ(output_->m_con_id, 40u);
    EXPECT_EQ(output_->m_crtc_id, 0u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETENCODER"), 0u);
}

TEST_F(DisplayDiscovery, connector_without_modes_is_not_set_up) {
    tv().drm().connectors[0].count_modes = 0;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_con_id, 40u);
    EXPECT_EQ(output_->m_crtc_id, 0u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETENCODER"), 0u);
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMSetMode"}),
              (std::vector<std::string>{vline("DRMSetMode", "No valid mode for connector 40"),
                                        vline("DRMKMSInit", "Can't setup device for connector 0:40")}));
}

TEST_F(DisplayDiscovery, connector_without_current_encoder_takes_the_first_crtc_an_encoder_allows) {
    auto& drm = tv().drm();
    drm.crtcs = {42, 43, 45};
    drm.connectors = {Connector(40, 0, {41, 44, 46})};
    drm.encoders = {DrmEncoder{41, 0, 0x0}, DrmEncoder{44, 0, 0x6}, DrmEncoder{46, 0, 0x1}};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_crtc_id, 43u);
    auto encoders = tv().events("DRM_IOCTL_MODE_GETENCODER");
    ASSERT_EQ(encoders.size(), 2u);
    EXPECT_EQ(encoders[0].field("encoder_id"), 41);
    EXPECT_EQ(encoders[1].field("encoder_id"), 44);
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMSetMode", "DRMFindCRTC"}), std::vector<std::string>{});
}

TEST_F(DisplayDiscovery, current_encoder_without_crtc_falls_back_to_the_encoder_list) {
    auto& drm = tv().drm();
    drm.crtcs = {42, 43};
    drm.connectors = {Connector(40, 41, {41})};
    drm.encoders = {DrmEncoder{41, 0, 0x2}};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_crtc_id, 43u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETENCODER"), 2u);
}

TEST_F(DisplayDiscovery, current_encoder_that_cannot_be_fetched_falls_back_to_the_encoder_list) {
    tv().fail("DRM_IOCTL_MODE_GETENCODER", EACCES);

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_crtc_id, 42u);
    auto all = calls();
    EXPECT_EQ(std::count(all.begin(), all.end(), "DRM_IOCTL_MODE_GETENCODER -> EACCES"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "DRM_IOCTL_MODE_GETENCODER"), 1);
    EXPECT_EQ(lines_of({"DRMFindCRTC"}), std::vector<std::string>{});
}

TEST_F(DisplayDiscovery, encoder_that_cannot_be_fetched_is_logged_and_skipped) {
    auto& drm = tv().drm();
    drm.connectors = {Connector(40, 0, {99, 41})};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_crtc_id, 42u);
    EXPECT_EQ(lines_of({"DRMFindCRTC"}),
              std::vector<std::string>{vline("DRMFindCRTC", "cannot retrieve encoder 0:99")});
}

TEST_F(DisplayDiscovery, no_encoder_with_a_crtc_fails_the_connector_but_not_open) {
    auto& drm = tv().drm();
    drm.connectors = {Connector(40, 0, {41})};
    drm.encoders = {DrmEncoder{41, 0, 0x0}};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_con_id, 40u);
    EXPECT_EQ(output_->m_crtc_id, 0u);
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMFindCRTC"}),
              std::vector<std::string>{vline("DRMKMSInit", "Can't setup device for connector 0:40")});
}

TEST_F(DisplayDiscovery, allowed_crtc_beyond_the_crtc_list_is_not_taken) {
    auto& drm = tv().drm();
    drm.crtcs = {42};
    drm.connectors = {Connector(40, 0, {41})};
    drm.encoders = {DrmEncoder{41, 0, 0x2}};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_crtc_id, 0u);
}

TEST_F(DisplayDiscovery, connector_that_cannot_be_fetched_is_logged_and_skipped) {
    auto& drm = tv().drm();
    drm.connectors.push_back(Connector(50, 0, {}, DRM_MODE_DISCONNECTED));
    tv().fail("DRM_IOCTL_MODE_GETCONNECTOR", EACCES);

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_con_id, 50u);
    EXPECT_EQ(output_->m_crtc_id, 0u);
    EXPECT_EQ(lines_of({"DRMKMSInit", "DRMSetMode"}),
              (std::vector<std::string>{vline("DRMKMSInit", "cannot retrieve DRM connector 0:40"),
                                        vline("DRMSetMode", "Ignoring unsed connector 50"),
                                        vline("DRMKMSInit", "Can't setup device for connector 1:50")}));
}

TEST_F(DisplayDiscovery, missing_resources_fail_open_before_any_buffer) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_GETRESOURCES", EACCES);

    EXPECT_EQ(Open(), nullptr);

    EXPECT_EQ(calls(), (std::vector<std::string>{
                           "open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen", "open /dev/dri/card0",
                           "DRM_IOCTL_MODE_GETRESOURCES -> EACCES", "dlopen", "close /dev/dri/card0",
                           "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    EXPECT_EQ(lines_of({"DRMKMSInit", "CloseDevice"}),
              (std::vector<std::string>{vline("DRMKMSInit", "in"),
                                        vline("DRMKMSInit", "Cannot retrieve DRM resources"),
                                        vline("CloseDevice", "in")}));
}

TEST_F(DisplayDiscovery, failed_dumb_buffer_fails_open) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_CREATE_DUMB", ENOMEM);

    EXPECT_EQ(Open(), nullptr);

    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_ADDFB2"), 0u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETPLANERESOURCES"), 0u);
    EXPECT_EQ(lines_of({"CreateDRMDummyBuffer"}),
              (std::vector<std::string>{
                  vline("CreateDRMDummyBuffer", "in"),
                  vline("CreateDRMDummyBuffer",
                        "ioctl(DRM_IOCTL_MODE_CREATE_DUMB) failed: Cannot allocate memory")}));
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(DisplayDiscovery, failed_framebuffer_fails_open_and_leaves_the_dumb_buffer) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_ADDFB2", EINVAL);
    const int descriptors = emutv::process_open_descriptors();

    EXPECT_EQ(Open(), nullptr);

    const int drm_fd = tv().events("open")[2].fd;
    EXPECT_EQ(
        lines_of({"CreateDRMDummyBuffer"}),
        (std::vector<std::string>{vline("CreateDRMDummyBuffer", "in"),
                                  vline("CreateDRMDummyBuffer", "drm_fd(" + std::to_string(drm_fd) +
                                                                    "),fb_id(0),width(3840),height(2160)"),
                                  vline("CreateDRMDummyBuffer", "drmModeAddFB2 failed")}));
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETPLANERESOURCES"), 0u);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_DESTROY_DUMB"), 0u);
    EXPECT_EQ(tv().drm().dumb_handles.count(100), 1u);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
}

TEST_F(DisplayDiscovery, plane_type_seven_is_logged_as_invalid_and_not_recorded) {
    ShowAllLevels();
    tv().drm().planes.push_back(Plane(37, {{"type", 1}, {"plane_type", DRM_SDP_PLANE_DP_SUB2}}));

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[DRM_SDP_PLANE_DP_SUB2], 0);
    EXPECT_EQ(
        lines_of({"DRMFindPlane"}),
        (std::vector<std::string>{
            vline("DRMFindPlane", "in"), vline("DRMFindPlane", "plane_obj_id[0] = 31"),
            vline("DRMFindPlane", "plane_obj_id[1] = 32"), vline("DRMFindPlane", "plane_obj_id[5] = 35"),
            vline("DRMFindPlane", "plane_obj_id[6] = 36"),
            vline("DRMFindPlane", "Invalid Plane property props->prop_values[1] = 7")}));
}

TEST_F(DisplayDiscovery, plane_type_beyond_the_table_is_printed_as_a_64_bit_value) {
    ShowAllLevels();
    tv().drm().planes = {Plane(37, {{"plane_type", 0x100000005ull}})};

    ASSERT_NE(Open(), nullptr);

    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(output_->m_plane_obj_id[i], 0) << i;
    EXPECT_EQ(lines_of({"DRMFindPlane"}),
              (std::vector<std::string>{
                  vline("DRMFindPlane", "in"),
                  vline("DRMFindPlane", "Invalid Plane property props->prop_values[0] = 4294967301")}));
}

TEST_F(DisplayDiscovery, property_name_matches_on_its_first_ten_characters) {
    ShowAllLevels();
    tv().drm().planes = {Plane(37, {{"plane_type_ext", DRM_SDP_PLANE_DP_MAIN}}),
                         Plane(38, {{"plane_typ", DRM_SDP_PLANE_DP_SUB}})};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[DRM_SDP_PLANE_DP_MAIN], 37);
    EXPECT_EQ(output_->m_plane_obj_id[DRM_SDP_PLANE_DP_SUB], 0);
    EXPECT_EQ(lines_of({"DRMFindPlane"}),
              (std::vector<std::string>{vline("DRMFindPlane", "in"),
                                        vline("DRMFindPlane", "plane_obj_id[5] = 37")}));
}

TEST_F(DisplayDiscovery, later_plane_of_the_same_type_wins) {
    tv().drm().planes = {Plane(35, {{"plane_type", 5}}), Plane(39, {{"plane_type", 5}})};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[5], 39);
}

TEST_F(DisplayDiscovery, plane_without_formats_is_skipped) {
    tv().drm().planes[2].count_formats = 0;

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[5], 0);
    EXPECT_EQ(output_->m_plane_obj_id[6], 36);
    for (const auto& e : tv().events("DRM_IOCTL_MODE_OBJ_GETPROPERTIES"))
        EXPECT_NE(e.field("obj_id"), 35);
}

TEST_F(DisplayDiscovery, no_main_video_plane_is_not_an_error) {
    tv().drm().planes = {Plane(31, {{"plane_type", 0}})};

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[output_->m_plane_type], 0);
}

TEST_F(DisplayDiscovery, plane_whose_properties_cannot_be_fetched_is_skipped) {
    tv().fail("DRM_IOCTL_MODE_OBJ_GETPROPERTIES", EACCES);

    ASSERT_NE(Open(), nullptr);

    EXPECT_EQ(output_->m_plane_obj_id[0], 0);
    EXPECT_EQ(output_->m_plane_obj_id[1], 32);
    EXPECT_EQ(output_->m_plane_obj_id[5], 35);
    auto properties = tv().events("DRM_IOCTL_MODE_OBJ_GETPROPERTIES");
    ASSERT_FALSE(properties.empty());
    auto sent = properties[0].record_in<drm_mode_obj_get_properties>();
    EXPECT_EQ(sent.obj_id, 31u);
    EXPECT_EQ(sent.obj_type, 0xEEEEEEEEu);
    EXPECT_EQ(lines_of({"DRMFindPlane"}), (std::vector<std::string>{}));
}

TEST_F(DisplayDiscovery, plane_that_cannot_be_fetched_fails_open) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_GETPLANE", EACCES);

    EXPECT_EQ(Open(), nullptr);

    EXPECT_EQ(lines_of({"DRMFindPlane"}),
              (std::vector<std::string>{vline("DRMFindPlane", "in"),
                                        vline("DRMFindPlane", "drmModeGetPlane failed")}));
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_OBJ_GETPROPERTIES"), 0u);
}

TEST_F(DisplayDiscovery, property_that_cannot_be_fetched_fails_open_silently) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_GETPROPERTY", EACCES);

    EXPECT_EQ(Open(), nullptr);

    EXPECT_EQ(lines_of({"DRMFindPlane"}), std::vector<std::string>{vline("DRMFindPlane", "in")});
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_GETPLANE"), 2u);  // libdrm's pair for the first plane only
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(DisplayDiscovery, missing_plane_resources_fail_open) {
    ShowAllLevels();
    tv().fail("DRM_IOCTL_MODE_GETPLANERESOURCES", EACCES);

    EXPECT_EQ(Open(), nullptr);

    EXPECT_EQ(lines_of({"DRMFindPlane"}),
              (std::vector<std::string>{vline("DRMFindPlane", "in"),
                                        vline("DRMFindPlane", "drmModeGetPlaneResources failed")}));
}

}  // namespace
