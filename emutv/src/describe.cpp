// One-line decoding of a recorded request, for traces.
#include <stdio.h>
#include <string.h>

#include <sstream>

#include "core.h"

namespace emutv {

std::string describe(const Event& e) {
    std::ostringstream os;
    os << device_name(e.device) << ' ' << e.path << ' ' << e.name;
    if (e.fd >= 0 && e.kind != Kind::Open)
        os << " fd=" << e.fd;
    for (const auto& kv : e.text)
        os << ' ' << kv.first << "=\"" << kv.second << '"';
    for (const auto& kv : e.fields)
        os << ' ' << kv.first << '=' << kv.second;
    os << " -> " << e.result;
    if (e.result < 0 && e.err)
        os << " (" << strerror(e.err) << ')';
    return os.str();
}

}  // namespace emutv
