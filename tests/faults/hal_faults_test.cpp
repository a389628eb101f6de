// The board HAL failing in each of its ways: open falls back to "/dev/dri/card0", the
// handle plays, and close releases exactly what open took. The HAL's answer is cached for
// the process, so each way is a test case (a process) of its own.
#include <fcntl.h>

#include <regex>

#include "fault_matrix.h"

using namespace faults;

namespace {

const std::string K = "get_drm_fd_from_korb";

class HalFaults : public FaultMatrix {
  protected:
    // Loader texts name the stand-in library's path; they are folded to "<loader>".
    std::vector<std::string> folded_lines() {
        static const std::regex loader(R"(stderr:.*undefined symbol: (Hal_Video_\w+))");
        std::vector<std::string> out;
        for (auto l : lines_now())
            out.push_back(std::regex_replace(l, loader, "stderr:<loader>: undefined symbol: $1"));
        return out;
    }

    // Opens on a HAL that fails with `hal_lines` each time it is asked, plays a first frame,
    // closes: every descriptor is given back.
    void falls_back_to_card0(emutv::HalMode mode, const std::vector<std::string>& hal_lines) {
        fresh_platform();
        const int base = emutv::process_open_descriptors();
        tv().set_hal(mode);
        quarvel_video_output_s* out = quarvel_video_output_open(false);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(folded_lines(), hal_lines);
        ASSERT_EQ(tv().events("open").size(), 3u);
        EXPECT_EQ(tv().events("open")[2].path, "/dev/dri/card0");
        EXPECT_EQ(out->m_drm_fd, tv().events("open")[2].result);

        Frame frame(1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, -1);
        EXPECT_EQ(quarvel_video_output_init_with_first_frame(out, frame.get()), 0);
        EXPECT_EQ(lines_now(), playback_flag_lines());

        quarvel_video_output_close(out);
        // Close asks the HAL again, which fails again: the descriptor is the library's own.
        EXPECT_EQ(folded_lines(), hal_lines);
        EXPECT_EQ(emutv::process_open_descriptors(), base);
        EXPECT_EQ(tv().open_descriptors(), 0);
    }
};

TEST_F(HalFaults, a_missing_hal_library_falls_back_to_card0_and_close_gives_every_descriptor_back) {
    falls_back_to_card0(emutv::HalMode::Absent, {v(K, "handle is NULL")});
}

TEST_F(HalFaults, a_hal_without_its_init_function_falls_back_to_card0) {
    falls_back_to_card0(
        emutv::HalMode::NoInitSymbol,
        {v(K, "dlsym Hal_Video_DrmInit fail stderr:<loader>: undefined symbol: Hal_Video_DrmInit"), ""});
}

TEST_F(HalFaults, a_failing_hal_init_falls_back_to_card0) {
    falls_back_to_card0(emutv::HalMode::InitFails, {v(K, "Hal_Video_DrmInit failn")});
}

TEST_F(HalFaults, a_hal_without_its_descriptor_function_falls_back_to_card0) {
    falls_back_to_card0(emutv::HalMode::NoGetSymbol,
                        {v(K,
                           "dlsym Hal_Video_Get_DrmDeviceId fail stderr:<loader>: undefined symbol: "
                           "Hal_Video_Get_DrmDeviceId"),
                         ""});
}

TEST_F(HalFaults, a_hal_that_has_no_descriptor_falls_back_to_card0) {
    falls_back_to_card0(emutv::HalMode::GetFails, {v(K, "Hal_Video_Get_DrmDeviceId failn")});
}

TEST_F(HalFaults, a_hal_handing_out_descriptor_0_fails_open_and_descriptor_0_is_never_closed) {
    fresh_platform();
    const bool zero_open = fcntl(0, F_GETFD) != -1;
    const int base = emutv::process_open_descriptors();
    tv().set_hal(emutv::HalMode::GetsZero);
    // Descriptor 0 is taken for the HAL's: not a DRM device, so the resources cannot be
    // read; the release asks the HAL again, gets 0 again and leaves it alone.
    EXPECT_EQ(quarvel_video_output_open(false), nullptr);
    EXPECT_EQ(lines_now(), std::vector<std::string>{v("DRMKMSInit", "Cannot retrieve DRM resources")});
    EXPECT_EQ(tv().count("Hal_Video_Get_DrmDeviceId"), 2u);
    EXPECT_EQ(tv().count("open:/dev/dri/card0"), 0u);
    EXPECT_EQ(emutv::process_open_descriptors(), base);
    if (zero_open) {
        EXPECT_NE(fcntl(0, F_GETFD), -1);
    }
}

}  // namespace
