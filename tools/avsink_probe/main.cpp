// avsink-probe (on the TV, linked to the shipped library) and avsink-probe-emulated
// (the same program on the emulated TV platform, built with AVSINK_PROBE_EMULATED).
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "probe.h"

#ifdef AVSINK_PROBE_EMULATED
#include "emutv/emutv.h"
#include "topology.h"
#endif

namespace {

// In --json mode the report alone goes to standard output: the library's own lines are
// sent to standard error until the report is written.
class JsonStdout {
  public:
    JsonStdout() {
        fflush(stdout);
        saved_ = dup(1);
        dup2(2, 1);
    }
    void write_report(const avsink_probe::Json& report) {
        fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
        fputs(report.pretty().c_str(), stdout);
        fflush(stdout);
    }

  private:
    int saved_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
    avsink_probe::ProbeOptions opt;
    bool trace = false;
    std::string topology;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            printf("%s", avsink_probe::probe_usage());
#ifdef AVSINK_PROBE_EMULATED
            printf(
                "\nThis is the emulated variant: it runs on the emulated TV platform in its power-on\n"
                "state. --trace prints every driver request as it happens (\"trace: ...\"); a last\n"
                "line counts the requests that would change what the viewer sees (all 0).\n"
                "--topology FILE sets the emulated DRM device up with the \"drm_topology\" section\n"
                "of a --json report made elsewhere (CRTCs, connectors, encoders, planes and their\n"
                "properties), so that the two reports can be compared.\n");
#endif
            return 0;
        } else if (a == "--card" && i + 1 < argc) {
            opt.card = argv[++i];
        } else if (a == "--no-mixer") {
            opt.mixer = false;
        } else if (a == "--json") {
            opt.json = true;
        } else if (a == "--compr" && i + 1 < argc) {
            opt.compr_paths.push_back(argv[++i]);
#ifdef AVSINK_PROBE_EMULATED
        } else if (a == "--trace") {
            trace = true;
        } else if (a == "--topology" && i + 1 < argc) {
            topology = argv[++i];
#endif
        } else {
            fprintf(stderr, "avsink-probe: unknown argument '%s' (see --help)\n", a.c_str());
            return 2;
        }
    }
#ifdef AVSINK_PROBE_EMULATED
    opt.tool = "avsink-probe-emulated";
    // Requests that would change what the viewer sees or hears.
    static size_t changing = 0;
    static bool print_trace = false;
    print_trace = trace;
    emutv::platform().reset();
    if (!topology.empty()) {
        std::string why;
        if (!avsink_probe::apply_topology_file(topology, &why)) {
            fprintf(stderr, "avsink-probe: --topology: %s\n", why.c_str());
            return 2;
        }
    }
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
    std::unique_ptr<JsonStdout> json(opt.json ? new JsonStdout() : nullptr);
    avsink_probe::Json report;
    int status = avsink_probe::run_probe(opt, &report);
#ifdef AVSINK_PROBE_EMULATED
    emutv::platform().set_listener(nullptr);
    if (json)
        report.set("emulated",
                   avsink_probe::Json::object()
                       .set("requests", avsink_probe::Json::integer(
                                            static_cast<long long>(emutv::platform().total_requests())))
                       .set("changing", avsink_probe::Json::integer(static_cast<long long>(changing))));
    else
        printf("probe: emulated requests: %zu, changing what the viewer sees or hears: %zu\n",
               emutv::platform().total_requests(), changing);
#endif
    if (json)
        json->write_report(report);
    return status;
}
