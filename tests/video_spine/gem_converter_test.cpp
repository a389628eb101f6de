// Hardware frame buffers (created, exported as dma-buf descriptors, released) and the
// frame converter, called directly.
#include <drm.h>
#include <fcntl.h>
#include <unistd.h>

#include "spine_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using spine::bytes_of;
using spine::kChromaSize;
using spine::kLumaSize;
using spine::only;
using spine::SpineTest;
using spine::operator+;

namespace {

class HardwareFrameBuffers : public SpineTest {
  protected:
    void SetUp() override {
        SpineTest::SetUp();
        ShowAllLevels();
        drm_fd_ = open("/dev/dri/card0", O_RDWR | O_NONBLOCK);
        ASSERT_GE(drm_fd_, 0);
        tv().clear_events();
        descriptors_ = emutv::process_open_descriptors();
    }
    void TearDown() override {
        close(drm_fd_);
        SpineTest::TearDown();
    }
    static sdp_drm_gem_hw_create GemRequest(sdp_drm_gem_hw_mem_flag flag, uint32_t index, uint64_t size) {
        sdp_drm_gem_hw_create create;
        memset(&create, 0, sizeof(create));
        create.e_flag = flag;
        create.userinfo = index;
        create.ret_size = size;
        return create;
    }
    static drm_prime_handle Prime(uint32_t handle, int fd) {
        drm_prime_handle prime;
        memset(&prime, 0, sizeof(prime));
        prime.handle = handle;
        prime.fd = fd;
        return prime;
    }
    static drm_gem_close GemClose(uint32_t handle) {
        drm_gem_close gem_close;
        memset(&gem_close, 0, sizeof(gem_close));
        gem_close.handle = handle;
        return gem_close;
    }
    // Puts a luma buffer of this test's card at entry `entry` of `output`'s frame buffers
    // (the other entries -1), then forgets what was sent and printed. Returns its descriptor.
    int OneBufferAt(quarvel_video_output_s& output, int entry) {
        output.m_drm_fd = drm_fd_;
        const int fd = gem_hw_alloc(drm_fd_, kLumaSize, 0, true);
        for (int& e : output.m_gem_buf)
            e = -1;
        output.m_gem_buf[entry] = fd;
        tv().clear_events();
        lines();
        return fd;
    }
    int drm_fd_ = -1;
    int descriptors_ = 0;
};

TEST_F(HardwareFrameBuffers, luma_buffer_is_created_and_exported) {
    const int fd = gem_hw_alloc(drm_fd_, kLumaSize, 0, true);

    ASSERT_GE(fd, 0);
    EXPECT_EQ(calls(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE", "DRM_IOCTL_PRIME_HANDLE_TO_FD"}));
    auto create = only("DRM_IOCTL_SDP_GEM_HW_CREATE");
    EXPECT_EQ(create.request, 0xC0186441ul);
    EXPECT_EQ(create.in, bytes_of(GemRequest(SDP_DRM_GEM_DP_FB_Y, 0, kLumaSize)));
    auto prime = only("DRM_IOCTL_PRIME_HANDLE_TO_FD");
    EXPECT_EQ(prime.request, 0xC00C642Dul);
    EXPECT_EQ(prime.in, bytes_of(Prime(100, 0)));
    EXPECT_EQ(prime.field("fd"), fd);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("gem_hw_alloc", "index:0, isY:1, 2211840 > expected 2211840."), "",
                  vline("gem_hw_alloc", "gem alloc success, index:0, isY:1, fd:" + std::to_string(fd))}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 1);
    EXPECT_EQ(tv().drm().gem_handles.count(100), 1u);
    close(fd);
}

TEST_F(HardwareFrameBuffers, chroma_buffer_comes_from_the_chroma_pool) {
    const int fd = gem_hw_alloc(drm_fd_, kChromaSize, 2, false);

    ASSERT_GE(fd, 0);
    EXPECT_EQ(only("DRM_IOCTL_SDP_GEM_HW_CREATE").in,
              bytes_of(GemRequest(SDP_DRM_GEM_DP_FB_C, 2, kChromaSize)));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("gem_hw_alloc", "index:2, isY:0, 1105920 > expected 1105920."), "",
                  vline("gem_hw_alloc", "gem alloc success, index:2, isY:0, fd:" + std::to_string(fd))}));
    close(fd);
}

