// The emulator loaded with LD_PRELOAD into a program that is not linked with it
// (preload_app), configured from RUVO_EMUTV and RUVO_EMUTV_TRACE: what the program did is
// in the trace, a bad platform file or trace path stops it before main, children keep
// the parent's trace intact, and no sandbox is left behind.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

std::vector<std::string> entries(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    while (d && (errno = 0, true)) {
        struct dirent* e = readdir(d);
        if (!e)
            break;
        std::string n = e->d_name;
        if (n.compare(0, prefix.size(), prefix) == 0)
            out.push_back(n);
    }
    if (d)
        closedir(d);
    return out;
}

// What the program itself printed ("app: ..."), without the library's own lines.
std::string app_lines(const std::string& out) {
    std::string text;
    size_t at = 0;
    while ((at = out.find("app: ", at)) != std::string::npos) {
        size_t end = out.find('\n', at);
        text += out.substr(at, end - at) + "\n";
        at = end;
    }
    return text;
}

size_t count_containing(const std::vector<std::string>& lines, const std::string& what) {
    size_t n = 0;
    for (const auto& l : lines)
        n += l.find(what) != std::string::npos;
    return n;
}

// Trace lines are numbered 1, 2, 3, ... with no gap and no foreign line.
void expect_numbered_from_one(const std::vector<std::string>& trace) {
    for (size_t i = 0; i < trace.size(); ++i)
        ASSERT_EQ(trace[i].compare(0, std::to_string(i + 1).size() + 2, "#" + std::to_string(i + 1) + " "), 0)
            << "line " << i + 1 << ": " << trace[i];
}

