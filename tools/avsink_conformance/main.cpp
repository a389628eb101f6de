// avsink-conformance: playback conformance of the TV's GStreamer sinks on the emulated TV.
#include <gst/gst.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "conformance.h"

using namespace conformance;

namespace {

const char kUsage[] =
    "Usage: avsink-conformance [OPTIONS] SCENARIO...\n"
    "       avsink-conformance --make-media [--media DIR]\n"
    "       avsink-conformance --help\n"
    "\n"
    "Plays each scenario through playbin with ruvovideosink and ruvoaudiosink on the emulated\n"
    "TV (libemutv preloaded, real time, a 50 Hz panel), then computes the figures from the\n"
    "emulator's timeline: A/V offset, POSITION against the panel, seek landing, first-frame\n"
    "latency, dropped and repeated frames, CPU per frame against fakevideosink/fakesink, memory\n"
    "and descriptors across storms. Writes OUT/conformance.md and OUT/SCENARIO-*.svg.\n"
    "\n"
    "Options:\n"
    "  --out DIR            report, timelines and traces (default out/conformance)\n"
    "  --media DIR          where the generated clips are kept (default out/media)\n"
    "  --platform FILE      the emulated TV's platform file (default: the 50 Hz panel)\n"
    "  --emutv LIB          libemutv.so to preload (default: the build's)\n"
    "  --plugin-path DIR    where the ruvo GStreamer plugin is (default: the build's)\n"
    "  --video-sink NAME    video sink element (default ruvovideosink)\n"
    "  --audio-sink NAME    audio sink element (default ruvoaudiosink)\n"
    "  --no-fake-baseline   do not play the compare-fake scenarios again with the fake sinks\n"
    "  --playbin3           play through playbin3, its decodebin told to stop at what the\n"
    "                       audio sink takes (compressed audio)\n"
    "  --quiet              no progress lines\n"
    "  --check              check the scenario files only\n"
    "\n"
    "Exit status: 0 every goal met; 1 a figure missed its goal (listed in the report and on\n"
    "standard error); 2 bad command line or scenario; 3 a run failed (a bus error, a state\n"
    "change that did not complete, no timeline).\n\n";

struct Options {
    RunOptions run;
    std::string out = "out/conformance";
    std::string platform = RUVO_CONFORMANCE_PLATFORM;
    std::string emutv = RUVO_CONFORMANCE_EMUTV;
    std::string plugin_path = RUVO_CONFORMANCE_PLUGIN_DIR;
    bool fake_baseline = true;
    std::string run_one, samples;  // internal: play one scenario in this process
    bool make_media = false;
    bool check = false;
    std::vector<std::string> scenarios;
};

int usage_error(const std::string& msg) {
    fprintf(stderr, "avsink-conformance: %s\n%s", msg.c_str(), kUsage);
    return 2;
}

bool parse_args(int argc, char** argv, Options* o, int* status) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string* dst) {
            if (i + 1 >= argc)
                return false;
            *dst = argv[++i];
            return true;
        };
        bool ok = true;
        if (a == "-h" || a == "--help") {
            fputs(kUsage, stdout);
            fputs(scenario_grammar(), stdout);
            *status = 0;
            return false;
        } else if (a == "--out") {
            ok = value(&o->out);
        } else if (a == "--media") {
            ok = value(&o->run.media_dir);
        } else if (a == "--platform") {
            ok = value(&o->platform);
        } else if (a == "--emutv") {
            ok = value(&o->emutv);
        } else if (a == "--plugin-path") {
            ok = value(&o->plugin_path);
        } else if (a == "--video-sink") {
            ok = value(&o->run.video_sink);
        } else if (a == "--audio-sink") {
            ok = value(&o->run.audio_sink);
        } else if (a == "--no-fake-baseline") {
            o->fake_baseline = false;
        } else if (a == "--playbin3") {
            o->run.playbin3 = true;
        } else if (a == "--quiet") {
            o->run.quiet = true;
        } else if (a == "--check") {
            o->check = true;
        } else if (a == "--make-media") {
            o->make_media = true;
        } else if (a == "--run-one") {
            ok = value(&o->run_one);
        } else if (a == "--samples") {
            ok = value(&o->samples);
        } else if (!a.empty() && a[0] == '-') {
            *status = usage_error("unknown option " + a);
            return false;
        } else {
            o->scenarios.push_back(a);
        }
        if (!ok) {
            *status = usage_error(a + " needs a value");
            return false;
        }
    }
    if (o->scenarios.empty() && o->run_one.empty() && !o->make_media) {
        *status = usage_error("no scenario");
        return false;
    }
    return true;
}

// Plays one scenario in this process (the child, preloaded) and writes its samples.
int run_one(const Options& o) {
    Scenario s;
    std::string error;
    if (!parse_scenario(o.run_one, &s, &error))
        return usage_error(error);
    RunResult r = run_scenario(s, o.run);
    if (!write_samples(o.samples, r)) {
        fprintf(stderr, "avsink-conformance: %s: cannot write\n", o.samples.c_str());
        return 1;
    }
    return r.ok ? 0 : 1;
}

