// SVG writer of the session picture. Every element a reader or a test looks for has a
// stable class and carries the values it was drawn from in data-* attributes:
//   polyline.plane-line  data-field=x|y|w|h                   one per field and run
//   rect.plane-run       data-from data-to data-x data-y data-w data-h data-muted
//                        data-source                           the plane between changes
//   rect.source          data-from data-to data-port           input port in use
//   line.event, text.event-label  data-t data-what data-row   one per event
//   circle.pacing        data-t data-vsync data-frame data-interval   one per frame latched
//   rect.dropped         data-t data-dropped                  frames superseded
//   polyline.audio-fill  (bytes queued, one per run of periods), line.no-space data-t
//   polyline.delay (one per audio run), circle.delay-point data-t data-frames-delay
//   text.axis-label      the time axes' labels
// Times are in milliseconds of the session (format of the player's "t=" values).
#include "svg.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "scenario.h"

namespace tvsp {

namespace {

using Entry = emutv::TimelineEntry;

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

const char* event_colour(const std::string& what) {
    if (what == "failed" || what == "unexpected")
        return "#c0392b";
    if (what == "mute" || what == "audio-mute")
        return "#7f8c8d";
    if (what == "source")
        return "#2b6cd9";
    if (what == "resolution")
        return "#8e44ad";
    return "#16a085";  // volume, speed
}

int64_t entry_us(const Entry& e) {
    return e.t_ns / 1000;
}

// Rows of labels: each label goes into the first row where it does not touch the one
// before it.
class LabelRows {
  public:
    int place(double x, double width) {
        for (size_t r = 0; r < ends_.size(); ++r) {
            if (ends_[r] + 4.0 <= x) {
                ends_[r] = x + width;
                return static_cast<int>(r);
            }
        }
        ends_.push_back(x + width);
        return static_cast<int>(ends_.size() - 1);
    }
    size_t rows() const { return ends_.size(); }

  private:
    std::vector<double> ends_;
};

struct Event {
    int64_t t_us;
    std::string what;
    std::string detail;
    int count = 1;  // the same event repeated at the same instant
};

class Writer {
  public:
    explicit Writer(const SessionPicture& pic) : pic_(pic) {
        end_us_ = std::max<int64_t>(pic.end_us, 1);
        for (const Entry& e : pic.timeline) {
            end_us_ = std::max(end_us_, entry_us(e));
            if (e.type == Entry::Type::Vsync)
                vsyncs_.push_back(&e);
            else if (e.type == Entry::Type::Audio)
                audio_.push_back(&e);
            else
                events_.push_back(Event{entry_us(e), e.what, e.detail});
        }
        for (const CallMark& m : pic.marks) {
            end_us_ = std::max(end_us_, m.t_us);
            if (m.what == "no-space")
                no_space_.push_back(m.t_us);
            else
                events_.push_back(Event{m.t_us, m.what, m.detail});
        }
        std::stable_sort(events_.begin(), events_.end(),
                         [](const Event& a, const Event& b) { return a.t_us < b.t_us; });
        merge_repeats();
        axis_w_ = SvgLayout::kWidth - SvgLayout::kAxisLeft - SvgLayout::kMargin;
    }

