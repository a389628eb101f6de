// Opening and closing a TA-mode handle: the pool of three Y/C frame-buffer pairs, the
// converter, and at close the renderer's teardown before the pool, the converter and the
// display are released.
#include <errno.h>
#include <unistd.h>

#include <drm.h>

#include "osd_fixture.h"

namespace video_osd {
namespace {

using ruvo_test::vline;
using spine::bytes_of;
using spine::operator+;

using Lines = std::vector<std::string>;

class OsdOpenClose : public OsdTest {
  protected:
    // Lines of one buffer of the pool that was created and exported.
    static Lines BufferLines(int pair, bool luma, int fd) {
        const std::string size = luma ? "2211840" : "1105920";
        const std::string what = "index:" + std::to_string(pair) + ", isY:" + (luma ? "1" : "0");
        return {vline("gem_hw_alloc", what + ", " + size + " > expected " + size + "."), "",
                vline("gem_hw_alloc", "gem alloc success, " + what + ", fd:" + std::to_string(fd))};
    }

    static Lines PairDoneLines(int luma_fd, int chroma_fd) {
        return {vline(kOpen, "gem alloc succeeded, m_gem_buf:" + std::to_string(luma_fd) + ", " +
                                 std::to_string(chroma_fd) + "."),
                ""};
    }

    // Everything a TA-mode open prints up to the pool (HAL absent, default display).
    static Lines OpenLinesUpToThePool(int drm_fd) {
        return Lines{vline(kOpen, "in")} + NoHalLines() +
               Lines{vline(kOpen, "succeed to get drm fd from korb")} + DefaultDiscoveryLines(drm_fd) +
               Lines{vline(kOpen, "alloc gem buffer")};
    }

    // The requests of a TA-mode open up to the pool.
    static Lines OpenCallsUpToThePool() {
        return Lines{"open /dev/qvl/qvkvplt", "open /dev/kdolby", "dlopen", "open /dev/dri/card0"} +
               DefaultDiscoveryCalls();
    }

    // The requests of the six buffers, all created and exported.
    static Lines PoolCalls(int buffers) {
        Lines out;
        for (int i = 0; i < buffers; ++i)
            out = out + Lines{"DRM_IOCTL_SDP_GEM_HW_CREATE", "DRM_IOCTL_PRIME_HANDLE_TO_FD"};
        return out;
    }

    static sdp_drm_gem_hw_create CreateRecord(int entry) {
        sdp_drm_gem_hw_create c;
        memset(&c, 0, sizeof(c));
        c.e_flag = entry % 2 == 0 ? SDP_DRM_GEM_DP_FB_Y : SDP_DRM_GEM_DP_FB_C;
        c.userinfo = static_cast<uint32_t>(entry / 2);
        c.handle = 0;
        c.pad = 0;
        c.ret_size = entry % 2 == 0 ? kLumaSize : kChromaSize;
        return c;
    }

    static drm_prime_handle PrimeRecord(uint32_t handle, int fd) {
        drm_prime_handle p;
        memset(&p, 0, sizeof(p));
        p.handle = handle;
        p.flags = 0;
        p.fd = fd;
        return p;
    }

