// Fixtures of the on-screen-display renderer tests: three NV12 frame buffers (two memfd
// planes each, labelled y0/uv0 ... y2/uv2 in the compositor's record), the renderer's
// configuration, and a test compositor started per test.
#pragma once

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "test_compositor.h"
#include "test_support.h"
#include "ruvo_internal_debug.h"
#include "ruvo_internal_render.h"

namespace ruvo_test {

inline constexpr uint32_t kNV12 = 0x3231564e;
inline constexpr uint32_t kXRGB8888 = 0x34325258;

// The three frame buffers the video side hands to the renderer.
class FramePlanes {
  public:
    FramePlanes() {
        for (int i = 0; i < 3; i++) {
            for (int p = 0; p < 2; p++) {
                std::string name = std::string(p == 0 ? "y" : "uv") + std::to_string(i);
                fd[i][p] = memfd_create(name.c_str(), MFD_CLOEXEC);
                if (fd[i][p] >= 0 && ftruncate(fd[i][p], 4096) != 0) {
                    close(fd[i][p]);
                    fd[i][p] = -1;
                }
            }
        }
    }
    ~FramePlanes() {
        for (auto& buffer : fd)
            for (int f : buffer)
                if (f >= 0)
                    close(f);
    }
    FramePlanes(const FramePlanes&) = delete;
    FramePlanes& operator=(const FramePlanes&) = delete;

    bool ok() const {
        for (auto& buffer : fd)
            for (int f : buffer)
                if (f < 0)
                    return false;
        return true;
    }
    static std::string label(int buffer, int plane) {
        return std::string(plane == 0 ? "y" : "uv") + std::to_string(buffer);
    }
    void label_in(TestCompositor& comp) const {
        for (int i = 0; i < 3; i++)
            for (int p = 0; p < 2; p++)
                comp.label_fd(fd[i][p], label(i, p));
    }

    int fd[3][2];
};

// What the video side passes to wayland_render_init: 1920 x 1080 NV12 with distinct strides.
inline st_wayland_render_config make_render_config(const FramePlanes& planes) {
    st_wayland_render_config config;
    memset(&config, 0, sizeof(config));
    config.width = 1920;
    config.height = 1080;
    for (int i = 0; i < 3; i++)
        for (int p = 0; p < 2; p++)
            config.dma_fd[i][p] = planes.fd[i][p];
    config.strides[0] = 1920;
    config.strides[1] = 1984;
    return config;
}

// What init sends first against the default compositor: the registry, the globals bound
// at their versions, and the roundtrip after the dmabuf global.
inline const std::vector<std::string> kConnectRequests = {
    "display.get_registry()",
    "display.sync()",
    "registry.bind(\"wl_compositor\", 1)",
    "registry.bind(\"wp_viewporter\", 1)",
    "registry.bind(\"wl_seat\", 1)",
    "registry.bind(\"xdg_wm_base\", 1)",
    "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
    "display.sync()",
};

// The same in the compositor's whole record, with its answers.
inline const std::vector<std::string> kConnectLog = {
    "display.get_registry()",
    "display.sync()",
    "registry.bind(\"wl_compositor\", 1)",
    "registry.bind(\"wp_viewporter\", 1)",
    "registry.bind(\"wl_seat\", 1)",
    "-> seat#0.capabilities(0)",
    "registry.bind(\"xdg_wm_base\", 1)",
    "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
    "-> dmabuf#0.format(0x3231564e)",
    "-> dmabuf#0.modifier(0x3231564e, 0x00000000, 0x00000000)",
    "display.sync()",
};

// The requests that create one dmabuf buffer of slot `slot` through params#<params>.
inline std::vector<std::string> create_requests(int params, int slot, int width, int height, unsigned stride0,
                                                unsigned stride1, unsigned flags = 0) {
    std::string p = "params#" + std::to_string(params);
    return {
        "dmabuf#0.create_params(" + p + ")",
        p + ".add(fd:" + FramePlanes::label(slot, 0) + ", 0, 0, " + std::to_string(stride0) +
            ", 0x00ffffff, 0xffffffff)",
        p + ".add(fd:" + FramePlanes::label(slot, 1) + ", 1, 0, " + std::to_string(stride1) +
            ", 0x00ffffff, 0xffffffff)",
        p + ".create(" + std::to_string(width) + ", " + std::to_string(height) + ", 0x3231564e, " +
            std::to_string(flags) + ")",
    };
}

// The requests of one drawn frame.
inline std::vector<std::string> draw_requests(const std::string& buffer, int width, int height,
                                              int callback) {
    return {
        "surface#0.attach(" + buffer + ", 0, 0)",
        "surface#0.damage(0, 0, " + std::to_string(width) + ", " + std::to_string(height) + ")",
        "surface#0.frame(callback#" + std::to_string(callback) + ")",
        "surface#0.commit()",
    };
}

inline std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> out;
    for (auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// The record from entry `from` on.
inline std::vector<std::string> tail(const std::vector<std::string>& record, size_t from) {
    if (from >= record.size())
        return {};
    return std::vector<std::string>(record.begin() + static_cast<std::ptrdiff_t>(from), record.end());
}

// A renderer against a test compositor, with the library's standard output captured.
class RendererTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        ASSERT_TRUE(planes_.ok());
        config_ = make_render_config(planes_);
    }
    void TearDown() override {
        comp_.reset();
        PlatformTest::TearDown();
    }

