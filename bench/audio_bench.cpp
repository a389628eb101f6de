// Cost of the audio data path against the bare system calls it has to make on the same
// emulated compressed-offload device: push_data against AVAIL + write, get_info against
// TSTAMP + GET_METADATA + AVAIL + clock_gettime. Each emulated request enters the kernel
// once, as on the television; the ratios printed at the end are the library's overhead.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <sound/compress_offload.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "ruvo/driver/compress_ext.h"
#include "ruvo/quarvel_audio_output.h"

namespace {

const char kDevice[] = "/dev/snd/comprC0D3";
constexpr unsigned kPayload = 4096;
constexpr unsigned kHeader = 32;

quarvel_audio_output_s* g_output = nullptr;
int g_bare_fd = -1;
std::vector<unsigned char> g_block(kPayload + kHeader, 0x5A);

void BM_push_data(benchmark::State& state) {
    for (auto _ : state) {
        int r = quarvel_audio_output_push_data(g_output, g_block.data(), kPayload, kHeader);
        benchmark::DoNotOptimize(r);
    }
}

void BM_push_data_bare(benchmark::State& state) {
    for (auto _ : state) {
        snd_compr_avail avail;
        int r = ioctl(g_bare_fd, SNDRV_COMPRESS_AVAIL, &avail);
        benchmark::DoNotOptimize(r);
        ssize_t n = write(g_bare_fd, g_block.data(), kPayload + kHeader);
        benchmark::DoNotOptimize(n);
    }
}

void BM_get_info(benchmark::State& state) {
    quarvel_audio_output_info_s info;
    for (auto _ : state) {
        int r = quarvel_audio_output_get_info(g_output, &info);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(info);
    }
}

void BM_get_info_bare(benchmark::State& state) {
    for (auto _ : state) {
        snd_compr_tstamp tstamp;
        int r = ioctl(g_bare_fd, SNDRV_COMPRESS_TSTAMP, &tstamp);
        benchmark::DoNotOptimize(r);
        snd_compr_metadata metadata;
        memset(&metadata, 0, sizeof(metadata));
        metadata.key = SNDRV_COMPRESS_GET_REMAINSIZE;
        r = ioctl(g_bare_fd, SNDRV_COMPRESS_GET_METADATA, &metadata);
        benchmark::DoNotOptimize(r);
        snd_compr_avail avail;
        r = ioctl(g_bare_fd, SNDRV_COMPRESS_AVAIL, &avail);
        benchmark::DoNotOptimize(r);
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC_RAW, &now);
        benchmark::DoNotOptimize(now);
    }
}

// The machine may be shared: repetitions of the four benchmarks are interleaved at random
// and the ratios use the fastest repetition of each, which interference can only slow.
constexpr int kRepetitions = 15;
double fastest(const std::vector<double>& v) {
    return *std::min_element(v.begin(), v.end());
}

void configure(benchmark::internal::Benchmark* b) {
    b->Repetitions(kRepetitions)
        ->MinTime(0.05)
        ->ComputeStatistics("min", fastest)
        ->ReportAggregatesOnly(true);
}

BENCHMARK(BM_push_data)->Apply(configure);
BENCHMARK(BM_push_data_bare)->Apply(configure);
BENCHMARK(BM_get_info)->Apply(configure);
BENCHMARK(BM_get_info_bare)->Apply(configure);

// Console output as usual, and the fastest times of each benchmark kept for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    explicit RatioReporter(OutputOptions options) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.error_occurred)
                continue;
            const std::string& name = run.run_name.function_name;
            const bool fastest = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (fastest || (run.run_type == Run::RT_Iteration && !times_.count(name)))
                times_[name] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void print_ratio(const char* library, const char* bare, const char* what) const {
        auto l = times_.find(library);
        auto b = times_.find(bare);
        if (l == times_.end() || b == times_.end() || b->second.cpu <= 0 || b->second.real <= 0)
            return;
        const double cpu = l->second.cpu / b->second.cpu;
        const double real = l->second.real / b->second.real;
        printf("%-9s / bare (%s): cpu %.3f, real %.3f  %s\n", library + 3, what, cpu, real,
               cpu <= 1.10 ? "(within 10 %)" : "(above 10 %)");
    }

  private:
    struct Times {
        double cpu, real;
    };
    std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
    // Interleaved repetitions unless the command line says otherwise.
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
        return 1;

    emutv::Platform& tv = emutv::platform();
    tv.reset();
    tv.add_compr_device(kDevice);
    // Flat memory: no record of the millions of requests, only their counts.
    tv.set_recording(false);

    g_output = quarvel_audio_output_open(kDevice);
    g_bare_fd = open(kDevice, O_WRONLY);
    if (g_output == nullptr || g_bare_fd < 0) {
        fprintf(stderr, "cannot open the emulated device %s\n", kDevice);
        return 1;
    }
    quarvel_audio_output_setup_params_s params{};
    params.channels = 2;
    params.sample_rate = 48000;
    if (quarvel_audio_output_setup(g_output, &params) != 0)
        return 1;
    tv.compr().remain = 9600;
    // The first block starts the stream; the benchmark measures the steady state.
    quarvel_audio_output_push_data(g_output, g_block.data(), kPayload, kHeader);

    RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                 : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printf("\nLibrary time over the bare system calls (fastest of %d interleaved repetitions):\n",
           kRepetitions);
    reporter.print_ratio("BM_push_data", "BM_push_data_bare", "AVAIL + write");
    reporter.print_ratio("BM_get_info", "BM_get_info_bare", "TSTAMP + GET_METADATA + AVAIL + clock_gettime");
    printf("Requests issued: %zu\n", tv.total_requests());
    fflush(stdout);

    close(g_bare_fd);
    // Closing writes the default volume and speed to the mixer and prints the release.
    quarvel_audio_output_close(g_output);
    printf("\n");
    benchmark::Shutdown();
    return 0;
}
