// avsink-probe: a read-only report of what the AV sink library would find on this machine.
#pragma once

#include <string>
#include <vector>

#include "json.h"

namespace avsink_probe {

struct ProbeOptions {
    std::string card = "default";  // ALSA control device whose mixer controls are listed
    bool mixer = true;
    bool json = false;  // no "probe: " lines; the caller prints the report
    // Compressed-offload nodes to look at besides the "comprC*" entries of compr_dir.
    std::vector<std::string> compr_paths;
    std::string compr_dir = "/dev/snd";
    std::string tool = "avsink-probe";
};

// Runs every section; each stands on its own, so a failure in one does not stop the
// others. Prints "probe: " lines unless options.json is set, and fills *report when given.
// Returns 0 when the library opened a video output, 1 when it did not.
int run_probe(const ProbeOptions& options, Json* report = nullptr);

const char* probe_usage();

// The four controls the library writes on the card "default".
const std::vector<std::string>& library_mixer_controls();

}  // namespace avsink_probe
