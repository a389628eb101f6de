// The TV session player: runs a scenario against the library on the emulated TV
// platform, prints the library's lines, a decoded trace of every driver request and a
// summary, and draws the session as an SVG picture.
#pragma once

#include <string>

#include "scenario.h"

namespace tvsp {

struct PlayerOptions {
    std::string scenario;  // path of the scenario file
    std::string svg;       // where the picture goes; empty: "<scenario stem>.svg" in the current directory
    bool write_svg = true;
    bool trace = true;  // "trace:" lines
    bool calls = true;  // "call:" and "result:" lines
};

// Exit status: 0 every call gave its expected result; 1 a call gave another result (or
// was skipped, or the picture could not be written); 2 bad command line or scenario.
enum { kExitOk = 0, kExitMismatch = 1, kExitUsage = 2 };

// Runs a parsed scenario. The emulated platform is reset first.
int run_scenario(const Scenario& scenario, const PlayerOptions& options);

// The whole program: command line, scenario file, run.
int player_main(int argc, char** argv);

const char* player_usage();

}  // namespace tvsp
