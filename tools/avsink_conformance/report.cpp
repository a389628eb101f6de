// The report: a Markdown table of the figures and, per scenario, two SVG plots (A/V offset
// over time, frame pacing against vsync) with labelled axes.
#include <stdio.h>

#include <algorithm>

#include "conformance.h"

namespace conformance {
namespace {

std::string fmt(const char* f, double v) {
    char b[64];
    snprintf(b, sizeof b, f, v);
    return b;
}

// The largest landing error, and how many seeks never showed their first frame.
std::string seek_landing_cell(const Figures& f) {
    std::string cell = fmt("%.1f", f.seek_landing_max_ms);
    if (f.seeks_unlanded > 0)
        cell += " (" + std::to_string(f.seeks_unlanded) + " not shown)";
    return cell;
}

// A line plot of (x, y) points; the y range always includes the goal band [-band, band].
std::string svg_plot(const std::string& title, const std::string& y_unit,
                     const std::vector<std::pair<double, double>>& pts, double band) {
    const double W = 720, H = 240, L = 60, R = 20, T = 30, B = 40;
    double x_max = 1, y_min = -band, y_max = band;
    for (auto& p : pts) {
        x_max = std::max(x_max, p.first);
        y_min = std::min(y_min, p.second);
        y_max = std::max(y_max, p.second);
    }
    if (y_max - y_min < 1e-9)
        y_max = y_min + 1;
    auto X = [&](double x) { return L + (W - L - R) * x / x_max; };
    auto Y = [&](double y) { return T + (H - T - B) * (y_max - y) / (y_max - y_min); };
    std::string s = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + fmt("%.0f", W) + "\" height=\"" +
                    fmt("%.0f", H) + "\" font-family=\"sans-serif\" font-size=\"11\">\n";
    s += "<text x=\"" + fmt("%.0f", L) + "\" y=\"18\" font-size=\"13\">" + title + "</text>\n";
    if (band > 0)
        s += "<rect class=\"goal\" x=\"" + fmt("%.1f", L) + "\" y=\"" + fmt("%.1f", Y(band)) + "\" width=\"" +
             fmt("%.1f", W - L - R) + "\" height=\"" + fmt("%.1f", Y(-band) - Y(band)) +
             "\" fill=\"#e8f5e9\"/>\n";
    s += "<line x1=\"" + fmt("%.0f", L) + "\" y1=\"" + fmt("%.0f", H - B) + "\" x2=\"" + fmt("%.0f", W - R) +
         "\" y2=\"" + fmt("%.0f", H - B) + "\" stroke=\"#000\"/>\n";
    s += "<line x1=\"" + fmt("%.0f", L) + "\" y1=\"" + fmt("%.0f", T) + "\" x2=\"" + fmt("%.0f", L) +
         "\" y2=\"" + fmt("%.0f", H - B) + "\" stroke=\"#000\"/>\n";
    for (int i = 0; i <= 5; ++i) {
        double x = x_max * i / 5, y = y_min + (y_max - y_min) * i / 5;
        s += "<text x=\"" + fmt("%.1f", X(x)) + "\" y=\"" + fmt("%.0f", H - B + 14) +
             "\" text-anchor=\"middle\">" + fmt("%.1f", x) + "</text>\n";
        s += "<text x=\"" + fmt("%.0f", L - 4) + "\" y=\"" + fmt("%.1f", Y(y) + 4) +
             "\" text-anchor=\"end\">" + fmt("%.1f", y) + "</text>\n";
    }
    s += "<text x=\"" + fmt("%.0f", (L + W - R) / 2) + "\" y=\"" + fmt("%.0f", H - 6) +
         "\" text-anchor=\"middle\">time (s)</text>\n";
    s += "<text x=\"14\" y=\"" + fmt("%.0f", (T + H - B) / 2) + "\" transform=\"rotate(-90 14 " +
         fmt("%.0f", (T + H - B) / 2) + ")\" text-anchor=\"middle\">" + y_unit + "</text>\n";
    s += "<g class=\"points\" fill=\"#1565c0\">\n";
    for (auto& p : pts)
        s += "<circle cx=\"" + fmt("%.1f", X(p.first)) + "\" cy=\"" + fmt("%.1f", Y(p.second)) +
             "\" r=\"1.2\"/>\n";
    s += "</g>\n</svg>\n";
    return s;
}

bool write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f)
        return false;
    fputs(text.c_str(), f);
    return fclose(f) == 0;
}

}  // namespace

bool write_report(const std::string& dir, const std::vector<Figures>& figures, std::string* error) {
    std::string md =
        "| Scenario | A/V p50 / p99 / max (ms) | POSITION ahead max (ms) | POSITION error p99 (ms) | Seek "
        "landing max "
        "(ms) | First frame (vsyncs) | Dropped / repeated | CPU ratio | RSS / fd growth | Goals |\n"
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|---|\n";
    for (const Figures& f : figures) {
        md += "| " + f.scenario + " | " + fmt("%.1f", f.av_p50_ms) + " / " + fmt("%.1f", f.av_p99_ms) +
              " / " + fmt("%.1f", f.av_max_ms) + " | " + fmt("%.1f", f.position_ahead_max_ms) + " | " +
              fmt("%.1f", f.position_error_p99_ms) + " | " + seek_landing_cell(f) + " | " +
              (f.first_frame_vsyncs < 0 ? std::string("-") : fmt("%.2f", f.first_frame_vsyncs)) + " | " +
              std::to_string(f.dropped) + " / " + std::to_string(f.repeated) + " | " +
              (f.cpu_ratio > 0 ? fmt("%.2f", f.cpu_ratio) : std::string("-")) + " | " +
              std::to_string(f.rss_growth_kib) + " KiB / " + std::to_string(f.fd_growth) + " | ";
        if (f.missed.empty()) {
            md += "met";
        } else {
            for (size_t i = 0; i < f.missed.size(); ++i)
                md += (i ? "; " : "missed: ") + f.missed[i];
        }
        md += " |\n";
        if (!write_file(dir + "/" + f.scenario + "-av-offset.svg",
                        svg_plot(f.scenario + ": A/V offset (video - audio) at each vsync", "offset (ms)",
                                 f.av_series, 20)) ||
            !write_file(
                dir + "/" + f.scenario + "-pacing.svg",
                svg_plot(f.scenario + ": vsyncs each frame stayed on the panel", "vsyncs", f.pacing, 0)))
            return *error = dir + ": cannot write the plots", false;
    }
    if (!write_file(dir + "/conformance.md", md))
        return *error = dir + "/conformance.md: cannot write", false;
    return true;
}

}  // namespace conformance
