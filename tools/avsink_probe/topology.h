// Sets the emulated DRM device up with the topology of a probe report, so that the probe
// on the emulated platform can be compared with the probe on another machine.
#pragma once

#include <string>

#include "json.h"

namespace avsink_probe {

// Reads the "drm_topology" section of a report (CRTCs, connectors, encoders, planes and
// their properties) into emutv::platform().drm(). Returns false with a reason when the
// section is missing or the device was not open when the report was made.
bool apply_topology(const Json& report, std::string* error);

// The same, from a report file.
bool apply_topology_file(const std::string& path, std::string* error);

}  // namespace avsink_probe
