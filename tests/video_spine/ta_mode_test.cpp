// The handle's TA mode (on-screen-display path with hardware frame buffers and the
// converter). Nothing in the library sets m_is_ta, so these tests raise it on the handle
// while open runs: the handle is caught at its allocation (handle_catch.h) and the flag is
// raised when discovery starts, after open cleared it.
#include <drm.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "handle_catch.h"
#include "spine_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using spine::bytes_of;
using spine::only;
using spine::SpineTest;
using spine::operator+;

namespace {

class TaMode : public SpineTest {
  protected:
    void SetUp() override {
        SpineTest::SetUp();
        ShowAllLevels();
        descriptors_ = emutv::process_open_descriptors();
    }
    void TearDown() override {
        tv().set_listener(nullptr);
        SpineTest::TearDown();
    }

    // Opens a handle whose m_is_ta is raised as soon as discovery starts; `also` sees
    // every request too.
    quarvel_video_output_s* OpenInTaMode(std::function<void(const emutv::Event&)> also = nullptr) {
        return ruvo_test::open_in_ta_mode(std::move(also));
    }

    // What an open that gave up on its pool sends and prints last: the HAL lookup of the
    // close, then the devices closed.
    static std::vector<std::string> GiveUpCalls() {
        return {"dlopen", "close /dev/dri/card0", "close /dev/kdolby", "close /dev/qvl/qvkvplt"};
    }
    static std::vector<std::string> GiveUpLines() {
        return std::vector<std::string>{"", vline("CloseDevice", "in")} + NoHalLines();
    }
    // The last `n` entries of `all`.
    static std::vector<std::string> Last(const std::vector<std::string>& all, size_t n) {
        return std::vector<std::string>(all.end() - n, all.end());
    }

    // The pool's requests for pairs [0, pairs), all succeeding.
    static std::vector<std::string> PoolCalls(int pairs) {
        std::vector<std::string> out;
        for (int i = 0; i < 2 * pairs; ++i) {
            out.push_back("DRM_IOCTL_SDP_GEM_HW_CREATE");
            out.push_back("DRM_IOCTL_PRIME_HANDLE_TO_FD");
        }
        return out;
    }

    // Lines of one successful buffer of the pool.
    static std::vector<std::string> BufferLines(int pair, bool luma, int fd) {
        const std::string size = luma ? "2211840" : "1105920";
        const std::string what = "index:" + std::to_string(pair) + ", isY:" + (luma ? "1" : "0");
        return {vline("gem_hw_alloc", what + ", " + size + " > expected " + size + "."), "",
                vline("gem_hw_alloc", "gem alloc success, " + what + ", fd:" + std::to_string(fd))};
    }

    // Descriptors the pool's exports handed out, in order.
    static std::vector<int> ExportedDescriptors() {
        std::vector<int> out;
        for (const auto& e : emutv::platform().events("DRM_IOCTL_PRIME_HANDLE_TO_FD"))
            if (e.result == 0)
                out.push_back(static_cast<int>(e.field("fd")));
        return out;
    }

    int descriptors_ = 0;
};

TEST_F(TaMode, open_allocates_three_buffer_pairs_and_opens_the_converter) {
    quarvel_video_output_s* output = OpenInTaMode();

    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output, ruvo_test::caught_handle());
    EXPECT_TRUE(output->m_is_ta);
    EXPECT_EQ(output->m_gem_buf_idx, 0);
    auto fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 6u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(output->m_gem_buf[i], fds[i]) << i;
    ASSERT_GE(output->m_de_fd, 0);

    std::vector<std::string> expected_calls = {"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen",
                                               "open /dev/dri/card0"};
    expected_calls = expected_calls + DefaultDiscoveryCalls() + PoolCalls(3) +
                     std::vector<std::string>{"open /dev/qvkconverter", "CONVERTER_IOCTL_INIT"};
    EXPECT_EQ(calls(), expected_calls);
    auto creates = tv().events("DRM_IOCTL_SDP_GEM_HW_CREATE");
    ASSERT_EQ(creates.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        auto sent = creates[i].record_in<sdp_drm_gem_hw_create>();
        EXPECT_EQ(sent.e_flag, i % 2 == 0 ? SDP_DRM_GEM_DP_FB_Y : SDP_DRM_GEM_DP_FB_C) << i;
        EXPECT_EQ(sent.userinfo, static_cast<uint32_t>(i / 2)) << i;
        EXPECT_EQ(sent.ret_size, i % 2 == 0 ? 2211840u : 1105920u) << i;
        EXPECT_EQ(creates[i].fd, output->m_drm_fd);
    }