    static drm_gem_close GemCloseRecord(uint32_t handle) {
        drm_gem_close g;
        memset(&g, 0, sizeof(g));
        g.handle = handle;
        g.pad = 0;
        return g;
    }
};

TEST_F(OsdOpenClose, open_in_ta_mode_allocates_three_exported_pairs_and_opens_the_converter) {
    StartCompositor();

    output_ = OpenInTaMode();

    ASSERT_NE(output_, nullptr);
    EXPECT_TRUE(output_->m_opened);
    EXPECT_TRUE(output_->m_is_ta);
    EXPECT_EQ(output_->m_gem_buf_idx, 0);
    EXPECT_EQ(output_->m_window, nullptr);
    EXPECT_FALSE(output_->m_first_frame_initialized);
    const std::vector<int> fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 6u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(output_->m_gem_buf[i], fds[i]) << i;
    ASSERT_GE(output_->m_de_fd, 0);

    // Requests, in order.
    EXPECT_EQ(calls(), OpenCallsUpToThePool() + PoolCalls(6) +
                           Lines({"open /dev/qvkconverter", "CONVERTER_IOCTL_INIT"}));
    auto creates = tv().events("DRM_IOCTL_SDP_GEM_HW_CREATE");
    auto exports = tv().events("DRM_IOCTL_PRIME_HANDLE_TO_FD");
    ASSERT_EQ(creates.size(), 6u);
    ASSERT_EQ(exports.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(creates[i].request, 0xC0186441ul);
        EXPECT_EQ(creates[i].fd, output_->m_drm_fd);
        EXPECT_EQ(creates[i].in, bytes_of(CreateRecord(i)));
        EXPECT_EQ(creates[i].field("e_flag"), i % 2);
        EXPECT_EQ(creates[i].field("userinfo"), i / 2);
        EXPECT_EQ(creates[i].field("ret_size"), i % 2 == 0 ? kLumaSize : kChromaSize);
        EXPECT_EQ(creates[i].result, 0);
        // Each buffer is exported right after its creation, from its new GEM handle.
        EXPECT_EQ(exports[i].seq, creates[i].seq + 1);
        EXPECT_EQ(exports[i].request, 0xC00C642Dul);
        const auto handle = static_cast<uint32_t>(creates[i].field("handle"));
        EXPECT_EQ(exports[i].in, bytes_of(PrimeRecord(handle, 0)));
        EXPECT_EQ(exports[i].out, bytes_of(PrimeRecord(handle, fds[i])));
    }
    auto init = spine::only("CONVERTER_IOCTL_INIT");
    EXPECT_EQ(init.request, 0xC004DD02ul);
    EXPECT_EQ(init.fd, output_->m_de_fd);
    EXPECT_EQ(init.path, "/dev/qvkconverter");
    EXPECT_EQ(init.in, (std::vector<uint8_t>{0, 0, 0, 0}));
    EXPECT_EQ(init.result, 0);
    EXPECT_TRUE(tv().converter().initialised);
    EXPECT_EQ(tv().drm().gem_handles.size(), 6u);

    // Lines.
    Lines expected = OpenLinesUpToThePool(output_->m_drm_fd);
    for (int pair = 0; pair < 3; ++pair)
        expected = expected + BufferLines(pair, true, fds[2 * pair]) +
                   BufferLines(pair, false, fds[2 * pair + 1]) +
                   PairDoneLines(fds[2 * pair], fds[2 * pair + 1]);
    expected = expected +
               Lines{vline(kOpen, "alloc gem buffer done"), vline("converter_init", "converter init"),
                     vline("converter_init", "open converter, fd:" + std::to_string(output_->m_de_fd) + "."),
                     vline("converter_init", "converter init done")};
    EXPECT_EQ(lines(), expected);

    // The renderer comes only with the first frame.
    EXPECT_EQ(comp().clients(), 0);
    EXPECT_TRUE(comp().log().empty());
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 3 + 6 + 1);
}

TEST_F(OsdOpenClose, close_tears_the_renderer_down_then_frees_the_pool_the_converter_and_the_display) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    const int de_fd = output_->m_de_fd;
    const DRMBuffer placeholder = output_->m_drm_buffers[0];
    window* const win = static_cast<window*>(output_->m_window);
    int fds[6];
    uint32_t handles[6];
    for (int i = 0; i < 6; ++i) {
        fds[i] = output_->m_gem_buf[i];
        handles[i] = tv().drm().dmabuf_handle.at(fds[i]);
    }

    // What the compositor has seen when the pool's release starts, and the handle as the
    // display's release finds it.
    bool gone_before_the_pool = false;
    bool snapshot_taken = false;
    quarvel_video_output_s at_display_release{};
    quarvel_video_output_s* const handle = output_;
    tv().set_listener([&](const emutv::Event& e) {
        if (e.name == "DRM_IOCTL_PRIME_FD_TO_HANDLE" && e.field("fd") == fds[0])
            gone_before_the_pool = comp().wait_disconnected(5000);
        if (e.name == "DRM_IOCTL_MODE_RMFB") {
            at_display_release = *handle;
            snapshot_taken = true;
        }
    });

    quarvel_video_output_close(output_);
    output_ = nullptr;
    tv().set_listener(nullptr);

    // The compositor saw the window, the three current buffers and the globals go, then
    // the client.
    EXPECT_TRUE(gone_before_the_pool);
    EXPECT_EQ(comp().log(),
              (Lines{"toplevel#0.destroy()", "xdg_surface#0.destroy()", "viewport#0.destroy()",
                     "surface#0.destroy()", "buffer#3.destroy()", "buffer#4.destroy()", "buffer#5.destroy()",
                     "dmabuf#0.destroy()", "wm_base#0.destroy()", "viewporter#0.destroy()", "disconnect"}));