    std::string render(PictureCounts* counts) {
        y_ = SvgLayout::kMargin + 16;
        body_ << "<text class=\"heading\" x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(y_) << "\">"
              << escape(pic_.title) << ": " << pic_.panel_w << "x" << pic_.panel_h << " panel, "
              << format_ms(end_us_) << " ms</text>\n";
        y_ += 20;
        plane_section();
        event_section();
        pacing_section();
        audio_section();
        delay_section();
        if (counts) {
            counts->vsyncs = vsyncs_.size();
            counts->events = events_.size();
            counts->delays = pic_.delays.size();
        }
        std::ostringstream o;
        o << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
        o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(SvgLayout::kWidth) << "\" height=\""
          << num(y_ + SvgLayout::kMargin) << "\" viewBox=\"0 0 " << num(SvgLayout::kWidth) << ' '
          << num(y_ + SvgLayout::kMargin) << "\" data-panel-w=\"" << pic_.panel_w << "\" data-panel-h=\""
          << pic_.panel_h << "\" data-end=\"" << format_ms(end_us_) << "\">\n";
        o << "<title>" << escape(pic_.title) << "</title>\n";
        o << "<style>\n"
             "text{font-family:sans-serif;font-size:10px;fill:#222}\n"
             "text.heading{font-size:13px;font-weight:bold}\n"
             "polyline{fill:none;stroke-width:1.5}\n"
             "line.axis{stroke:#444;stroke-width:1}\n"
             "line.grid{stroke:#ddd;stroke-width:1}\n"
             "rect.plane-run[data-muted=\"0\"]{fill:#3a9a4a}\n"
             "rect.plane-run[data-muted=\"1\"]{fill:#9a9a9a}\n"
             "circle.pacing{fill:#2b6cd9}\n"
             "rect.dropped{fill:#c0392b}\n"
             "line.no-space{stroke:#c0392b;stroke-width:1}\n"
             "polyline.audio-fill{stroke:#16a085}\n"
             "polyline.delay{stroke:#c0392b}\n"
             "circle.delay-point{fill:#c0392b}\n"
             "</style>\n";
        o << body_.str();
        o << "</svg>\n";
        return o.str();
    }

  private:
    // One label for the same event repeated at one instant ("failed ... x3").
    void merge_repeats() {
        std::vector<Event> merged;
        for (const Event& e : events_) {
            if (!merged.empty() && merged.back().t_us == e.t_us && merged.back().what == e.what &&
                merged.back().detail == e.detail)
                merged.back().count++;
            else
                merged.push_back(e);
        }
        events_.swap(merged);
    }

    double tx(int64_t t_us) const {
        return SvgLayout::kAxisLeft + axis_w_ * static_cast<double>(t_us) / static_cast<double>(end_us_);
    }

    void heading(const std::string& text) {
        y_ += 14;
        body_ << "<text class=\"heading\" x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(y_) << "\">"
              << escape(text) << "</text>\n";
        y_ += 8;
    }

    void note(const std::string& id, const std::string& text) {
        y_ += 12;
        body_ << "<text class=\"note\" id=\"" << id << "\" x=\"" << num(SvgLayout::kAxisLeft) << "\" y=\""
              << num(y_) << "\">" << escape(text) << "</text>\n";
        y_ += 10;
    }

    // The time axis under a chart: ticks at round steps, each labelled in ms.
    void time_axis(double y) {
        body_ << "<line class=\"axis\" x1=\"" << num(tx(0)) << "\" y1=\"" << num(y) << "\" x2=\""
              << num(tx(end_us_)) << "\" y2=\"" << num(y) << "\"/>\n";
        static const int64_t kSteps[] = {1,   2,    5,    10,   20,    50,    100,  200,
                                         500, 1000, 2000, 5000, 10000, 20000, 60000};
        int64_t step_ms = kSteps[sizeof(kSteps) / sizeof(kSteps[0]) - 1];
        for (int64_t s : kSteps) {
            if (end_us_ / 1000 / s <= 10) {
                step_ms = s;
                break;
            }
        }
        for (int64_t t = 0; t * 1000 <= end_us_; t += step_ms) {
            const double x = tx(t * 1000);
            body_ << "<line class=\"axis\" x1=\"" << num(x) << "\" y1=\"" << num(y) << "\" x2=\"" << num(x)
                  << "\" y2=\"" << num(y + 3) << "\"/>\n";
            body_ << "<text class=\"axis-label\" x=\"" << num(x) << "\" y=\"" << num(y + 13)
                  << "\" text-anchor=\"middle\">" << t << "</text>\n";
        }
        body_ << "<text class=\"axis-title\" x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(y + 13)
              << "\">time (ms)</text>\n";
    }

