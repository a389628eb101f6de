// avsink-probe (on the TV, linked to the shipped library) and avsink-probe-emulated
// (the same program on the emulated TV platform, built with AVSINK_PROBE_EMULATED).
#include <stdio.h>
#include <string.h>

#include <string>

#include "probe.h"

#ifdef AVSINK_PROBE_EMULATED
#include "emutv/emutv.h"
#endif

int main(int argc, char** argv) {
    avsink_probe::ProbeOptions opt;
    bool trace = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            printf("%s", avsink_probe::probe_usage());
#ifdef AVSINK_PROBE_EMULATED
            printf(
                "\nThis is the emulated variant: it runs on the emulated TV platform in its power-on\n"
                "state. --trace prints every driver request as it happens (\"trace: ...\"); a last\n"
                "line counts the requests that would change what the viewer sees (all 0).\n");
#endif
            return 0;
        } else if (a == "--card" && i + 1 < argc) {
            opt.card = argv[++i];
        } else if (a == "--no-mixer") {
            opt.mixer = false;
#ifdef AVSINK_PROBE_EMULATED
        } else if (a == "--trace") {
            trace = true;
#endif
        } else {
            fprintf(stderr, "avsink-probe: unknown argument '%s' (see --help)\n", a.c_str());
            return 2;
        }
    }
#ifdef AVSINK_PROBE_EMULATED
    // Requests that would change what the viewer sees or hears.
    static size_t changing = 0;
    static bool print_trace = false;
    print_trace = trace;
    emutv::platform().reset();
    emutv::platform().set_listener([](const emutv::Event& e) {
        const std::string& n = e.name;
        if (n == "DRM_IOCTL_MODE_SETPLANE" || n == "DRM_IOCTL_SDP_SET_DP_SOURCE" ||
            n == "DRM_IOCTL_SDP_SET_ONOFF" || n == "write" || n.compare(0, 9, "FR2IP_Set") == 0 ||
            n.find("ELEM_WRITE") != std::string::npos || n == "DOLBY_IOC_SET_DV_PROFILE")
            ++changing;
        if (print_trace)
            printf("trace: #%llu %s\n", static_cast<unsigned long long>(e.seq), emutv::describe(e).c_str());
    });
#else
    (void)trace;
#endif
    int status = avsink_probe::run_probe(opt);
#ifdef AVSINK_PROBE_EMULATED
    emutv::platform().set_listener(nullptr);
    printf("probe: emulated requests: %zu, changing what the viewer sees or hears: %zu\n",
           emutv::platform().total_requests(), changing);
#endif
    return status;
}