    // The pool entry by entry, then the converter, then the display.
    Lines expected_calls;
    for (int i = 0; i < 6; ++i)
        expected_calls =
            expected_calls + Lines{"DRM_IOCTL_PRIME_FD_TO_HANDLE",
                                   "close dmabuf:" + std::to_string(handles[i]), "DRM_IOCTL_GEM_CLOSE"};
    expected_calls =
        expected_calls + Lines{"CONVERTER_IOCTL_CLOSE", "close /dev/qvkconverter"} + DefaultCloseCalls();
    EXPECT_EQ(calls(), expected_calls);
    auto to_handle = tv().events("DRM_IOCTL_PRIME_FD_TO_HANDLE");
    auto gem_close = tv().events("DRM_IOCTL_GEM_CLOSE");
    ASSERT_EQ(to_handle.size(), 6u);
    ASSERT_EQ(gem_close.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(to_handle[i].request, 0xC00C642Eul);
        EXPECT_EQ(to_handle[i].in, bytes_of(PrimeRecord(0, fds[i])));
        EXPECT_EQ(to_handle[i].out, bytes_of(PrimeRecord(handles[i], fds[i])));
        EXPECT_EQ(gem_close[i].request, 0x40086409ul);
        EXPECT_EQ(gem_close[i].in, bytes_of(GemCloseRecord(handles[i])));
        EXPECT_EQ(gem_close[i].result, 0);
    }
    auto converter_close = spine::only("CONVERTER_IOCTL_CLOSE");
    EXPECT_EQ(converter_close.request, 0xC004DD01ul);
    EXPECT_EQ(converter_close.fd, de_fd);
    EXPECT_EQ(converter_close.in, (std::vector<uint8_t>{0, 0, 0, 0}));
    // Then the placeholder scan-out buffer: framebuffer, then dumb buffer.
    auto rmfb = spine::only("DRM_IOCTL_MODE_RMFB");
    EXPECT_EQ(rmfb.request, 0xC00464AFul);
    EXPECT_EQ(rmfb.field("fb_id"), placeholder.fb_handle);
    EXPECT_EQ(rmfb.result, 0);
    auto destroy_dumb = spine::only("DRM_IOCTL_MODE_DESTROY_DUMB");
    EXPECT_EQ(destroy_dumb.request, 0xC00464B4ul);
    EXPECT_EQ(destroy_dumb.field("handle"), placeholder.bo_handle);
    EXPECT_EQ(destroy_dumb.result, 0);

    // The handle when the display's release began.
    ASSERT_TRUE(snapshot_taken);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(at_display_release.m_gem_buf[i], -1) << i;
    EXPECT_EQ(at_display_release.m_gem_buf_idx, -1);
    EXPECT_EQ(at_display_release.m_de_fd, -1);
    EXPECT_FALSE(at_display_release.m_is_ta);
    EXPECT_EQ(at_display_release.m_window, win);  // passed to the renderer, not cleared

    Lines expected_lines = {vline(kClose, "in"), vline(kDeinit, "in")};
    for (int i = 0; i < 6; ++i)
        expected_lines.push_back(vline("gem_free", "close dma_buf fd:" + std::to_string(fds[i]) +
                                                       ", handle:" + std::to_string(handles[i])));
    expected_lines = expected_lines + Lines{vline("CloseDevice", "in")} + NoHalLines();
    EXPECT_EQ(lines(), expected_lines);

    EXPECT_TRUE(tv().drm().gem_handles.empty());
    EXPECT_FALSE(tv().converter().initialised);
    EXPECT_EQ(tv().open_descriptors(), 0);
    ASSERT_TRUE(comp().wait_disconnected());
    comp().settle();
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(OsdOpenClose, chroma_failure_after_a_good_luma_buffer_fails_open_after_both_requests) {
    // The sixth create (pair 2, chroma) fails; the five before it succeed.
    int creates = 0;
    output_ = OpenInTaMode([&creates](const emutv::Event& e) {
        if (e.name == "DRM_IOCTL_SDP_GEM_HW_CREATE" && ++creates == 5)
            emutv::platform().fail("DRM_IOCTL_SDP_GEM_HW_CREATE", ENOSPC);
    });

    EXPECT_EQ(output_, nullptr);
    EXPECT_EQ(calls(), OpenCallsUpToThePool() + PoolCalls(5) +
                           Lines({"DRM_IOCTL_SDP_GEM_HW_CREATE -> ENOSPC", "dlopen", "close /dev/dri/card0",
                                  "close /dev/kdolby", "close /dev/qvl/qvkvplt"}));
    auto all_creates = tv().events("DRM_IOCTL_SDP_GEM_HW_CREATE");
    ASSERT_EQ(all_creates.size(), 6u);
    // The luma buffer of the pair was created and exported before its chroma was asked for.
    EXPECT_EQ(all_creates[4].in, bytes_of(CreateRecord(4)));
    EXPECT_EQ(all_creates[4].result, 0);
    EXPECT_EQ(all_creates[5].in, bytes_of(CreateRecord(5)));
    EXPECT_EQ(all_creates[5].result, -1);
    const std::vector<int> fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 5u);