    // A value axis on the left: its unit and two labelled values.
    void value_axis(double top, double height, const std::string& unit, const std::string& low,
                    const std::string& high) {
        body_ << "<line class=\"axis\" x1=\"" << num(tx(0)) << "\" y1=\"" << num(top) << "\" x2=\""
              << num(tx(0)) << "\" y2=\"" << num(top + height) << "\"/>\n";
        body_ << "<text class=\"value-label\" x=\"" << num(tx(0) - 4) << "\" y=\"" << num(top + 8)
              << "\" text-anchor=\"end\">" << escape(high) << "</text>\n";
        body_ << "<text class=\"value-label\" x=\"" << num(tx(0) - 4) << "\" y=\"" << num(top + height)
              << "\" text-anchor=\"end\">" << escape(low) << "</text>\n";
        body_ << "<text class=\"unit\" x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(top + height / 2)
              << "\">" << escape(unit) << "</text>\n";
    }

    bool any_plane() const {
        for (const Entry* e : vsyncs_)
            if (e->has_plane)
                return true;
        return false;
    }

    void plane_section() {
        heading("video plane: position and size on the panel at each vsync");
        if (!any_plane()) {
            note("no-plane", vsyncs_.empty() ? "no vsync in this session: the video plane was never shown"
                                             : "the video plane was never programmed");
            return;
        }
        int64_t lo = 0, hi = std::max(pic_.panel_w, pic_.panel_h);
        for (const Entry* e : vsyncs_) {
            if (!e->has_plane)
                continue;
            lo = std::min<int64_t>({lo, e->x, e->y});
            hi = std::max<int64_t>({hi, e->x, e->y, static_cast<int64_t>(e->w), static_cast<int64_t>(e->h)});
        }
        const double top = y_, h = SvgLayout::kChart;
        auto vy = [&](int64_t v) {
            return top + h -
                   h * static_cast<double>(v - lo) / static_cast<double>(std::max<int64_t>(hi - lo, 1));
        };
        value_axis(top, h, "px", std::to_string(lo), std::to_string(hi));
        static const char* const kFields[] = {"x", "y", "w", "h"};
        static const char* const kColours[] = {"#d35400", "#2980b9", "#27ae60", "#8e44ad"};
        for (int f = 0; f < 4; ++f) {
            auto value = [&](const Entry& e) -> int64_t {
                return f == 0   ? e.x
                       : f == 1 ? e.y
                       : f == 2 ? static_cast<int64_t>(e.w)
                                : static_cast<int64_t>(e.h);
            };
            std::string points;
            bool open = false;
            int64_t prev = 0;
            auto flush = [&]() {
                if (!points.empty())
                    body_ << "<polyline class=\"plane-line\" data-field=\"" << kFields[f]
                          << "\" style=\"stroke:" << kColours[f] << "\" points=\"" << points << "\"/>\n";
                points.clear();
                open = false;
            };
            for (const Entry* e : vsyncs_) {
                if (!e->has_plane) {
                    flush();
                    continue;
                }
                const int64_t v = value(*e);
                const double x = tx(entry_us(*e));
                if (open && v != prev)
                    points += " " + num(x) + "," + num(vy(prev));
                points += (points.empty() ? "" : " ") + num(x) + "," + num(vy(v));
                open = true;
                prev = v;
            }
            flush();
            // Legend, one fixed place per field.
            const double lx = SvgLayout::kWidth - SvgLayout::kMargin - (4 - f) * 40.0;
            body_ << "<text class=\"legend\" x=\"" << num(lx) << "\" y=\"" << num(top - 2)
                  << "\" style=\"fill:" << kColours[f] << "\">" << kFields[f] << "</text>\n";
        }
        y_ = top + h + 4;
        plane_bands();
        time_axis(y_);
        y_ += 20;
    }