class Preload : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/preload-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        platform_ = dir_ + "/tv.platform";
        trace_ = dir_ + "/trace";
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (system(cmd.c_str()) != 0)
            ADD_FAILURE() << "could not remove " << dir_;
    }

    // Starts preload_app with the emulator preloaded and `env` set, in dir_.
    pid_t start(const std::string& mode, const std::map<std::string, std::string>& env) {
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir_.c_str()) != 0)
                _exit(126);
            int out = open((dir_ + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int err = open((dir_ + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(err, 2);
            unsetenv("RUVO_EMUTV");
            unsetenv("RUVO_EMUTV_TRACE");
            unsetenv("RUVO_EMUTV_TRACE_PID");
            unsetenv("EMUTV_SANDBOX_DIR");
            setenv("LD_PRELOAD", EMUTV_LIBRARY, 1);
            for (const auto& kv : env)
                setenv(kv.first.c_str(), kv.second.c_str(), 1);
            execl(PRELOAD_APP, PRELOAD_APP, mode.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        return pid;
    }
    Outcome finish(pid_t pid) {
        Outcome r;
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = read_file(dir_ + "/stdout");
        r.err = read_file(dir_ + "/stderr");
        return r;
    }
    Outcome run(const std::string& mode, const std::map<std::string, std::string>& env) {
        return finish(start(mode, env));
    }
    std::map<std::string, std::string> configured() const {
        return {{"RUVO_EMUTV", platform_}, {"RUVO_EMUTV_TRACE", trace_}};
    }
    // A platform file problem: exit 2 before main, one line on stderr.
    void expect_stopped_before_main(const Outcome& r, const std::string& line) {
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, "emutv: " + line + "\n");
        EXPECT_EQ(r.out, "");  // main never printed its first line
    }

    std::string dir_;
    std::string platform_;
    std::string trace_;
};

const char kPlatform[] =
    "# a 1366x768 panel at 50 Hz with an audio decoder\n"
    "platform panel 1366 768\n"
    "platform vsync 50\n"
    "platform compr-device /dev/snd/comprC0D0\n";

// The "what detail" of each event entry of a timeline log, in order.
std::vector<std::string> timeline_events(const std::string& log) {
    std::vector<std::string> out;
    for (const std::string& l : split_lines(log)) {
        if (l.find("\"type\":\"event\"") == std::string::npos)
            continue;
        auto value = [&](const std::string& key) {
            const std::string open = "\"" + key + "\":\"";
            const size_t at = l.find(open);
            return at == std::string::npos
                       ? std::string("?")
                       : l.substr(at + open.size(), l.find('"', at + open.size()) - at - open.size());
        };
        out.push_back(value("what") + " " + value("detail"));
    }
    return out;
}

TEST_F(Preload, AProgramNotLinkedWithTheEmulatorPlaysVideoAndAudioAndTheTraceShowsIt) {
    write_file(platform_, kPlatform);
    auto env = configured();
    const std::string log = dir_ + "/timeline.jsonl";
    env["RUVO_EMUTV_LOG"] = log;
    Outcome r = run("play", env);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(app_lines(r.out),
              "app: main play\n"
              "app: video open -> handle\n"
              "app: first frame -> 0\n"
              "app: 100 frames, 0 failed\n"
              "app: video close\n"
              "app: audio open -> handle\n"
              "app: audio setup -> 0\n"
              "app: audio start -> 0\n"
              "app: 40 blocks of 4096 bytes, 0 failed\n"
              "app: audio stop -> 0\n"
              "app: audio close\n");
    std::vector<std::string> trace = split_lines(read_file(trace_));
    expect_numbered_from_one(trace);
    // The panel of the platform file, as the connector reports it.
    EXPECT_EQ(count_containing(trace, "DRM_IOCTL_MODE_GETCONNECTOR"),
              count_containing(trace, "mm_width=1366"));
    EXPECT_GE(count_containing(trace, "mm_height=768 mm_width=1366"), 1u);
    // One source request per frame, the first frame's and the 100 pushed, each with its
    // display index; the close's detaches the source.
    EXPECT_EQ(count_containing(trace, "DRM_IOCTL_SDP_SET_DP_SOURCE"), 102u);
    for (int index = 1; index <= 101; ++index)
        EXPECT_EQ(count_containing(trace, "display_index=" + std::to_string(index) + " "), 1u) << index;
    // The audio: one write per block, opened and closed once, started and stopped once.
    EXPECT_EQ(count_containing(trace, "compr /dev/snd/comprC0D0 write fd="), 40u);
    // The app writes filler, not a compressed stream: the decoder model takes it all and
    // counts it as undecodable.
    EXPECT_EQ(count_containing(trace, " size=4096 undecodable=4096 -> 4096"), 40u);
    EXPECT_EQ(count_containing(trace, "compr /dev/snd/comprC0D0 open"), 1u);
    EXPECT_EQ(count_containing(trace, "compr /dev/snd/comprC0D0 close"), 1u);
    EXPECT_EQ(count_containing(trace, "SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(count_containing(trace, "SNDRV_COMPRESS_STOP"), 1u);
    // Every descriptor opened on an emulated device was closed again.
    size_t opens = 0, closes = 0;
    for (const auto& l : trace) {
        opens += l.find(" open flags=") != std::string::npos && l.find(" -> -1") == std::string::npos;
        closes += l.find(" close fd=") != std::string::npos;
    }
    EXPECT_EQ(opens, closes);
    EXPECT_TRUE(entries(dir_, "emutv-sandbox.").empty());
    // The timeline: the main-media source and the announced resolution on the plane, the
    // decoder's stream begun, and the close putting both gains and the rate back. (The run
    // lasts a few milliseconds, too short for a vsync to be certain.)
    std::vector<std::string> events = timeline_events(read_file(log));
    ASSERT_EQ(events.size(), 6u) << read_file(log);
    EXPECT_EQ(events[0], "source mm");
    EXPECT_EQ(events[1], "resolution 1920x1080");
    EXPECT_EQ(events[2].rfind("audio-stream tail=", 0), 0u) << events[2];
    EXPECT_EQ(events[3], "volume qvl speaker main gain=32768");
    EXPECT_EQ(events[4], "volume qvl hp main gain=32768");
    EXPECT_EQ(events[5], "speed 100");
}

TEST_F(Preload, WithoutAPlatformFileTheDefaultPlatformHasNoAudioDecoder) {
    Outcome r = run("play", {{"RUVO_EMUTV_TRACE", trace_}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("app: 100 frames, 0 failed\n"), std::string::npos);
    EXPECT_NE(r.out.find("app: audio open -> null\n"), std::string::npos);
    std::vector<std::string> trace = split_lines(read_file(trace_));
    expect_numbered_from_one(trace);
    EXPECT_EQ(count_containing(trace, "mm_width=1366"), 0u);
}

TEST_F(Preload, TheShippedExamplePlatformFileRunsWithTheBoardHal) {
    Outcome r = run("play", {{"RUVO_EMUTV", EXAMPLE_PLATFORM}, {"RUVO_EMUTV_TRACE", trace_}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(app_lines(r.out).find("app: 100 frames, 0 failed\n"), std::string::npos) << r.out;
    EXPECT_NE(app_lines(r.out).find("app: 40 blocks of 4096 bytes, 0 failed\n"), std::string::npos) << r.out;
    std::vector<std::string> trace = split_lines(read_file(trace_));
    EXPECT_GE(count_containing(trace, "hal /mtd_apexe/board/lib/libKORB3.so Hal_Video_DrmInit card=0 -> 0"),
              1u);
    EXPECT_GE(count_containing(trace, "mm_height=1080 mm_width=1920"), 1u);
}

TEST_F(Preload, AFaultInThePlatformFileFires) {
    write_file(platform_, std::string(kPlatform) + "platform fail SNDRV_COMPRESS_START EIO always\n");
    Outcome r = run("play", configured());
    ASSERT_EQ(r.status, 0) << r.err;
    // The decoder is started with the first block, which fails; the library never starts it
    // again (kept on purpose), so the decoder takes nothing: the first block and the 32 that
    // find the 32768-byte ring full (after 8 blocks) fail.
    EXPECT_NE(app_lines(r.out).find("app: 40 blocks of 4096 bytes, 33 failed\n"), std::string::npos) << r.out;
    std::vector<std::string> trace = split_lines(read_file(trace_));
    EXPECT_GE(count_containing(trace, "SNDRV_COMPRESS_START fd="), 1u);
    for (const auto& l : trace) {
        if (l.find("SNDRV_COMPRESS_START") != std::string::npos) {
            EXPECT_NE(l.find(" -> -1 (Input/output error)"), std::string::npos) << l;
        }
    }
}

TEST_F(Preload, AForkedChildWritesItsOwnTraceAndTheParentsStaysIntact) {
    write_file(platform_, kPlatform);
    Outcome r = run("fork", configured());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(app_lines(r.out),
              "app: main fork\n"
              "app: video open -> handle\n"
              "app: child audio open -> handle\n"
              "app: child exit 0\n"
              "app: video close\n");
    std::vector<std::string> parent = split_lines(read_file(trace_));
    expect_numbered_from_one(parent);
    EXPECT_EQ(count_containing(parent, "comprC0D0"), 0u);
    EXPECT_GE(count_containing(parent, "DRM_IOCTL_MODE_GETRESOURCES"), 1u);
    EXPECT_EQ(count_containing(parent, "drm /dev/dri/card0 close"), 1u);  // after the child ended
    std::vector<std::string> children = entries(dir_, "trace.");
    ASSERT_EQ(children.size(), 1u);
    std::vector<std::string> child = split_lines(read_file(dir_ + "/" + children[0]));
    EXPECT_EQ(count_containing(child, "compr /dev/snd/comprC0D0 open"), 1u);
    EXPECT_EQ(count_containing(child, "compr /dev/snd/comprC0D0 close"), 1u);
    EXPECT_EQ(count_containing(child, "DRM_IOCTL"), 0u);
    EXPECT_TRUE(entries(dir_, "emutv-sandbox.").empty());
}

TEST_F(Preload, AnExecutedChildRunsOnTheSamePlatformFileWithItsOwnTrace) {
    write_file(platform_, kPlatform);
    Outcome r = run("exec", configured());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(app_lines(r.out),
              "app: main exec\n"
              "app: video open -> handle\n"
              "app: main child\n"
              "app: child audio open -> handle\n"
              "app: child exit 0\n"
              "app: video close\n");
    std::vector<std::string> parent = split_lines(read_file(trace_));
    expect_numbered_from_one(parent);
    EXPECT_EQ(count_containing(parent, "comprC0D0"), 0u);
    std::vector<std::string> children = entries(dir_, "trace.");
    ASSERT_EQ(children.size(), 1u);
    std::vector<std::string> child = split_lines(read_file(dir_ + "/" + children[0]));
    expect_numbered_from_one(child);  // a new process: its own numbering
    EXPECT_EQ(count_containing(child, "compr /dev/snd/comprC0D0 open"), 1u);
    EXPECT_TRUE(entries(dir_, "emutv-sandbox.").empty());
}

TEST_F(Preload, TheSandboxIsRemovedWhenTheProcessIsTerminatedByASignal) {
    pid_t pid = start("wait", {});
    for (int i = 0; i < 3000 && read_file(dir_ + "/stdout").find("waiting") == std::string::npos; ++i)
        usleep(10000);
    ASSERT_EQ(entries(dir_, "emutv-sandbox.").size(), 2u);  // the sandbox and the ALSA configuration
    kill(pid, SIGTERM);
    Outcome r = finish(pid);
    EXPECT_EQ(r.status, 128 + SIGTERM);
    EXPECT_TRUE(entries(dir_, "emutv-sandbox.").empty());
}

TEST_F(Preload, AMissingPlatformFileStopsTheProcessBeforeMain) {
    Outcome r = run("play", {{"RUVO_EMUTV", dir_ + "/nope"}});
    expect_stopped_before_main(r, dir_ + "/nope: cannot read: No such file or directory");
}

TEST_F(Preload, ADirectoryAsPlatformFileStopsTheProcessBeforeMain) {
    Outcome r = run("play", {{"RUVO_EMUTV", dir_}});
    expect_stopped_before_main(r, dir_ + ": cannot read: Is a directory");
}

TEST_F(Preload, AnUnknownKeyStopsTheProcessBeforeMain) {
    write_file(platform_, "platform panel 1920 1080\nplatform panel 1920 1080 depth=10\n");
    Outcome r = run("play", {{"RUVO_EMUTV", platform_}, {"RUVO_EMUTV_TRACE", trace_}});
    expect_stopped_before_main(r, platform_ + ":2: platform panel: unknown argument 'depth' (expected w, h)");
    EXPECT_FALSE(std::ifstream(trace_).good());  // nothing was configured, nothing traced
}

TEST_F(Preload, ABadNumberStopsTheProcessBeforeMain) {
    write_file(platform_, "\n# refresh\nplatform vsync 59,94\n");
    Outcome r = run("play", {{"RUVO_EMUTV", platform_}});
    expect_stopped_before_main(r,
                               platform_ +
                                   ":3: platform vsync: expected a rate in Hz (e.g. 50, 59.94 or 60) for hz, "
                                   "got '59,94'");
}

TEST_F(Preload, AnUnknownRequestNameStopsTheProcessBeforeMain) {
    write_file(platform_, "platform fail DRM_IOCTL_MODE_SETPLAN EBUSY always\n");
    Outcome r = run("play", {{"RUVO_EMUTV", platform_}});
    expect_stopped_before_main(
        r, platform_ +
               ":1: platform fail: unknown request 'DRM_IOCTL_MODE_SETPLAN' (expected a request the emulator "
               "records (e.g. DRM_IOCTL_MODE_SETPLANE, FR2IP_SetPTS, SNDRV_COMPRESS_START, write, "
               "pthread_create) "
               "or open:PATH / close:PATH of an emulated device node)");
}

TEST_F(Preload, ALineOtherThanAPlatformLineStopsTheProcessBeforeMain) {
    write_file(platform_, "video open\n");
    Outcome r = run("play", {{"RUVO_EMUTV", platform_}});
    expect_stopped_before_main(r,
                               platform_ +
                                   ":1: expected a 'platform ...' line (absent, present, compr-device, fail, "
                                   "status, clear-faults, panel, hal, vsync, vsync-offset, decoder-frames, "
                                   "dolby-rewrite, broadcast, compr, logmask, drm-empty, crtc, encoder, "
                                   "connector, plane), got 'video'");
}

TEST_F(Preload, AnUnwritableTracePathStopsTheProcessBeforeMain) {
    Outcome r = run("play", {{"RUVO_EMUTV_TRACE", dir_ + "/no/such/dir/trace"}});
    expect_stopped_before_main(r, dir_ + "/no/such/dir/trace: cannot write: No such file or directory");
}

}  // namespace