constexpr int kChildLimitMs = 240000;

// Runs this program again on one scenario; with `emulated`, on the preloaded emulated TV.
bool run_child(const char* self, const Options& o, const Scenario& s, bool emulated,
               const std::string& samples) {
    std::string timeline = o.out + "/" + s.name + ".timeline.jsonl";
    std::string trace = o.out + "/" + s.name + ".trace";
    std::vector<std::string> args = {self,    "--run-one", s.path,         "--samples",
                                     samples, "--media",   o.run.media_dir};
    if (o.run.quiet)
        args.push_back("--quiet");
    if (o.run.playbin3)
        args.push_back("--playbin3");
    args.insert(args.end(), {"--video-sink", emulated ? o.run.video_sink : "fakevideosink", "--audio-sink",
                             emulated ? o.run.audio_sink : "fakesink"});
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        // The library's and the elements' own lines go to NAME.log beside the timeline.
        std::string log = o.out + "/" + s.name + (emulated ? ".log" : ".fake.log");
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            close(fd);
        }
        if (emulated) {
            setenv("LD_PRELOAD", o.emutv.c_str(), 1);
            setenv("RUVO_EMUTV", o.platform.c_str(), 1);
            setenv("RUVO_EMUTV_LOG", timeline.c_str(), 1);
            setenv("RUVO_EMUTV_TRACE", trace.c_str(), 1);
        }
        std::string path = o.plugin_path;
        if (const char* old = getenv("GST_PLUGIN_PATH"))
            path += std::string(":") + old;
        setenv("GST_PLUGIN_PATH", path.c_str(), 1);
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(self, argv.data());
        _exit(127);
    }
    // A run that hangs (a pipeline that never finishes a state change or a switch) is ended.
    int st = 0;
    for (int waited_ms = 0;; waited_ms += 100) {
        pid_t done = waitpid(pid, &st, WNOHANG);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            return false;
        if (waited_ms >= kChildLimitMs) {
            fprintf(stderr, "avsink-conformance: %s: no end after %d s, stopped\n", s.name.c_str(),
                    kChildLimitMs / 1000);
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            return false;
        }
        usleep(100000);
    }
    return WIFEXITED(st) && WEXITSTATUS(st) <= 1;
}

int conform(const char* self, const Options& o) {
    std::vector<Scenario> scenarios;
    for (const std::string& p : o.scenarios) {
        Scenario s;
        std::string error;
        if (!parse_scenario(p, &s, &error)) {
            fprintf(stderr, "%s\n", error.c_str());
            return 2;
        }
        scenarios.push_back(s);
    }
    if (o.check)
        return 0;
    mkdir("out", 0755);
    mkdir(o.out.c_str(), 0755);
    int status = 0;
    std::vector<Figures> all;
    for (const Scenario& s : scenarios) {
        std::string error;
        if (make_clip(o.run.media_dir, s.media, &error).empty()) {
            fprintf(stderr, "avsink-conformance: %s\n", error.c_str());
            return 1;
        }
        std::string samples = o.out + "/" + s.name + ".samples";
        RunResult r, fake;
        Timeline tl;
        bool ran = run_child(self, o, s, true, samples) && read_samples(samples, &r);
        bool faked = o.fake_baseline && s.compare_fake && run_child(self, o, s, false, samples + ".fake") &&
                     read_samples(samples + ".fake", &fake);
        if (!ran || !read_timeline(o.out + "/" + s.name + ".timeline.jsonl", &tl, &error)) {
            fprintf(stderr, "avsink-conformance: %s: the run failed%s%s\n", s.name.c_str(),
                    error.empty() ? "" : ": ", error.c_str());
            status = 1;
            continue;
        }
        Figures f = compute_figures(s, r, tl, faked ? &fake : nullptr);
        check_goals(s, &f);
        for (auto& e : r.errors)
            f.missed.push_back("error: " + e);
        for (auto& m : f.missed)
            fprintf(stderr, "avsink-conformance: %s: %s\n", s.name.c_str(), m.c_str());
        if (!f.missed.empty())
            status = 1;
        all.push_back(f);
    }
    std::string error;
    if (!write_report(o.out, all, &error)) {
        fprintf(stderr, "avsink-conformance: %s\n", error.c_str());
        return 1;
    }
    printf("report: %s/conformance.md\n", o.out.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int status = 0;
    if (!parse_args(argc, argv, &o, &status))
        return status;
    gst_init(nullptr, nullptr);
    if (!o.run_one.empty())
        return run_one(o);
    if (o.make_media) {
        std::string error;
        for (const Clip& c : clips())
            if (make_clip(o.run.media_dir, c.name, &error).empty()) {
                fprintf(stderr, "avsink-conformance: %s\n", error.c_str());
                return 1;
            }
        return 0;
    }
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return 1;
    self[n] = '\0';
    return conform(self, o);
}