    // The plane between changes (rectangle, mute, source) and the input source.
    void plane_bands() {
        const double band = SvgLayout::kBand;
        body_ << "<text x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(y_ + 12)
              << "\">shown/muted</text>\n";
        body_ << "<text x=\"" << num(SvgLayout::kMargin) << "\" y=\"" << num(y_ + band + 4 + 12)
              << "\">source</text>\n";
        auto same_run = [](const Entry& a, const Entry& b) {
            return a.has_plane == b.has_plane && a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h &&
                   a.muted == b.muted && a.source == b.source;
        };
        for (size_t i = 0; i < vsyncs_.size();) {
            size_t j = i + 1;
            while (j < vsyncs_.size() && same_run(*vsyncs_[i], *vsyncs_[j]))
                ++j;
            const Entry& e = *vsyncs_[i];
            const int64_t from = entry_us(e);
            const int64_t to = j < vsyncs_.size() ? entry_us(*vsyncs_[j]) : end_us_;
            const double x = tx(from), w = std::max(tx(to) - x, 1.0) + 0.5;  // no hairline between runs
            if (e.has_plane) {
                body_ << "<rect class=\"plane-run\" data-from=\"" << format_ms(from) << "\" data-to=\""
                      << format_ms(to) << "\" data-x=\"" << e.x << "\" data-y=\"" << e.y << "\" data-w=\""
                      << e.w << "\" data-h=\"" << e.h << "\" data-muted=\"" << (e.muted ? 1 : 0)
                      << "\" data-source=\"" << e.source << "\" x=\"" << num(x) << "\" y=\"" << num(y_)
                      << "\" width=\"" << num(w) << "\" height=\"" << num(band) << "\"/>\n";
            }
            i = j;
        }
        const double sy = y_ + band + 4;
        for (size_t i = 0; i < vsyncs_.size();) {
            size_t j = i + 1;
            while (j < vsyncs_.size() && vsyncs_[j]->source == vsyncs_[i]->source)
                ++j;
            const int port = vsyncs_[i]->source;
            const int64_t from = entry_us(*vsyncs_[i]);
            const int64_t to = j < vsyncs_.size() ? entry_us(*vsyncs_[j]) : end_us_;
            const double x = tx(from), w = std::max(tx(to) - x, 1.0);
            if (port >= 0) {
                body_ << "<rect class=\"source\" data-from=\"" << format_ms(from) << "\" data-to=\""
                      << format_ms(to) << "\" data-port=\"" << port << "\" x=\"" << num(x) << "\" y=\""
                      << num(sy) << "\" width=\"" << num(w) << "\" height=\"" << num(band)
                      << "\" style=\"fill:" << port_colour(port) << "\"/>\n";
                const std::string name = port_name(port);
                if (name.size() * SvgLayout::kCharWidth + 6 <= w)
                    body_ << "<text x=\"" << num(x + 3) << "\" y=\"" << num(sy + 12)
                          << "\" style=\"fill:#fff\">" << name << "</text>\n";
            }
            i = j;
        }
        y_ = sy + band + 4;
    }

    void event_section() {
        heading(
            "events: requests that changed the picture or the sound, failed requests, unexpected results");
        if (events_.empty()) {
            note("no-events", "no event");
            return;
        }
        LabelRows rows;
        const double right = SvgLayout::kWidth - SvgLayout::kMargin;
        struct Placed {
            const Event* e;
            std::string text;
            double x;
            int row;
        };
        std::vector<Placed> placed;
        for (const Event& e : events_) {
            std::string text = e.what + (e.detail.empty() ? "" : " " + e.detail);
            if (text.size() > 48)
                text = text.substr(0, 45) + "...";
            if (e.count > 1)
                text += " x" + std::to_string(e.count);
            const double width = static_cast<double>(text.size()) * SvgLayout::kCharWidth;
            // Right of its marker, or left of it near the end of the axis.
            const double x = tx(e.t_us) + 2 + width <= right ? tx(e.t_us) + 2 : tx(e.t_us) - 2 - width;
            placed.push_back(Placed{&e, text, x, rows.place(x, width)});
        }
        const double top = y_;
        const double h = static_cast<double>(rows.rows()) * SvgLayout::kLabelRow;
        for (const Placed& p : placed) {
            const double ly = top + (p.row + 1) * SvgLayout::kLabelRow;
            const double mx = tx(p.e->t_us);
            body_ << "<line class=\"event\" data-t=\"" << format_ms(p.e->t_us) << "\" data-what=\""
                  << p.e->what << "\" data-row=\"" << p.row << "\" x1=\"" << num(mx) << "\" y1=\""
                  << num(ly - 10) << "\" x2=\"" << num(mx) << "\" y2=\"" << num(ly + 2)
                  << "\" style=\"stroke:" << event_colour(p.e->what) << "\"/>\n";
            body_ << "<text class=\"event-label\" data-t=\"" << format_ms(p.e->t_us) << "\" data-what=\""
                  << p.e->what << "\" data-row=\"" << p.row << "\" data-count=\"" << p.e->count
                  << "\" data-width=\"" << num(static_cast<double>(p.text.size()) * SvgLayout::kCharWidth)
                  << "\" x=\"" << num(p.x) << "\" y=\"" << num(ly)
                  << "\" style=\"fill:" << event_colour(p.e->what) << "\">" << escape(p.text) << "</text>\n";
        }
        y_ = top + h + 4;
        time_axis(y_);
        y_ += 20;
    }

