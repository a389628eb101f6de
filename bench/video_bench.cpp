// Cost of the per-frame and timing calls next to the bare driver requests they send, on
// the same emulated device. "Bare" issues the same ioctl(s) directly with the same records;
// the ratio library/bare is the library's own overhead (1.00 = none).
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/vplt_ioctl.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo_kit/bare_requests.h"
#include "ruvo_kit/frame_descriptor.h"
#include "ruvo_log.h"

namespace {

using ruvo_kit::bare_vplt;

struct Session {
    quarvel_video_output_s* output = nullptr;
    v4l2_drm desc{};
    quarvel_video_output_frame_s frame{};
};

Session g_session;

// A handle with a stream started and shown: the per-frame call is in steady state.
bool start_session() {
    emutv::platform().reset();
    g_ruvo_logmask = RUVO_LOG_ERR;
    Session& s = g_session;
    s.output = quarvel_video_output_open(false);
    if (s.output == nullptr)
        return false;
    s.desc = ruvo_kit::FrameDescriptor(1920, 1080);
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

// Bare and library runs of a pair alternate, several rounds of each, so that the drift
// of a shared machine hits both alike; the ratios use the medians over the rounds.
constexpr int kRounds = 7;

void register_benchmarks() {
    struct Pair {
        const char* bare_name;
        void (*bare)(benchmark::State&);
        const char* library_name;
        void (*library)(benchmark::State&);
    };
    const Pair pairs[] = {{"push_frame_bare", push_frame_bare, "push_frame_library", push_frame_library},
                          {"vsync_bare", vsync_bare, "vsync_library", vsync_library},
                          {"pts_bare", pts_bare, "pts_library", pts_library}};
    for (const Pair& p : pairs) {
        for (int round = 0; round < kRounds; ++round) {
            benchmark::RegisterBenchmark(p.bare_name, p.bare);
            benchmark::RegisterBenchmark(p.library_name, p.library);
        }
    }
}

// Collects real and CPU time of every run beside the usual console output.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            Samples& s = samples_[run.run_name.function_name];
            s.real.push_back(run.GetAdjustedRealTime());
            s.cpu.push_back(run.GetAdjustedCPUTime());
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void print_ratios() const {
        printf("\nlibrary / bare, medians in ns       real time                      CPU time\n");
        const char* const pairs[][3] = {{"push_frame_to_display", "push_frame_library", "push_frame_bare"},
                                        {"get_vsync_info", "vsync_library", "vsync_bare"},
                                        {"set_pts", "pts_library", "pts_bare"}};
        for (const auto& p : pairs) {
            auto lib = samples_.find(p[1]);
            auto bare = samples_.find(p[2]);
            if (lib == samples_.end() || bare == samples_.end())
                continue;
            const double lib_real = median(lib->second.real), bare_real = median(bare->second.real);
            const double lib_cpu = median(lib->second.cpu), bare_cpu = median(bare->second.cpu);
            if (bare_real <= 0 || bare_cpu <= 0)
                continue;
            printf("  %-22s %8.1f / %8.1f = %.3f     %8.1f / %8.1f = %.3f\n", p[0], lib_real, bare_real,
                   lib_real / bare_real, lib_cpu, bare_cpu, lib_cpu / bare_cpu);
        }
    }

  private:
    struct Samples {
        std::vector<double> real;
        std::vector<double> cpu;
    };
    static double median(std::vector<double> v) {
        if (v.empty())
            return 0;
        std::sort(v.begin(), v.end());
        return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    }
    std::map<std::string, Samples> samples_;
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
    register_benchmarks();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    end_session();
    benchmark::Shutdown();
    return 0;
}
