#include "osd_fixture.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "handle_catch.h"

namespace video_osd {

using ruvo_test::vline;

const char kOpen[] = "quarvel_video_output_open";
const char kClose[] = "quarvel_video_output_close";
const char kInit[] = "quarvel_video_output_init_with_first_frame";
const char kPush[] = "quarvel_video_output_push_frame_to_display";
const char kSetRect[] = "quarvel_video_output_set_rect";
const char kNextRes[] = "quarvel_video_output_set_next_res";
const char kNotify[] = "quarvel_video_output_notify_ta_switch";
const char kRender[] = "wayland_render_init";
const char kDeinit[] = "wayland_render_deinit";
const char kRedraw[] = "wayland_render_redraw";
const char kGeometry[] = "wayland_render_set_geometry";
const char kLazy[] = "wayland_render_re_create_dmabuf_buffer";
const char kDirectly[] = "wayland_render_re_create_dmabuf_buffer_directly";

std::string BufferLabel(int entry) {
    return std::string(entry % 2 == 0 ? "y" : "c") + std::to_string(entry / 2);
}

Frame::Frame(uint32_t w, uint32_t h, uint32_t display_index) {
    desc = ruvo_test::make_frame(w, h);
    desc.u.dec_info.pFrame[0].display_index = display_index;
    memset(&frame, 0, sizeof(frame));
    frame.v4l2_frame = &desc;
    frame.dv_profile = -1;
}

std::vector<uint8_t> ConverterRecord(const v4l2_drm& desc, int y, int c) {
    converter_decompress record;
    memset(&record, 0, sizeof(record));
    record.u32Retval = 0;
    record.outDrmFd[0] = y;
    record.outDrmFd[1] = c;
    record.stFbInfo = desc;
    std::vector<uint8_t> bytes = spine::bytes_of(record);
    const uint32_t stride = kStride;
    memcpy(bytes.data() + 24, &stride, sizeof(stride));
    return bytes;
}

std::vector<std::string> CreateRequests(int params, int slot, int width, int height, unsigned stride) {
    const std::string p = "params#" + std::to_string(params);
    const std::string s = std::to_string(stride);
    return {
        "dmabuf#0.create_params(" + p + ")",
        p + ".add(fd:" + BufferLabel(2 * slot) + ", 0, 0, " + s + ", 0x00ffffff, 0xffffffff)",
        p + ".add(fd:" + BufferLabel(2 * slot + 1) + ", 1, 0, " + s + ", 0x00ffffff, 0xffffffff)",
        p + ".create(" + std::to_string(width) + ", " + std::to_string(height) + ", 0x3231564e, 0)",
    };
}

std::vector<std::string> Created(int params, int slot, int width, int height, unsigned stride) {
    std::vector<std::string> out = CreateRequests(params, slot, width, height, stride);
    out.push_back("-> params#" + std::to_string(params) + ".created(buffer#" + std::to_string(params) + ")");
    return out;
}

std::vector<std::string> DrawRequests(int buffer, int width, int height, int callback) {
    return {
        "surface#0.attach(buffer#" + std::to_string(buffer) + ", 0, 0)",
        "surface#0.damage(0, 0, " + std::to_string(width) + ", " + std::to_string(height) + ")",
        "surface#0.frame(callback#" + std::to_string(callback) + ")",
        "surface#0.commit()",
    };
}

std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

bool WaitForAudioMute(int threads) {
    if (!ruvo_kit::wait_for_threads_to_end(threads, std::chrono::seconds(30)))
        return false;
    std::lock_guard<emutv::PlatformMutex> g(emutv::platform().mutex());
    for (const auto& w : emutv::platform().sound().writes)
        if (w.name == "main out mute")
            return true;
    return false;
}

void OsdTest::SetUp() {
    SpineTest::SetUp();
    ShowAllLevels();
    unsetenv("TA_DTV_PRELOAD");
}

void OsdTest::TearDown() {
    tv().set_listener(nullptr);
    ruvo_test::stop_catching();
    CloseHandle();
    comp_.reset();
    unsetenv("TA_DTV_PRELOAD");
    SpineTest::TearDown();
}

TestCompositor& OsdTest::StartCompositor(CompositorConfig cfg) {
    comp_.reset(new TestCompositor(std::move(cfg)));
    comp_->start();
    return *comp_;
}

quarvel_video_output_s* OsdTest::OpenInTaMode(std::function<void(const emutv::Event&)> also) {
    descriptors_ = emutv::process_open_descriptors();
    quarvel_video_output_s* output = ruvo_test::open_in_ta_mode(std::move(also));
    EXPECT_TRUE(output == nullptr || output == ruvo_test::caught_handle());
    return output;
}

quarvel_video_output_s* OsdTest::OpenReady() {
    output_ = OpenInTaMode();
    if (output_ == nullptr) {
        ADD_FAILURE() << "open in TA mode failed";
        return nullptr;
    }
    for (int i = 0; i < 6; ++i) {
        const int fd = output_->m_gem_buf[i];
        const int file = memfd_create(BufferLabel(i).c_str(), MFD_CLOEXEC);
        if (fd < 0 || file < 0 || dup2(file, fd) != fd) {
            ADD_FAILURE() << "cannot give frame buffer " << i << " a file of its own";
            return nullptr;
        }
        close(file);
        if (comp_)
            comp_->label_fd(fd, BufferLabel(i));
    }
    Forget();
    return output_;
}

quarvel_video_output_s* OsdTest::OpenWithWindow() {
    if (!comp_)
        StartCompositor();
    if (OpenReady() == nullptr)
        return nullptr;
    Frame first(1920, 1080);
    if (quarvel_video_output_init_with_first_frame(output_, first.get()) != 0 ||
        output_->m_window == nullptr) {
        ADD_FAILURE() << "first frame on the on-screen display failed";
        return nullptr;
    }
    // What the renderer left queued (the creations' params.destroy) goes out now.
    wl_display_roundtrip(static_cast<window*>(output_->m_window)->display->display);
    Forget();
    return output_;
}

std::vector<int> OsdTest::ExportedDescriptors() {
    std::vector<int> out;
    for (const auto& e : emutv::platform().events("DRM_IOCTL_PRIME_HANDLE_TO_FD"))
        if (e.result == 0)
            out.push_back(static_cast<int>(e.field("fd")));
    return out;
}

void OsdTest::Forget() {
    lines();
    tv().clear_events();
    if (comp_)
        comp_->clear_log();
}

void OsdTest::CloseHandle() {
    if (output_ != nullptr)
        quarvel_video_output_close(output_);
    output_ = nullptr;
}

std::vector<std::string> OsdTest::ShownFrameLines() {
    return {vline("display_on_osd", "osd display in"), vline("converter_process", "converter success"),
            vline(kRedraw, "in"), vline(kRedraw, "out"), vline("display_on_osd", "osd display out")};
}

std::vector<emutv::Event> OsdTest::Conversions() {
    return emutv::platform().events("CONVERTER_IOCTL_DECOMPRESS");
}

}  // namespace video_osd
