// Configuration from the environment, for a process that loads the emulator with
// LD_PRELOAD as much as for one linked with it:
//
//   RUVO_EMUTV=FILE        the platform, in `platform ...` lines (emutv/lines.h)
//   RUVO_EMUTV_TRACE=FILE  one line per request: "#SEQ <describe()>"
//
// Both are read before main. A file that cannot be used stops the process with one line
// on standard error and exit status 2; the platform is never half configured.
//
// Children. A forked child keeps a copy of the device state (its emulated descriptors
// stay valid, as a kernel's would) and writes its requests to FILE.<pid>, never into the
// parent's trace. A program that execs starts again from its environment: the same
// process (exec without fork) appends to FILE, a child writes FILE.<pid>. Emulated
// descriptors are closed on exec.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core.h"
#include "emutv/emutv.h"
#include "emutv/lines.h"

namespace emutv {
namespace detail {

namespace {

const char kTraceOwnerVar[] = "RUVO_EMUTV_TRACE_PID";

[[noreturn]] void stop_before_main(const std::string& line) {
    std::string text = "emutv: " + line + "\n";
    sys_write(2, text.data(), text.size());
    _exit(2);
}

bool is_regular_file(const std::string& path, std::string* error) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        *error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        *error = path + ": cannot read: " + strerror(EISDIR);
        return false;
    }
    return true;
}

void configure_platform_from_file() {
    const char* path = getenv("RUVO_EMUTV");
    if (path == nullptr)
        return;
    std::string error;
    std::vector<lines::PlatformLine> parsed;
    if (!is_regular_file(path, &error) || !lines::load_platform_file(path, &parsed, &error))
        stop_before_main(error);
    for (const auto& line : parsed)
        lines::apply_platform_line(platform(), line);
}

// FILE for the process that owns the trace, FILE.<pid> for any other.
std::string trace_path_for_this_process(const std::string& base, bool* append) {
    const char* owner = getenv(kTraceOwnerVar);
    const std::string me = std::to_string(getpid());
    *append = owner != nullptr && me == owner;
    if (owner == nullptr || *append)
        return base;
    return base + "." + me;
}

int open_trace_file(const std::string& path, bool append) {
    return sys_open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0644);
}

void open_trace_from_environment() {
    const char* base = getenv("RUVO_EMUTV_TRACE");
    if (base == nullptr)
        return;
    bool append = false;
    std::string path = trace_path_for_this_process(base, &append);
    int fd = open_trace_file(path, append);
    if (fd < 0)
        stop_before_main(path + ": cannot write: " + strerror(errno));
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.trace_base = base;
    c.trace_fd = fd;
    if (getenv(kTraceOwnerVar) == nullptr)
        setenv(kTraceOwnerVar, std::to_string(getpid()).c_str(), 1);
}

// ---- fork ---------------------------------------------------------------------------------

void before_fork() {
    core().mu.lock();
}

void after_fork_in_parent() {
    core().mu.unlock();
}

void after_fork_in_child() {
    auto& c = core();
    if (c.trace_fd >= 0) {
        sys_close(c.trace_fd);
        c.trace_fd = -1;
        c.trace_pending_child = true;  // FILE.<pid>, opened at the child's first request
    }
    // The forking thread took the lock before fork() (the state it guards is consistent)
    // and is the child's only thread, still its owner.
    c.mu.unlock();
}

// ---- signals ------------------------------------------------------------------------------

const int kCleanupSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

void remove_sandbox_and_die(int sig) {
    remove_sandbox_now();
    signal(sig, SIG_DFL);
    raise(sig);
}

void install_signal_cleanup() {
    for (int sig : kCleanupSignals) {
        struct sigaction old;
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_DFL && !(old.sa_flags & SA_SIGINFO))
            signal(sig, remove_sandbox_and_die);
    }
}

}  // namespace

void install_process_handlers() {
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    install_signal_cleanup();
}

void write_trace_line(Core& c, const Event& ev) {
    if (c.trace_pending_child) {
        c.trace_pending_child = false;
        c.trace_fd = open_trace_file(c.trace_base + "." + std::to_string(getpid()), false);
    }
    if (c.trace_fd < 0)
        return;
    std::string line = "#" + std::to_string(ev.seq) + " " + describe(ev) + "\n";
    sys_write(c.trace_fd, line.data(), line.size());
}

}  // namespace detail
}  // namespace emutv

namespace {

// Loaded by LD_PRELOAD into a program that never reads the record: the trace file is the
// record, and memory stays flat however long the program runs.
bool preloaded() {
    const char* preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, "libemutv") != nullptr;
}

__attribute__((constructor)) void emutv_configure_from_environment() {
    emutv::detail::Inside inside;
    emutv::detail::core();
    if (preloaded())
        emutv::platform().set_recording(false);
    emutv::detail::configure_platform_from_file();
    emutv::detail::open_trace_from_environment();
}

}  // namespace