    void pacing_section() {
        heading("frame pacing against vsync: vsyncs from one frame latched to the next");
        std::vector<const Entry*> fresh;
        for (const Entry* e : vsyncs_)
            if (e->fresh)
                fresh.push_back(e);
        if (fresh.empty()) {
            note("no-frames", vsyncs_.empty() ? "no vsync in this session" : "no frame was latched");
            return;
        }
        const double top = y_, h = 80;
        constexpr int kMaxInterval = 6;
        auto vy = [&](int64_t v) { return top + h - h * static_cast<double>(v) / kMaxInterval; };
        value_axis(top, h, "vsyncs", "0", std::to_string(kMaxInterval) + "+");
        for (int v = 1; v < kMaxInterval; ++v)
            body_ << "<line class=\"grid\" x1=\"" << num(tx(0)) << "\" y1=\"" << num(vy(v)) << "\" x2=\""
                  << num(tx(end_us_)) << "\" y2=\"" << num(vy(v)) << "\"/>\n";
        int64_t prev_k = -1;
        for (const Entry* e : fresh) {
            const int64_t interval = prev_k < 0 ? 0 : e->vsync - prev_k;
            prev_k = e->vsync;
            if (interval > 0)
                body_ << "<circle class=\"pacing\" data-t=\"" << format_ms(entry_us(*e)) << "\" data-vsync=\""
                      << e->vsync << "\" data-frame=\"" << e->frame << "\" data-interval=\"" << interval
                      << "\" cx=\"" << num(tx(entry_us(*e))) << "\" cy=\""
                      << num(vy(std::min<int64_t>(interval, kMaxInterval))) << "\" r=\"1.5\"/>\n";
        }
        for (const Entry* e : vsyncs_)
            if (e->dropped > 0)
                body_ << "<rect class=\"dropped\" data-t=\"" << format_ms(entry_us(*e))
                      << "\" data-dropped=\"" << e->dropped << "\" x=\"" << num(tx(entry_us(*e)) - 1)
                      << "\" y=\"" << num(top) << "\" width=\"2\" height=\"6\"/>\n";
        y_ = top + h + 4;
        time_axis(y_);
        y_ += 20;
    }

