#include "test_support.h"

#include <stdio.h>

#include <regex>

#include "ruvo_internal_debug.h"

namespace {

// googletest prints a failed assertion on stdout, which the fixtures capture while a test
// runs; the text would end up among the library's lines. Each failure is written to
// stderr as well, where it stays in sight.
class FailuresToStderr : public ::testing::EmptyTestEventListener {
  public:
    void OnTestPartResult(const ::testing::TestPartResult& result) override {
        if (!result.failed())
            return;
        const char* file = result.file_name() != nullptr ? result.file_name() : "unknown file";
        if (result.line_number() >= 0)
            fprintf(stderr, "%s:%d: Failure\n%s\n", file, result.line_number(), result.message());
        else
            fprintf(stderr, "%s: Failure\n%s\n", file, result.message());
        fflush(stderr);
    }
};

// Every program that links the fixtures gets the listener, once, before main.
const bool g_failures_to_stderr = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new FailuresToStderr);
    return true;
}();

}  // namespace

namespace ruvo_test {

void StdoutCapture::start() {
    fflush(stdout);
    ::testing::internal::CaptureStdout();
    active_ = true;
}

std::string StdoutCapture::stop_raw() {
    if (!active_)
        return std::string();
    fflush(stdout);
    active_ = false;
    return ::testing::internal::GetCapturedStdout();
}

std::vector<std::string> StdoutCapture::stop_lines() {
    return split_lines(fold_call_sites(stop_raw()));
}

std::string fold_call_sites(const std::string& text) {
    static const std::regex video(R"((\[qvl_disp_corvi\] [A-Za-z_0-9]+)\(\d+\) )");
    static const std::regex audio(R"((\[[A-Za-z_0-9]+\(\): )\d+\])");
    std::string out = std::regex_replace(text, video, "$1(#) ");
    return std::regex_replace(out, audio, "$1#]");
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            out.push_back(text.substr(start));
            break;
        }
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

std::string vline(const std::string& func, const std::string& text) {
    return "[qvl_disp_corvi] " + func + "(#) " + text;
}

std::string aline(const std::string& func, const std::string& text) {
    return "[" + func + "(): #]" + text;
}

v4l2_drm make_frame(uint32_t hres, uint32_t vres, uint32_t aspect, uint32_t inputport) {
    return ruvo_kit::FrameDescriptor(hres, vres).aspect(aspect).inputport(inputport).plane_size();
}

void PlatformTest::SetUp() {
    emutv::platform().reset();
    g_ruvo_logmask = 0;
    capture_.start();
}

void PlatformTest::TearDown() {
    if (capture_.active()) {
        std::string rest = capture_.stop_raw();
        if (HasFailure())
            fprintf(stderr, "--- library output ---\n%s", rest.c_str());
    }
}

std::vector<std::string> PlatformTest::lines() {
    auto out = capture_.stop_lines();
    capture_.start();
    return out;
}

std::vector<std::string> PlatformTest::request_names() const {
    std::vector<std::string> out;
    for (const auto& e : emutv::platform().events())
        out.push_back(e.name);
    return out;
}

std::vector<std::string> PlatformTest::request_names(emutv::Device d) const {
    std::vector<std::string> out;
    for (const auto& e : emutv::platform().events(d))
        out.push_back(e.name);
    return out;
}

}  // namespace ruvo_test