TEST_F(HardwareFrameBuffers, buffer_one_byte_short_is_neither_exported_nor_closed) {
    tv().drm().gem_size_delta = -1;

    EXPECT_EQ(gem_hw_alloc(drm_fd_, kLumaSize, 1, true), 0);

    EXPECT_EQ(calls(), std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE"});
    EXPECT_EQ(lines(),
              std::vector<std::string>{vline("gem_hw_alloc", "index:1, isY:1, 2211839 < expected 2211840.")});
    EXPECT_EQ(tv().drm().gem_handles.count(100), 1u);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(HardwareFrameBuffers, larger_buffer_is_accepted_at_trace_level) {
    tv().drm().gem_size_delta = 4096;

    const int fd = gem_hw_alloc(drm_fd_, kLumaSize, 0, true);

    ASSERT_GE(fd, 0);
    auto printed = lines();
    ASSERT_EQ(printed.size(), 3u);
    EXPECT_EQ(printed[0], vline("gem_hw_alloc", "index:0, isY:1, 2215936 > expected 2211840."));
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO;
    const int second = gem_hw_alloc(drm_fd_, kLumaSize, 1, true);
    EXPECT_GE(second, 0);
    EXPECT_TRUE(lines().empty());
    close(fd);
    close(second);
}

TEST_F(HardwareFrameBuffers, failed_create_returns_its_result) {
    tv().fail("DRM_IOCTL_SDP_GEM_HW_CREATE", ENOMEM);

    EXPECT_EQ(gem_hw_alloc(drm_fd_, kChromaSize, 2, false), -1);

    EXPECT_EQ(calls(), std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE -> ENOMEM"});
    EXPECT_EQ(lines(), std::vector<std::string>{vline("gem_hw_alloc", "fail, index:2, isY:0, ret:-1.")});
}

TEST_F(HardwareFrameBuffers, failed_export_closes_the_handle_and_returns_zero) {
    tv().fail("DRM_IOCTL_PRIME_HANDLE_TO_FD", EMFILE);

    EXPECT_EQ(gem_hw_alloc(drm_fd_, kLumaSize, 0, true), 0);

    EXPECT_EQ(calls(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE",
                                        "DRM_IOCTL_PRIME_HANDLE_TO_FD -> EMFILE", "DRM_IOCTL_GEM_CLOSE"}));
    auto gem_close = only("DRM_IOCTL_GEM_CLOSE");
    EXPECT_EQ(gem_close.request, 0x40086409ul);
    EXPECT_EQ(gem_close.in, bytes_of(GemClose(100)));
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            vline("gem_hw_alloc", "index:0, isY:1, 2211840 > expected 2211840."), "",
            vline("gem_hw_alloc", "handle to fd fail, handle:100, ret:-1, errno:Too many open files")}));
    EXPECT_TRUE(tv().drm().gem_handles.empty());
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(HardwareFrameBuffers, handle_close_is_retried_until_the_driver_takes_it) {
    tv().fail("DRM_IOCTL_PRIME_HANDLE_TO_FD", EMFILE);
    tv().fail("DRM_IOCTL_GEM_CLOSE", EIO, 3);

    EXPECT_EQ(gem_hw_alloc(drm_fd_, kLumaSize, 0, true), 0);

    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE",
                                                 "DRM_IOCTL_PRIME_HANDLE_TO_FD -> EMFILE",
                                                 "DRM_IOCTL_GEM_CLOSE -> EIO", "DRM_IOCTL_GEM_CLOSE -> EIO",
                                                 "DRM_IOCTL_GEM_CLOSE -> EIO", "DRM_IOCTL_GEM_CLOSE"}));
    for (const auto& e : tv().events("DRM_IOCTL_GEM_CLOSE"))
        EXPECT_EQ(e.in, bytes_of(GemClose(100)));
    auto printed = lines();
    ASSERT_EQ(printed.size(), 6u);
    for (int i = 3; i < 6; ++i)
        EXPECT_EQ(printed[i], vline("gem_hw_alloc", "close fail, handle:100, ret:-1"));
    EXPECT_TRUE(tv().drm().gem_handles.empty());
}

TEST_F(HardwareFrameBuffers, negative_descriptor_from_a_successful_export_closes_the_handle) {
    tv().fail_status("DRM_IOCTL_PRIME_HANDLE_TO_FD", -5);

    EXPECT_EQ(gem_hw_alloc(drm_fd_, kLumaSize, 0, true), 0);

    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_SDP_GEM_HW_CREATE",
                                                 "DRM_IOCTL_PRIME_HANDLE_TO_FD", "DRM_IOCTL_GEM_CLOSE"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           vline("gem_hw_alloc", "index:0, isY:1, 2211840 > expected 2211840."), "",
                           vline("gem_hw_alloc", "gem alloc success, index:0, isY:1, fd:-5")}));
    EXPECT_TRUE(tv().drm().gem_handles.empty());
    close(static_cast<int>(only("DRM_IOCTL_PRIME_HANDLE_TO_FD").field("fd")));  // the emulated driver's own
}