    std::vector<std::string> expected_lines = {vline("quarvel_video_output_open", "in")};
    expected_lines =
        expected_lines + NoHalLines() +
        std::vector<std::string>{vline("quarvel_video_output_open", "succeed to get drm fd from korb")} +
        DefaultDiscoveryLines(output->m_drm_fd) +
        std::vector<std::string>{vline("quarvel_video_output_open", "alloc gem buffer")};
    for (int pair = 0; pair < 3; ++pair) {
        expected_lines =
            expected_lines + BufferLines(pair, true, fds[2 * pair]) +
            BufferLines(pair, false, fds[2 * pair + 1]) +
            std::vector<std::string>{vline("quarvel_video_output_open",
                                           "gem alloc succeeded, m_gem_buf:" + std::to_string(fds[2 * pair]) +
                                               ", " + std::to_string(fds[2 * pair + 1]) + "."),
                                     ""};
    }
    expected_lines =
        expected_lines +
        std::vector<std::string>{
            vline("quarvel_video_output_open", "alloc gem buffer done"),
            vline("converter_init", "converter init"),
            vline("converter_init", "open converter, fd:" + std::to_string(output->m_de_fd) + "."),
            vline("converter_init", "converter init done")};
    EXPECT_EQ(lines(), expected_lines);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 3 + 6 + 1);
    quarvel_video_output_close(output);
}

TEST_F(TaMode, close_releases_the_pool_and_the_converter_before_the_display) {
    quarvel_video_output_s* output = OpenInTaMode();
    ASSERT_NE(output, nullptr);
    auto fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 6u);
    auto handles = tv().events("DRM_IOCTL_SDP_GEM_HW_CREATE");
    tv().clear_events();
    lines();

    quarvel_video_output_close(output);

    std::vector<std::string> expected_calls;
    std::vector<std::string> expected_lines = {vline("quarvel_video_output_close", "in"),
                                               vline("wayland_render_deinit", "in")};
    for (int i = 0; i < 6; ++i) {
        const std::string handle = std::to_string(handles[i].field("handle"));
        expected_calls.insert(expected_calls.end(), {"DRM_IOCTL_PRIME_FD_TO_HANDLE", "close dmabuf:" + handle,
                                                     "DRM_IOCTL_GEM_CLOSE"});
        expected_lines.push_back(
            vline("gem_free", "close dma_buf fd:" + std::to_string(fds[i]) + ", handle:" + handle));
    }
    expected_calls = expected_calls +
                     std::vector<std::string>{"CONVERTER_IOCTL_CLOSE", "close /dev/qvkconverter"} +
                     DefaultCloseCalls();
    EXPECT_EQ(calls(), expected_calls);
    expected_lines = expected_lines + std::vector<std::string>{vline("CloseDevice", "in")} + NoHalLines();
    EXPECT_EQ(lines(), expected_lines);
    EXPECT_TRUE(tv().drm().gem_handles.empty());
    EXPECT_FALSE(tv().converter().initialised);
    EXPECT_EQ(tv().open_descriptors(), 0);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(TaMode, close_in_ta_mode_without_pool_or_converter_releases_only_the_display) {
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    ASSERT_NE(output, nullptr);
    output->m_is_ta = true;
    tv().clear_events();
    lines();

    quarvel_video_output_close(output);

    EXPECT_EQ(calls(), DefaultCloseCalls());
    auto expected_lines = DefaultCloseLines();
    expected_lines.insert(expected_lines.begin() + 1, vline("wayland_render_deinit", "in"));
    EXPECT_EQ(lines(), expected_lines);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(TaMode, luma_failure_still_requests_its_chroma_buffer_and_fails_open) {
    tv().fail("DRM_IOCTL_SDP_GEM_HW_CREATE", ENOMEM);

    EXPECT_EQ(OpenInTaMode(), nullptr);

    auto all = calls();
    const std::vector<std::string> tail =
        std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE -> ENOMEM", "DRM_IOCTL_SDP_GEM_HW_CREATE",
                                 "DRM_IOCTL_PRIME_HANDLE_TO_FD"} +
        GiveUpCalls();
    ASSERT_GE(all.size(), tail.size());
    EXPECT_EQ(Last(all, tail.size()), tail);
    auto fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 1u);
    auto printed = lines();
    const std::vector<std::string> expected_tail =
        std::vector<std::string>{vline("quarvel_video_output_open", "alloc gem buffer"),
                                 vline("gem_hw_alloc", "fail, index:0, isY:1, ret:-1."),
                                 BufferLines(0, false, fds[0])[0],
                                 "",
                                 BufferLines(0, false, fds[0])[2],
                                 vline("quarvel_video_output_open",
                                       "gem alloc failed, m_gem_buf:-1, " + std::to_string(fds[0]) + ".")} +
        GiveUpLines();
    ASSERT_GE(printed.size(), expected_tail.size());
    EXPECT_EQ(Last(printed, expected_tail.size()), expected_tail);
    // The buffers already made are not released on this path.
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 1);
    close(fds[0]);
}

