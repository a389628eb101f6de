// Pieces shared by the probe's sections.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "json.h"
#include <string.h>

namespace avsink_probe {

class Printer {
  public:
    explicit Printer(bool quiet) : quiet_(quiet) {}
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        if (quiet_)
            return;
        va_list ap;
        va_start(ap, fmt);
        fputs("probe: ", stdout);
        vprintf(fmt, ap);
        fputs("\n", stdout);
        va_end(ap);
    }
    void flush() {
        if (!quiet_)
            fflush(stdout);
    }

  private:
    bool quiet_;
};

inline Json errno_fields(Json obj, int err) {
    obj.set("errno", Json::integer(err));
    obj.set("error", Json::string(strerror(err)));
    return obj;
}

inline Json id_array(const uint32_t* ids, int n) {
    Json a = Json::array();
    for (int i = 0; i < n; ++i)
        a.push(Json::integer(ids[i]));
    return a;
}

inline std::string id_list(const Json& a) {
    std::string s;
    for (const auto& v : a.items())
        s += (s.empty() ? "" : ",") + std::to_string(v.as_int());
    return s.empty() ? "-" : s;
}

Json compressed_section(Printer& p, const std::string& dir, const std::vector<std::string>& extra);

}  // namespace avsink_probe