TEST_F(HardwareFrameBuffers, release_skips_negative_entries_and_clears_all_six) {
    quarvel_video_output_s output{};
    output.m_drm_fd = drm_fd_;
    int fds[5];
    for (int i = 0; i < 5; ++i)
        fds[i] = gem_hw_alloc(drm_fd_, kLumaSize, i, true);
    for (int fd : fds)
        ASSERT_GE(fd, 0);
    const int entries[6] = {fds[0], fds[1], -1, fds[2], fds[3], fds[4]};
    memcpy(output.m_gem_buf, entries, sizeof(entries));
    tv().clear_events();
    lines();
    const int before = emutv::process_open_descriptors();

    gem_free(&output);

    std::vector<std::string> expected_calls;
    std::vector<std::string> expected_lines;
    for (int i = 0; i < 5; ++i) {
        expected_calls.insert(expected_calls.end(),
                              {"DRM_IOCTL_PRIME_FD_TO_HANDLE", "close dmabuf:" + std::to_string(100 + i),
                               "DRM_IOCTL_GEM_CLOSE"});
        expected_lines.push_back(vline("gem_free", "close dma_buf fd:" + std::to_string(fds[i]) +
                                                       ", handle:" + std::to_string(100 + i)));
    }
    EXPECT_EQ(calls(), expected_calls);
    EXPECT_EQ(lines(), expected_lines);
    auto to_handle = tv().events("DRM_IOCTL_PRIME_FD_TO_HANDLE");
    ASSERT_EQ(to_handle.size(), 5u);
    EXPECT_EQ(to_handle[0].request, 0xC00C642Eul);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(to_handle[i].in, bytes_of(Prime(0, fds[i])));
    auto gem_close = tv().events("DRM_IOCTL_GEM_CLOSE");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(gem_close[i].in, bytes_of(GemClose(100 + i)));
    for (int entry : output.m_gem_buf)
        EXPECT_EQ(entry, -1);
    EXPECT_EQ(emutv::process_open_descriptors(), before - 5);
    EXPECT_TRUE(tv().drm().gem_handles.empty());
}

TEST_F(HardwareFrameBuffers, release_closes_the_descriptor_even_when_no_handle_comes_back) {
    quarvel_video_output_s output{};
    const int fd = OneBufferAt(output, 0);
    ASSERT_GE(fd, 0);
    tv().fail("DRM_IOCTL_PRIME_FD_TO_HANDLE", EBADF);
    const int before = emutv::process_open_descriptors();

    gem_free(&output);

    EXPECT_EQ(calls(),
              (std::vector<std::string>{"DRM_IOCTL_PRIME_FD_TO_HANDLE -> EBADF", "close dmabuf:100"}));
    EXPECT_EQ(lines(), std::vector<std::string>{
                           vline("gem_free", "fd to handle fail, fd:" + std::to_string(fd) + ", ret:-1.")});
    EXPECT_EQ(output.m_gem_buf[0], -1);
    EXPECT_EQ(emutv::process_open_descriptors(), before - 1);
}

TEST_F(HardwareFrameBuffers, release_tries_the_handle_close_once) {
    quarvel_video_output_s output{};
    ASSERT_GE(OneBufferAt(output, 5), 0);
    tv().fail("DRM_IOCTL_GEM_CLOSE", EIO, -1);

    gem_free(&output);

    EXPECT_EQ(calls(), (std::vector<std::string>{"DRM_IOCTL_PRIME_FD_TO_HANDLE", "close dmabuf:100",
                                                 "DRM_IOCTL_GEM_CLOSE -> EIO"}));
    EXPECT_EQ(lines(), std::vector<std::string>{vline("gem_free", "close fail, handle:100, ret:-1.")});
    EXPECT_EQ(output.m_gem_buf[5], -1);
}

class FrameConverter : public SpineTest {
  protected:
    void SetUp() override {
        SpineTest::SetUp();
        ShowAllLevels();
        output_.m_de_fd = -1;
        descriptors_ = emutv::process_open_descriptors();
    }
    static std::vector<uint8_t> ZeroStatus() { return std::vector<uint8_t>(4, 0); }
    quarvel_video_output_s output_{};
    int descriptors_ = 0;
};