TEST_F(TaMode, chroma_failure_after_a_good_luma_buffer_fails_open_after_both_requests) {
    // The fourth create (pair 1, chroma) fails.
    int creates = 0;
    quarvel_video_output_s* caught = OpenInTaMode([&creates](const emutv::Event& e) {
        if (e.name == "DRM_IOCTL_SDP_GEM_HW_CREATE" && ++creates == 3)
            emutv::platform().fail("DRM_IOCTL_SDP_GEM_HW_CREATE", ENOSPC);
    });

    EXPECT_EQ(caught, nullptr);
    auto all = calls();
    const std::vector<std::string> tail =
        PoolCalls(1) +
        std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE", "DRM_IOCTL_PRIME_HANDLE_TO_FD",
                                 "DRM_IOCTL_SDP_GEM_HW_CREATE -> ENOSPC"} +
        GiveUpCalls();
    ASSERT_GE(all.size(), tail.size());
    EXPECT_EQ(Last(all, tail.size()), tail);
    auto fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 3u);
    auto printed = lines();
    const std::vector<std::string> expected_tail =
        std::vector<std::string>{vline("gem_hw_alloc", "fail, index:1, isY:0, ret:-1."),
                                 vline("quarvel_video_output_open",
                                       "gem alloc failed, m_gem_buf:" + std::to_string(fds[2]) + ", -1.")} +
        GiveUpLines();
    ASSERT_GE(printed.size(), expected_tail.size());
    EXPECT_EQ(Last(printed, expected_tail.size()), expected_tail);
    EXPECT_EQ(tv().count("open"), 3u) << "the converter is not opened";
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 3);
    for (int fd : fds)
        close(fd);
}

TEST_F(TaMode, buffers_one_byte_short_are_accepted_with_zero_in_their_slots) {
    tv().drm().gem_size_delta = -1;

    quarvel_video_output_s* output = OpenInTaMode();

    ASSERT_NE(output, nullptr);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(output->m_gem_buf[i], 0) << i;
    EXPECT_EQ(output->m_gem_buf_idx, 0);
    EXPECT_EQ(tv().count("DRM_IOCTL_PRIME_HANDLE_TO_FD"), 0u);
    auto printed = lines();
    EXPECT_EQ(std::count(printed.begin(), printed.end(),
                         vline("quarvel_video_output_open", "gem alloc succeeded, m_gem_buf:0, 0.")),
              3);
    EXPECT_EQ(std::count(printed.begin(), printed.end(),
                         vline("gem_hw_alloc", "index:2, isY:0, 1105919 < expected 1105920.")),
              1);
    // Releasing slots that hold 0 would close the process's standard input: leave TA mode first.
    output->m_is_ta = false;
    converter_deinit(output);
    quarvel_video_output_close(output);
}

TEST_F(TaMode, converter_status_alone_still_gives_an_open_handle) {
    tv().fail_status("CONVERTER_IOCTL_INIT", 3);

    quarvel_video_output_s* output = OpenInTaMode();

    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(output->m_opened);
    auto printed = lines();
    auto errors = std::count_if(printed.begin(), printed.end(), [](const std::string& line) {
        return line.find("init converter failed") != std::string::npos;
    });
    EXPECT_EQ(errors, 1);
    EXPECT_NE(std::find(printed.begin(), printed.end(),
                        vline("converter_init", "init converter failed, ret:0, u32Retval:3.")),
              printed.end());
    quarvel_video_output_close(output);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(TaMode, missing_converter_fails_open_and_leaves_the_pool) {
    tv().set_present("/dev/qvkconverter", false);

    EXPECT_EQ(OpenInTaMode(), nullptr);

    auto all = calls();
    const std::vector<std::string> tail =
        std::vector<std::string>{"open /dev/qvkconverter -> ENOENT"} + GiveUpCalls();
    EXPECT_EQ(Last(all, tail.size()), tail);
    auto printed = lines();
    const std::vector<std::string> expected_tail = {
        vline("quarvel_video_output_open", "alloc gem buffer done"),
        vline("converter_init", "converter init"),
        vline("converter_init", "open converter failed."),
        vline("CloseDevice", "in"),
        NoHalLines()[0],
        NoHalLines()[1]};
    EXPECT_EQ(Last(printed, expected_tail.size()), expected_tail);
    auto fds = ExportedDescriptors();
    EXPECT_EQ(fds.size(), 6u);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 6);
    for (int fd : fds)
        close(fd);
}

TEST_F(TaMode, failed_converter_init_request_fails_open_and_leaves_the_converter_open) {
    tv().fail("CONVERTER_IOCTL_INIT", EIO);

    EXPECT_EQ(OpenInTaMode(), nullptr);

    auto all = calls();
    const std::vector<std::string> tail =
        std::vector<std::string>{"open /dev/qvkconverter", "CONVERTER_IOCTL_INIT -> EIO"} + GiveUpCalls();
    EXPECT_EQ(Last(all, tail.size()), tail);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 6 + 1);
    for (int fd : ExportedDescriptors())
        close(fd);
    for (const auto& e : tv().events("open"))
        if (e.path == "/dev/qvkconverter")
            close(e.fd);
}

}  // namespace
