// Start-up of the clock and the timeline log from the environment:
//   RUVO_EMUTV_CLOCK=virtual|real  the clock mode (default: real when the emulator was
//                                  loaded with LD_PRELOAD, virtual when linked in)
//   RUVO_EMUTV_LOG=<file>          the timeline log (see emutv/timeline.h)
// A log that cannot be written ends the process before main with status 2. The process
// that opens the log first truncates it and leaves RUVO_EMUTV_LOG_OWNER=<pid> in its
// environment; a process started from it (the environment inherited) appends instead,
// so that a program's helper processes never wipe its log.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "emutv/emutv.h"
#include "timeline_internal.h"

namespace {

bool preloaded() {
    const char* p = getenv("LD_PRELOAD");
    return p != nullptr && strstr(p, "libemutv") != nullptr;
}

emutv::ClockMode mode_from_environment() {
    const char* c = getenv("RUVO_EMUTV_CLOCK");
    if (c != nullptr && strcmp(c, "virtual") == 0)
        return emutv::ClockMode::Virtual;
    if (c != nullptr && strcmp(c, "real") == 0)
        return emutv::ClockMode::Real;
    return preloaded() ? emutv::ClockMode::Real : emutv::ClockMode::Virtual;
}

// The entries still due when the process ends (a real-time run produces them when asked).
void flush_timeline_at_exit() {
    emutv::platform().sync_timeline();
    emutv::platform().close_timeline_log();
}

__attribute__((constructor)) void start_clock_and_log() {
    emutv::platform().set_clock_mode(mode_from_environment());
    const char* log = getenv("RUVO_EMUTV_LOG");
    if (log == nullptr || *log == '\0')
        return;
    const char* owner = getenv("RUVO_EMUTV_LOG_OWNER");
    const bool inherited = owner != nullptr && *owner != '\0';
    std::string error;
    if (!emutv::detail::open_log(log, !inherited, &error)) {
        fprintf(stderr, "emutv: %s: cannot write: %s\n", log, error.c_str());
        _exit(2);
    }
    if (!inherited)
        setenv("RUVO_EMUTV_LOG_OWNER", std::to_string(getpid()).c_str(), 1);
    atexit(flush_timeline_at_exit);
}

}  // namespace