TEST_F(FrameConverter, init_opens_and_initialises_the_converter) {
    EXPECT_TRUE(converter_init(&output_));

    ASSERT_GE(output_.m_de_fd, 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"open /dev/qvkconverter", "CONVERTER_IOCTL_INIT"}));
    EXPECT_EQ(only("open").field("flags"), O_RDWR);
    auto init = only("CONVERTER_IOCTL_INIT");
    EXPECT_EQ(init.request, 0xC004DD02ul);
    EXPECT_EQ(init.fd, output_.m_de_fd);
    EXPECT_EQ(init.in, ZeroStatus());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("converter_init", "converter init"),
                  vline("converter_init", "open converter, fd:" + std::to_string(output_.m_de_fd) + "."),
                  vline("converter_init", "converter init done")}));
    EXPECT_TRUE(tv().converter().initialised);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 1);
    converter_deinit(&output_);
}

TEST_F(FrameConverter, missing_device_fails_init) {
    tv().set_present("/dev/qvkconverter", false);

    EXPECT_FALSE(converter_init(&output_));

    EXPECT_EQ(output_.m_de_fd, -1);
    EXPECT_EQ(calls(), std::vector<std::string>{"open /dev/qvkconverter -> ENOENT"});
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("converter_init", "converter init"),
                                                 vline("converter_init", "open converter failed.")}));
}

TEST_F(FrameConverter, failed_init_request_fails_init_and_keeps_the_descriptor) {
    tv().fail("CONVERTER_IOCTL_INIT", EIO);

    EXPECT_FALSE(converter_init(&output_));

    ASSERT_GE(output_.m_de_fd, 0);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("converter_init", "converter init"),
                  vline("converter_init", "open converter, fd:" + std::to_string(output_.m_de_fd) + "."),
                  vline("converter_init", "init converter failed, ret:-1, u32Retval:0."),
                  vline("converter_init", "converter init done")}));
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 1);
    close(output_.m_de_fd);
}

TEST_F(FrameConverter, driver_status_alone_is_logged_and_accepted) {
    tv().fail_status("CONVERTER_IOCTL_INIT", 3);

    EXPECT_TRUE(converter_init(&output_));

    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("converter_init", "converter init"),
                  vline("converter_init", "open converter, fd:" + std::to_string(output_.m_de_fd) + "."),
                  vline("converter_init", "init converter failed, ret:0, u32Retval:3."),
                  vline("converter_init", "converter init done")}));
    converter_deinit(&output_);
}

TEST_F(FrameConverter, deinit_closes_the_converter) {
    ASSERT_TRUE(converter_init(&output_));
    const int fd = output_.m_de_fd;
    tv().clear_events();
    lines();

    converter_deinit(&output_);

    EXPECT_EQ(output_.m_de_fd, -1);
    EXPECT_EQ(calls(), (std::vector<std::string>{"CONVERTER_IOCTL_CLOSE", "close /dev/qvkconverter"}));
    auto request = only("CONVERTER_IOCTL_CLOSE");
    EXPECT_EQ(request.request, 0xC004DD01ul);
    EXPECT_EQ(request.fd, fd);
    EXPECT_EQ(request.in, ZeroStatus());
    EXPECT_TRUE(lines().empty());
    EXPECT_FALSE(tv().converter().initialised);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(FrameConverter, deinit_ignores_the_driver_status) {
    ASSERT_TRUE(converter_init(&output_));
    lines();
    tv().fail_status("CONVERTER_IOCTL_CLOSE", 9);

    converter_deinit(&output_);

    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(output_.m_de_fd, -1);
}

TEST_F(FrameConverter, failed_close_request_is_logged_and_the_descriptor_closed) {
    ASSERT_TRUE(converter_init(&output_));
    tv().clear_events();
    lines();
    tv().fail("CONVERTER_IOCTL_CLOSE", EIO);

    converter_deinit(&output_);

    EXPECT_EQ(calls(), (std::vector<std::string>{"CONVERTER_IOCTL_CLOSE -> EIO", "close /dev/qvkconverter"}));
    EXPECT_EQ(lines(), std::vector<std::string>{vline(
                           "converter_deinit", "ioctl(CONVERTER_IOCTL_CLOSE) failed: Input/output error")});
    EXPECT_EQ(output_.m_de_fd, -1);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

}  // namespace