    void audio_section() {
        heading("audio decoder: bytes queued in its ring (line), no-space answers to pushes (red ticks)");
        if (audio_.empty() && no_space_.empty()) {
            note("no-audio", "the audio decoder never played");
            return;
        }
        uint64_t ring = 1;
        int64_t period = 0;
        for (size_t i = 0; i < audio_.size(); ++i) {
            ring = std::max(ring, audio_[i]->queued + audio_[i]->avail);
            if (i > 0) {
                const int64_t d = audio_[i]->t_ns - audio_[i - 1]->t_ns;
                period = period == 0 ? d : std::min(period, d);
            }
        }
        const double top = y_, h = 80;
        auto vy = [&](uint64_t v) {
            return top + h - h * static_cast<double>(v) / static_cast<double>(ring);
        };
        value_axis(top, h, "bytes", "0", std::to_string(ring));
        std::string points;
        auto flush = [&]() {
            if (!points.empty())
                body_ << "<polyline class=\"audio-fill\" points=\"" << points << "\"/>\n";
            points.clear();
        };
        for (size_t i = 0; i < audio_.size(); ++i) {
            if (i > 0 && audio_[i]->t_ns - audio_[i - 1]->t_ns > period + period / 2)
                flush();  // the decoder was stopped in between: no line across the gap
            points += (points.empty() ? "" : " ") + num(tx(entry_us(*audio_[i]))) + "," +
                      num(vy(audio_[i]->queued));
        }
        flush();
        for (int64_t t : no_space_)
            body_ << "<line class=\"no-space\" data-t=\"" << format_ms(t) << "\" x1=\"" << num(tx(t))
                  << "\" y1=\"" << num(top + h - 8) << "\" x2=\"" << num(tx(t)) << "\" y2=\"" << num(top + h)
                  << "\"/>\n";
        y_ = top + h + 4;
        time_axis(y_);
        y_ += 20;
    }

    void delay_section() {
        heading("audio delay reported by the library (frames_delay, PCM frames)");
        if (pic_.delays.empty()) {
            note("no-delay", "no playback position was read");
            return;
        }
        uint32_t max_delay = 1;
        for (const DelaySample& d : pic_.delays)
            max_delay = std::max(max_delay, d.frames_delay);
        const double top = y_, h = 80;
        auto vy = [&](uint32_t v) { return top + h - h * static_cast<double>(v) / max_delay; };
        value_axis(top, h, "frames", "0", std::to_string(max_delay));
        body_ << "<g id=\"audio-delay\" data-max-frames-delay=\"" << max_delay << "\">\n";
        std::string points;
        auto flush = [&]() {
            if (!points.empty())
                body_ << "<polyline class=\"delay\" points=\"" << points << "\"/>\n";
            points.clear();
        };
        // The usual spacing of the samples: a longer gap is a time nobody asked, not joined.
        std::vector<int64_t> gaps;
        for (size_t i = 1; i < pic_.delays.size(); ++i)
            if (pic_.delays[i].t_us > pic_.delays[i - 1].t_us)
                gaps.push_back(pic_.delays[i].t_us - pic_.delays[i - 1].t_us);
        std::sort(gaps.begin(), gaps.end());
        const int64_t usual = gaps.empty() ? 0 : gaps[gaps.size() / 2];
        for (size_t i = 0; i < pic_.delays.size(); ++i) {
            const DelaySample& d = pic_.delays[i];
            // Samples of different audio runs, or further apart than usual, are not joined.
            if (i > 0 &&
                (d.run != pic_.delays[i - 1].run || d.t_us - pic_.delays[i - 1].t_us > usual + usual / 2))
                flush();
            points += (points.empty() ? "" : " ") + num(tx(d.t_us)) + "," + num(vy(d.frames_delay));
        }
        flush();
        for (const DelaySample& d : pic_.delays)
            body_ << "<circle class=\"delay-point\" data-t=\"" << format_ms(d.t_us)
                  << "\" data-frames-delay=\"" << d.frames_delay << "\" cx=\"" << num(tx(d.t_us))
                  << "\" cy=\"" << num(vy(d.frames_delay)) << "\" r=\"2\"/>\n";
        body_ << "</g>\n";
        y_ = top + h + 4;
        time_axis(y_);
        y_ += 20;
    }

    const SessionPicture& pic_;
    int64_t end_us_ = 1;
    double axis_w_ = 0;
    double y_ = 0;
    std::vector<const Entry*> vsyncs_;
    std::vector<const Entry*> audio_;
    std::vector<Event> events_;
    std::vector<int64_t> no_space_;
    std::ostringstream body_;
};

}  // namespace

std::string render_svg(const SessionPicture& pic, PictureCounts* counts) {
    Writer w(pic);
    return w.render(counts);
}

}  // namespace tvsp
