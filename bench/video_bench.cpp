// Cost of the per-frame and timing calls next to the bare driver requests they send, on
// the same emulated device. "Bare" issues the same ioctl(s) directly with the same records;
// the ratio library/bare is the library's own overhead (1.00 = none).
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "ruvo_internal.h"
#include "ruvo_log.h"

namespace {

struct Session {
    quarvel_video_output_s* output = nullptr;
    v4l2_drm desc{};
    quarvel_video_output_frame_s frame{};
};

Session g_session;

v4l2_drm make_descriptor(uint32_t hres, uint32_t vres) {
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    d.inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    d.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    d.u.dec_info.hres = hres;
    d.u.dec_info.vres = vres;
    d.u.dec_info.effective_hres = hres;
    d.u.dec_info.effective_vres = vres;
    d.u.dec_info.framerate = 50000;
    d.u.dec_info.pFrame[0].display_index = 1;
    return d;
}

// A handle with a stream started and shown: the per-frame call is in steady state.
bool start_session() {
    emutv::platform().reset();
    g_ruvo_logmask = RUVO_LOG_ERR;
    Session& s = g_session;
    s.output = quarvel_video_output_open(false);
    if (s.output == nullptr)
        return false;
    s.desc = make_descriptor(1920, 1080);
    s.frame.v4l2_frame = &s.desc;
    s.frame.dv_profile = -1;
    const quarvel_video_output_rect_s r{0, 0, 1920, 1080, 0, 0};
    if (quarvel_video_output_set_rect(s.output, &r) != 0)
        return false;
    if (quarvel_video_output_init_with_first_frame(s.output, &s.frame) != 0)
        return false;
    if (quarvel_video_output_push_frame_to_display(s.output, &s.frame) != 0)
        return false;
    fflush(stdout);
    emutv::platform().set_recording(false);
    return true;
}

void end_session() {
    if (g_session.output != nullptr)
        quarvel_video_output_close(g_session.output);
    g_session.output = nullptr;
}

// One video-platform command, filled by hand.
int bare_vplt(int fd, int32_t command, void* arg1, void* arg2, void* arg3, int32_t* ret) {
    ST_VPLT_IOC_CMD cmd;
    memset(&cmd, 0, sizeof(cmd));
    cmd.enCmd = command;
    cmd.arg1 = arg1;
    cmd.arg2 = arg2;
    cmd.arg3 = arg3;
    cmd.ret = ret;
    return ioctl(fd, VPLT_IOC_CMD, &cmd);
}

// ---- Per frame ------------------------------------------------------------------------------

void push_frame_library(benchmark::State& state) {
    Session& s = g_session;
    for (auto _ : state) {
        int r = quarvel_video_output_push_frame_to_display(s.output, &s.frame);
        benchmark::DoNotOptimize(r);
    }
}

void push_frame_bare(benchmark::State& state) {
    Session& s = g_session;
    v4l2_drm record = s.desc;  // already carries the plane
    for (auto _ : state) {
        int r = ioctl(s.output->m_drm_fd, DRM_IOCTL_SDP_SET_DP_SOURCE, &record);
        benchmark::DoNotOptimize(r);
    }
}

// ---- Vsync ----------------------------------------------------------------------------------

void vsync_library(benchmark::State& state) {
    quarvel_video_output_vsync_info_s info{};
    for (auto _ : state) {
        int r = quarvel_video_output_get_vsync_info(g_session.output, &info);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(info);
    }
}

void vsync_bare(benchmark::State& state) {
    const int fd = g_session.output->m_valio_fd;
    for (auto _ : state) {
        uint8_t plane_id = 0;
        int32_t hz = 0;
        int32_t ret = 0;
        int r = bare_vplt(fd, EN_VPLT_IOC_FR2IP_GetVsyncHZ, &plane_id, &hz, nullptr, &ret);
        plane_id = 0;
        ret = 0;
        vplt_vsync_offset offset{0, 0};
        r |= bare_vplt(fd, EN_VPLT_IOC_FR2IP_GetOffsetFromVsync, &plane_id, &offset, nullptr, &ret);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(offset);
    }
}

// ---- PTS ------------------------------------------------------------------------------------

void pts_library(benchmark::State& state) {
    long long pts = 0;
    for (auto _ : state) {
        int r = quarvel_video_output_set_pts(g_session.output, pts++);
        benchmark::DoNotOptimize(r);
    }
}

void pts_bare(benchmark::State& state) {
    const int fd = g_session.output->m_valio_fd;
    long long pts = 0;
    for (auto _ : state) {
        uint8_t plane_id = 0;
        int32_t high = static_cast<int32_t>(static_cast<uint64_t>(pts) >> 32);
        int32_t low = static_cast<int32_t>(static_cast<uint64_t>(pts));
        int32_t ret = 0;
        int r = bare_vplt(fd, EN_VPLT_IOC_FR2IP_SetPTS, &plane_id, &high, &low, &ret);
        benchmark::DoNotOptimize(r);
        ++pts;
    }
}

// Each bare run comes right before its library run, so that drift of the machine hits
// both alike.
constexpr int kRepetitions = 7;
BENCHMARK(push_frame_bare)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(push_frame_library)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(vsync_bare)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(vsync_library)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(pts_bare)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(pts_library)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);

// Keeps the median real and CPU time of every benchmark beside the usual console output.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const std::string name = run.run_name.function_name;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration && times_.count(name) == 0;
            if (median || single)
                times_[name] = Times{run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void print_ratios() const {
        printf("\nlibrary / bare, medians in ns       real time                      CPU time\n");
        const char* const pairs[][3] = {{"push_frame_to_display", "push_frame_library", "push_frame_bare"},
                                        {"get_vsync_info", "vsync_library", "vsync_bare"},
                                        {"set_pts", "pts_library", "pts_bare"}};
        for (const auto& p : pairs) {
            auto lib = times_.find(p[1]);
            auto bare = times_.find(p[2]);
            if (lib == times_.end() || bare == times_.end() || bare->second.real <= 0 ||
                bare->second.cpu <= 0)
                continue;
            const double real = lib->second.real / bare->second.real;
            const double cpu = lib->second.cpu / bare->second.cpu;
            printf("  %-22s %8.1f / %8.1f = %.3f     %8.1f / %8.1f = %.3f\n", p[0], lib->second.real,
                   bare->second.real, real, lib->second.cpu, bare->second.cpu, cpu);
        }
    }

  private:
    struct Times {
        double real;
        double cpu;
    };
    std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!start_session()) {
        fprintf(stderr, "video_bench: could not start a stream on the emulated platform\n");
        end_session();
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    end_session();
    benchmark::Shutdown();
    return 0;
}
