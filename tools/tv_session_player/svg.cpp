// SVG writer of the session picture. Every element a reader or a test looks for has a
// stable class and carries the driver's own values in data-* attributes:
//   rect.panel  id="panel-K"  data-snap=K                         one panel per moment
//   rect.plane  id="plane-K"  data-snap data-t data-seq data-x data-y data-w data-h
//               data-muted data-source (and x y width height scaled into panel-K)
//   rect.state  data-from data-to data-muted                      plane shown / muted
//   rect.source data-from data-to data-port                       input port in use
//   polyline#delay-curve, circle.delay-point data-t data-frames-delay
#include "svg.h"

#include <stdio.h>

#include <algorithm>
#include <sstream>

#include "scenario.h"

namespace tvsp {

namespace {

std::string num(double v) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.2f", v);
    return buf;
}

std::string escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

const char* port_colour(int port) {
    static const char* const colours[] = {"#d9822b", "#2b6cd9", "#8a2bd9", "#2bd98a", "#d92b6c",
                                          "#6cd92b", "#2bc4d9", "#d9c42b", "#7a7a7a", "#b05a5a",
                                          "#5ab0a0", "#a05ab0", "#5a70b0", "#b0a05a", "#404040"};
    return port >= 0 && port <= 14 ? colours[port] : "#c0c0c0";
}

}  // namespace