    auto drm_open = tv().events("open");
    ASSERT_EQ(drm_open.size(), 3u);  // no converter
    Lines expected = OpenLinesUpToThePool(drm_open[2].fd);
    for (int pair = 0; pair < 2; ++pair)
        expected = expected + BufferLines(pair, true, fds[2 * pair]) +
                   BufferLines(pair, false, fds[2 * pair + 1]) +
                   PairDoneLines(fds[2 * pair], fds[2 * pair + 1]);
    expected = expected + BufferLines(2, true, fds[4]) +
               Lines{vline("gem_hw_alloc", "fail, index:2, isY:0, ret:-1."),
                     vline(kOpen, "gem alloc failed, m_gem_buf:" + std::to_string(fds[4]) + ", -1."), "",
                     vline("CloseDevice", "in")} +
               NoHalLines();
    EXPECT_EQ(lines(), expected);

    // The buffers made before the failure are not released on this path.
    EXPECT_EQ(tv().drm().gem_handles.size(), 5u);
    EXPECT_EQ(tv().open_descriptors(), 5);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_ + 5);
    for (int fd : fds)
        close(fd);
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

TEST_F(OsdOpenClose, handle_close_after_a_failed_export_is_retried_until_the_driver_takes_it) {
    tv().fail("DRM_IOCTL_PRIME_HANDLE_TO_FD", EMFILE, 1);
    tv().fail("DRM_IOCTL_GEM_CLOSE", EIO, 5);

    output_ = OpenInTaMode();

    // The close request's result (0) fills the slot: not a descriptor, but not negative,
    // so the pool and the open are accepted.
    ASSERT_NE(output_, nullptr);
    EXPECT_EQ(output_->m_gem_buf[0], 0);
    EXPECT_EQ(output_->m_gem_buf_idx, 0);
    auto creates = tv().events("DRM_IOCTL_SDP_GEM_HW_CREATE");
    ASSERT_EQ(creates.size(), 6u);
    const auto luma_handle = static_cast<uint32_t>(creates[0].field("handle"));

    Lines expected_calls = OpenCallsUpToThePool() +
                           Lines{"DRM_IOCTL_SDP_GEM_HW_CREATE", "DRM_IOCTL_PRIME_HANDLE_TO_FD -> EMFILE"};
    for (int attempt = 0; attempt < 5; ++attempt)
        expected_calls.push_back("DRM_IOCTL_GEM_CLOSE -> EIO");
    expected_calls = expected_calls + Lines{"DRM_IOCTL_GEM_CLOSE"} + PoolCalls(5) +
                     Lines{"open /dev/qvkconverter", "CONVERTER_IOCTL_INIT"};
    EXPECT_EQ(calls(), expected_calls);
    auto gem_close = tv().events("DRM_IOCTL_GEM_CLOSE");
    ASSERT_EQ(gem_close.size(), 6u);
    for (const auto& e : gem_close)
        EXPECT_EQ(e.in, bytes_of(GemCloseRecord(luma_handle)));
    EXPECT_EQ(tv().drm().gem_handles.count(luma_handle), 0u);
    EXPECT_EQ(tv().drm().gem_handles.size(), 5u);

    const std::vector<int> fds = ExportedDescriptors();
    ASSERT_EQ(fds.size(), 5u);
    const std::string handle = std::to_string(luma_handle);
    Lines expected = OpenLinesUpToThePool(output_->m_drm_fd) +
                     Lines{vline("gem_hw_alloc", "index:0, isY:1, 2211840 > expected 2211840."), "",
                           vline("gem_hw_alloc", "handle to fd fail, handle:" + handle +
                                                     ", ret:-1, errno:Too many open files")};
    for (int attempt = 0; attempt < 5; ++attempt)
        expected.push_back(vline("gem_hw_alloc", "close fail, handle:" + handle + ", ret:-1"));
    expected = expected + BufferLines(0, false, fds[0]) + PairDoneLines(0, fds[0]);
    for (int pair = 1; pair < 3; ++pair)
        expected = expected + BufferLines(pair, true, fds[2 * pair - 1]) +
                   BufferLines(pair, false, fds[2 * pair]) + PairDoneLines(fds[2 * pair - 1], fds[2 * pair]);
    expected = expected +
               Lines{vline(kOpen, "alloc gem buffer done"), vline("converter_init", "converter init"),
                     vline("converter_init", "open converter, fd:" + std::to_string(output_->m_de_fd) + "."),
                     vline("converter_init", "converter init done")};
    EXPECT_EQ(lines(), expected);

    // Slot 0 holds no descriptor of the pool: releasing it would close standard input.
    output_->m_gem_buf[0] = -1;
    CloseHandle();
    EXPECT_TRUE(tv().drm().gem_handles.empty());
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors_);
}

}  // namespace
}  // namespace video_osd
