// The clock and the log of a process that loaded the emulator with LD_PRELOAD: real time
// by default, virtual on request, and a log path that cannot be written stops the
// process before main.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "emutv/timeline.h"

extern char** environ;

namespace {

int64_t monotonic_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

struct ProbeRun {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs the probe with `env` added to a clean environment.
ProbeRun run_probe(const std::vector<std::string>& env, const char* arg = nullptr) {
    char dir[] = "/tmp/emutv-preload-XXXXXX";
    EXPECT_NE(mkdtemp(dir), nullptr);
    const std::string out = std::string(dir) + "/out", err = std::string(dir) + "/err";
    std::vector<std::string> strings = {"PATH=/usr/bin:/bin"};
    if (const char* tmp = getenv("TMPDIR"))
        strings.push_back(std::string("TMPDIR=") + tmp);
    std::vector<std::string> args;
#if defined(__arm__)
    // Under qemu-arm a child is started through qemu-arm again; the preload is for the
    // emulated program, not for qemu itself.
    args.push_back("/usr/bin/qemu-arm");
    for (const auto& e : env)
        if (e.compare(0, 11, "LD_PRELOAD=") == 0)
            args.insert(args.end(), {"-E", e});
        else
            strings.push_back(e);
#else
    strings.insert(strings.end(), env.begin(), env.end());
#endif
    args.push_back(CLOCK_PROBE);
    if (arg)
        args.push_back(arg);
    std::vector<char*> envp, argv;
    for (auto& s : strings)
        envp.push_back(&s[0]);
    envp.push_back(nullptr);
    for (auto& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    ProbeRun r;
    EXPECT_EQ(posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&fa);
    EXPECT_EQ(waitpid(pid, &r.status, 0), pid);
    r.out = slurp(out);
    r.err = slurp(err);
    unlink(out.c_str());
    unlink(err.c_str());
    rmdir(dir);
    return r;
}

std::vector<emutv::TimelineEntry> vsyncs_in(const std::string& path,
                                            std::map<int, size_t>* per_pid = nullptr) {
    std::vector<emutv::TimelineEntry> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        emutv::TimelineEntry e;
        EXPECT_TRUE(emutv::parse_timeline_line(line, &e)) << line;
        if (e.type == emutv::TimelineEntry::Type::Vsync)
            out.push_back(e);
        const size_t p = line.find("\"pid\":");
        if (per_pid && p != std::string::npos)
            (*per_pid)[std::stoi(line.substr(p + 6))]++;
    }
    return out;
}

class Preload : public ::testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/emutv-preload-log-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        log_ = path;
    }
    void TearDown() override { unlink(log_.c_str()); }
    std::string log_;
};

TEST_F(Preload, a_preloaded_process_keeps_real_time_and_logs_every_vsync) {
    const int64_t before = monotonic_ns();
    ProbeRun r = run_probe({std::string("LD_PRELOAD=") + EMUTV_LIBRARY, "RUVO_EMUTV_LOG=" + log_});
    const int64_t after = monotonic_ns();
    ASSERT_TRUE(WIFEXITED(r.status)) << r.err;
    ASSERT_EQ(WEXITSTATUS(r.status), 0) << r.err;
    EXPECT_NE(r.out.find("hz=59940 offset=0."), std::string::npos) << r.out;
    const auto vsyncs = vsyncs_in(log_);
    // Five answers 30 ms apart: at least 120 ms of panel, on the monotonic clock.
    ASSERT_GE(vsyncs.size(), 7u);
    for (size_t i = 0; i < vsyncs.size(); ++i) {
        EXPECT_GT(vsyncs[i].t_ns, before);
        EXPECT_LT(vsyncs[i].t_ns, after);
        if (i > 0) {
            EXPECT_NEAR(static_cast<double>(vsyncs[i].t_ns - vsyncs[i - 1].t_ns), 1e9 / 59.94, 1.0);
        }
    }
    // The offsets answered are the time since the last vsync, each below one period.
    size_t answers = 0;
    for (size_t p = r.out.find("offset=0."); p != std::string::npos; p = r.out.find("offset=0.", p + 1)) {
        EXPECT_LT(std::stol(r.out.substr(p + 9, 9)), 16683334L);
        answers++;
    }
    EXPECT_EQ(answers, 5u);
}

TEST_F(Preload, the_virtual_clock_can_be_asked_for_and_then_no_vsync_goes_by) {
    ProbeRun r = run_probe(
        {std::string("LD_PRELOAD=") + EMUTV_LIBRARY, "RUVO_EMUTV_LOG=" + log_, "RUVO_EMUTV_CLOCK=virtual"});
    ASSERT_TRUE(WIFEXITED(r.status));
    ASSERT_EQ(WEXITSTATUS(r.status), 0) << r.err;
    EXPECT_TRUE(vsyncs_in(log_).empty());
    std::string scripted;
    for (int i = 0; i < 5; ++i)
        scripted += "hz=59940 offset=0.001000000\n";
    EXPECT_EQ(r.out, scripted) << "the scripted answers of the virtual clock";
}

TEST_F(Preload, a_log_that_cannot_be_written_stops_the_process_before_main) {
    ProbeRun r =
        run_probe({std::string("LD_PRELOAD=") + EMUTV_LIBRARY, "RUVO_EMUTV_LOG=/nonexistent-dir/timeline"});
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(WEXITSTATUS(r.status), 2);
    EXPECT_EQ(r.err, "emutv: /nonexistent-dir/timeline: cannot write: No such file or directory\n");
    EXPECT_EQ(r.out, "") << "main never ran";
}

TEST_F(Preload, a_child_started_by_exec_appends_to_the_log_and_leaves_the_parents_lines) {
#if defined(__arm__)
    GTEST_SKIP() << "qemu-arm does not start an exec'd ARM program without binfmt_misc";
#endif
    ProbeRun r =
        run_probe({std::string("LD_PRELOAD=") + EMUTV_LIBRARY, "RUVO_EMUTV_LOG=" + log_}, "exec-child");
    ASSERT_TRUE(WIFEXITED(r.status)) << r.err;
    ASSERT_EQ(WEXITSTATUS(r.status), 0) << r.err;
    std::map<int, size_t> per_pid;
    const auto vsyncs = vsyncs_in(log_, &per_pid);
    ASSERT_EQ(per_pid.size(), 2u) << "the parent's lines and the child's";
    for (const auto& kv : per_pid)
        EXPECT_GE(kv.second, 7u) << "pid " << kv.first;
    EXPECT_EQ(r.out.size(), 2 * 5 * std::string("hz=59940 offset=0.000000000\n").size());
}

}  // namespace