std::string render_svg(const SessionPicture& pic) {
    const double pw = pic.panel_w > 0 ? pic.panel_w : 1920;
    const double ph = pic.panel_h > 0 ? pic.panel_h : 1080;
    const double scale = SvgLayout::kThumbWidth / pw;
    const double tw = SvgLayout::kThumbWidth;
    const double th = ph * scale;
    const int cols = SvgLayout::kColumns;
    const double m = SvgLayout::kMargin;
    const double gap = SvgLayout::kGap;
    const double cell_h = th + SvgLayout::kLabel + gap;
    const size_t n = pic.snapshots.size();
    const size_t rows = n == 0 ? 1 : (n + cols - 1) / cols;
    const double width = 2 * m + cols * tw + (cols - 1) * gap;
    const double grid_top = m + 24;
    const double band_top = grid_top + rows * cell_h + 10;
    const double band_h = 18;
    const double chart_top = band_top + 2 * (band_h + 6) + 40;
    const double chart_h = 160;
    const double height = chart_top + chart_h + 40;
    const double axis_w = width - 2 * m - 60;
    const double axis_x = m + 60;
    const int64_t end_us = std::max<int64_t>(pic.end_us, 1);
    auto tx = [&](int64_t t_us) {
        return axis_x + axis_w * static_cast<double>(t_us) / static_cast<double>(end_us);
    };

    std::ostringstream o;
    o << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(width) << "\" height=\"" << num(height)
      << "\" viewBox=\"0 0 " << num(width) << ' ' << num(height) << "\" data-panel-w=\"" << pic.panel_w
      << "\" data-panel-h=\"" << pic.panel_h << "\" data-scale=\"" << scale << "\" data-end=\""
      << format_ms(pic.end_us) << "\">\n";
    o << "<title>" << escape(pic.title) << "</title>\n";
    o << "<style>\n"
         "text{font-family:sans-serif;font-size:11px;fill:#222}\n"
         "text.heading{font-size:14px;font-weight:bold}\n"
         "rect.panel{fill:#101418;stroke:#555;stroke-width:1}\n"
         "rect.plane{stroke:#fff;stroke-width:1;fill-opacity:0.85}\n"
         "rect.plane[data-muted=\"1\"]{fill:#555 !important;fill-opacity:0.6;stroke-dasharray:3 2}\n"
         "rect.state[data-muted=\"0\"]{fill:#3a9a4a}\n"
         "rect.state[data-muted=\"1\"]{fill:#9a9a9a}\n"
         "polyline.delay{fill:none;stroke:#c0392b;stroke-width:1.5}\n"
         "circle.delay-point{fill:#c0392b}\n"
         "line.axis{stroke:#444;stroke-width:1}\n"
         "</style>\n";
    o << "<text class=\"heading\" x=\"" << num(m) << "\" y=\"" << num(m + 8) << "\">" << escape(pic.title)
      << ": video plane on the " << pic.panel_w << "x" << pic.panel_h << " panel at each change</text>\n";

    o << "<g id=\"snapshots\">\n";
    for (size_t k = 0; k < n; ++k) {
        const PlaneSnapshot& s = pic.snapshots[k];
        const double ox = m + static_cast<double>(k % cols) * (tw + gap);
        const double oy = grid_top + static_cast<double>(k / cols) * cell_h;
        o << "<g class=\"snapshot\" id=\"snap-" << k << "\" data-t=\"" << format_ms(s.t_us) << "\">\n";
        o << "<clipPath id=\"clip-" << k << "\"><rect x=\"" << num(ox) << "\" y=\"" << num(oy)
          << "\" width=\"" << num(tw) << "\" height=\"" << num(th) << "\"/></clipPath>\n";
        o << "<rect class=\"panel\" id=\"panel-" << k << "\" data-snap=\"" << k << "\" x=\"" << num(ox)
          << "\" y=\"" << num(oy) << "\" width=\"" << num(tw) << "\" height=\"" << num(th) << "\"/>\n";
        if (s.has_rect) {
            o << "<rect class=\"plane\" id=\"plane-" << k << "\" data-snap=\"" << k << "\" data-t=\""
              << format_ms(s.t_us) << "\" data-seq=\"" << s.seq << "\" data-x=\"" << s.x << "\" data-y=\""
              << s.y << "\" data-w=\"" << s.w << "\" data-h=\"" << s.h << "\" data-muted=\""
              << (s.muted ? 1 : 0) << "\" data-source=\"" << s.port << "\" x=\"" << num(ox + s.x * scale)
              << "\" y=\"" << num(oy + s.y * scale) << "\" width=\"" << num(s.w * scale) << "\" height=\""
              << num(s.h * scale) << "\" clip-path=\"url(#clip-" << k
              << ")\" style=\"fill:" << port_colour(s.port) << "\"/>\n";
        }
        o << "<text class=\"snap-label\" x=\"" << num(ox) << "\" y=\"" << num(oy + th + 12)
          << "\">t=" << format_ms(s.t_us) << " ms " << (s.port >= 0 ? port_name(s.port) : "no source")
          << (s.muted ? " muted" : " shown") << "</text>\n";
        o << "<text class=\"snap-call\" x=\"" << num(ox) << "\" y=\"" << num(oy + th + 24) << "\">"
          << escape(s.call) << "</text>\n";
        o << "</g>\n";
    }
    if (n == 0)
        o << "<text x=\"" << num(m) << "\" y=\"" << num(grid_top + 14)
          << "\">the video plane was never programmed</text>\n";
    o << "</g>\n";

    // Plane state and source along the time axis.
    o << "<g id=\"timeline\">\n";
    o << "<text x=\"" << num(m) << "\" y=\"" << num(band_top + 13) << "\">plane</text>\n";
    o << "<text x=\"" << num(m) << "\" y=\"" << num(band_top + band_h + 6 + 13) << "\">source</text>\n";
    bool muted = true;
    int port = -1;
    int64_t from = 0;
    int64_t src_from = 0;
    // A state that only began at the last moment still gets a sliver of the axis.
    auto span = [&](int64_t a, int64_t b) { return std::max(tx(b) - tx(a), 3.0); };
    auto state_rect = [&](int64_t a, int64_t b, bool is_muted, bool last) {
        if (b < a || (b == a && !last))
            return;
        o << "<rect class=\"state\" data-from=\"" << format_ms(a) << "\" data-to=\"" << format_ms(b)
          << "\" data-muted=\"" << (is_muted ? 1 : 0) << "\" x=\"" << num(tx(a)) << "\" y=\"" << num(band_top)
          << "\" width=\"" << num(span(a, b)) << "\" height=\"" << num(band_h) << "\"/>\n";
    };
    auto source_rect = [&](int64_t a, int64_t b, int p, bool last) {
        if (b < a || (b == a && !last) || p < 0)
            return;
        double y = band_top + band_h + 6;
        o << "<rect class=\"source\" data-from=\"" << format_ms(a) << "\" data-to=\"" << format_ms(b)
          << "\" data-port=\"" << p << "\" x=\"" << num(tx(a)) << "\" y=\"" << num(y) << "\" width=\""
          << num(span(a, b)) << "\" height=\"" << num(band_h) << "\" style=\"fill:" << port_colour(p)
          << "\"/>\n";
        o << "<text x=\"" << num(tx(a) + 3) << "\" y=\"" << num(y + 13) << "\" style=\"fill:#fff\">"
          << port_name(p) << "</text>\n";
    };
    for (const PlaneSnapshot& s : pic.snapshots) {
        bool shown_before = !muted;
        bool shown_now = !s.muted && s.has_rect;
        if (shown_now != shown_before) {
            state_rect(from, s.t_us, !shown_before, false);
            from = s.t_us;
            muted = !shown_now;
        }
        if (s.port != port) {
            source_rect(src_from, s.t_us, port, false);
            src_from = s.t_us;
            port = s.port;
        }
    }
    state_rect(from, pic.end_us, muted, true);
    source_rect(src_from, pic.end_us, port, true);
    o << "</g>\n";

    // Audio delay.
    uint32_t max_delay = 1;
    for (const DelaySample& d : pic.delays)
        max_delay = std::max(max_delay, d.frames_delay);
    auto ty = [&](uint32_t v) { return chart_top + chart_h - chart_h * static_cast<double>(v) / max_delay; };
    o << "<g id=\"audio-delay\" data-max-frames-delay=\"" << max_delay << "\">\n";
    o << "<text class=\"heading\" x=\"" << num(m) << "\" y=\"" << num(chart_top - 12)
      << "\">audio delay (frames_delay of get_info)</text>\n";
    o << "<line class=\"axis\" x1=\"" << num(axis_x) << "\" y1=\"" << num(chart_top + chart_h) << "\" x2=\""
      << num(axis_x + axis_w) << "\" y2=\"" << num(chart_top + chart_h) << "\"/>\n";
    o << "<line class=\"axis\" x1=\"" << num(axis_x) << "\" y1=\"" << num(chart_top) << "\" x2=\""
      << num(axis_x) << "\" y2=\"" << num(chart_top + chart_h) << "\"/>\n";
    o << "<text x=\"" << num(m) << "\" y=\"" << num(chart_top + 4) << "\">" << max_delay << "</text>\n";
    o << "<text x=\"" << num(m) << "\" y=\"" << num(chart_top + chart_h) << "\">0</text>\n";
    int64_t step_ms = 1000;
    while (end_us / 1000 / step_ms > 12)
        step_ms *= 2;
    for (int64_t t = 0; t <= end_us / 1000; t += step_ms)
        o << "<text x=\"" << num(tx(t * 1000) - 8) << "\" y=\"" << num(chart_top + chart_h + 16) << "\">" << t
          << " ms</text>\n";
    o << "<polyline id=\"delay-curve\" class=\"delay\" points=\"";
    for (size_t i = 0; i < pic.delays.size(); ++i)
        o << (i ? " " : "") << num(tx(pic.delays[i].t_us)) << ',' << num(ty(pic.delays[i].frames_delay));
    o << "\"/>\n";
    for (const DelaySample& d : pic.delays)
        o << "<circle class=\"delay-point\" data-t=\"" << format_ms(d.t_us) << "\" data-frames-delay=\""
          << d.frames_delay << "\" cx=\"" << num(tx(d.t_us)) << "\" cy=\"" << num(ty(d.frames_delay))
          << "\" r=\"2\"/>\n";
    if (pic.delays.empty())
        o << "<text x=\"" << num(axis_x + 10) << "\" y=\"" << num(chart_top + chart_h / 2)
          << "\">no playback position was read</text>\n";
    o << "</g>\n";
    o << "</svg>\n";
    return o.str();
}

}  // namespace tvsp