    TestCompositor& start(CompositorConfig cfg = CompositorConfig()) {
        comp_.reset(new TestCompositor(std::move(cfg)));
        comp_->start();
        planes_.label_in(*comp_);
        return *comp_;
    }
    TestCompositor& comp() { return *comp_; }

    // wayland_render_init, then what init left queued is sent and the record and the
    // printed lines are cleared, so that a test sees only what follows.
    window* init_quietly() {
        window* w = wayland_render_init(&config_);
        if (w == nullptr)
            return nullptr;
        wl_display_roundtrip(w->display->display);
        comp_->clear_log();
        lines();
        return w;
    }

    FramePlanes planes_;
    st_wayland_render_config config_;
    std::unique_ptr<TestCompositor> comp_;
};

// In a death-test child: standard output goes, unbuffered, where standard error goes, so
// that the whole output of the child can be matched in order.
inline void stdout_into_stderr() {
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
}

// Process-ending paths: the renderer runs in a death-test child, which starts its own
// compositor there, so the parent stays single-threaded when it forks. Runtime
// directories of the children are removed afterwards.
class RendererDeathTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_ruvo_logmask = 0;
        ASSERT_TRUE(planes_.ok());
        config_ = make_render_config(planes_);
        std::string templ = std::string(RUVO_TEST_COMPOSITOR_RUNTIME_BASE) + "/death-XXXXXX";
        std::filesystem::create_directories(RUVO_TEST_COMPOSITOR_RUNTIME_BASE);
        std::vector<char> path(templ.begin(), templ.end());
        path.push_back('\0');
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        base_ = path.data();
    }
    void TearDown() override {
        std::error_code ec;
        if (!base_.empty())
            std::filesystem::remove_all(base_, ec);
    }

    CompositorConfig config_in_base(CompositorConfig cfg = CompositorConfig()) {
        cfg.runtime_base = base_;
        return cfg;
    }

    // In the death-test child: standard output into standard error, a compositor like
    // `cfg` started there, `before_init` (when given), then init.
    void init_with_compositor(const CompositorConfig& cfg,
                              const std::function<void()>& before_init = nullptr) {
        stdout_into_stderr();
        TestCompositor comp(cfg);
        comp.start();
        if (before_init)
            before_init();
        wayland_render_init(&config_);
    }
    // In the death-test child: standard output into standard error, then init against a
    // socket name in the runtime directory that no compositor serves.
    void init_without_compositor(const char* socket) {
        stdout_into_stderr();
        setenv("XDG_RUNTIME_DIR", base_.c_str(), 1);
        setenv("WAYLAND_DISPLAY", socket, 1);
        unsetenv("WAYLAND_SOCKET");
        wayland_render_init(&config_);
    }

    FramePlanes planes_;
    st_wayland_render_config config_;
    std::string base_;
};

// `text` as a regular expression matching itself.
inline std::string escape_re(const std::string& text) {
    std::string out;
    for (char ch : text) {
        if (strchr("\\^$.|?*+()[]{}", ch))
            out += '\\';
        out += ch;
    }
    return out;
}

// A video-style line (with its newline) as a regular expression; any call-site number.
inline std::string vline_re(const std::string& func, const std::string& text) {
    return escape_re("[qvl_disp_corvi] " + func + "(") + "[0-9]+" + escape_re(") " + text + "\n");
}

// The end of a child's output after a glibc assertion message for `expression`, as a
// regular expression. Under user-mode emulation qemu adds a line of its own after it.
inline std::string assertion_end_re(const std::string& expression) {
    return "[^\n]*: Assertion `" + escape_re(expression) + "' failed\\.\n(qemu: [^\n]*\n)?$";
}

}  // namespace ruvo_test
