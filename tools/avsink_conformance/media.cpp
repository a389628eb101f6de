// Media made at run time by GStreamer's own encoders and muxers; nothing is committed and
// nothing downloaded. Each clip is made once per media directory.
#include <gst/gst.h>
#include <stdio.h>
#include <sys/stat.h>

#include "conformance.h"

namespace conformance {
namespace {

// Audio source: 1 kHz ticks, 48 kHz stereo, 1024-sample buffers (one AAC frame each).
std::string audio(int seconds, const char* encoder) {
    int buffers = (seconds * 48000 + 1023) / 1024;
    return "audiotestsrc wave=ticks samplesperbuffer=1024 num-buffers=" + std::to_string(buffers) +
           " ! audio/x-raw,rate=48000,channels=2 ! " + encoder + " ! ";
}

const char kAac[] = "avenc_aac ! aacparse";
const char kAc3[] = "avenc_ac3 bitrate=192000 ! ac3parse";

// Raw pictures: a moving ball, in 4:2:0 so that the decoder gives what the TV's sink and the
// fake sink both take as it is (no conversion on one side only).
std::string pictures(int w, int h, int fps, int seconds, const char* par = "1/1") {
    return "videotestsrc pattern=ball num-buffers=" + std::to_string(fps * seconds) +
           " ! video/x-raw,format=I420,width=" + std::to_string(w) + ",height=" + std::to_string(h) +
           ",framerate=" + std::to_string(fps) + "/1,pixel-aspect-ratio=" + par;
}

std::string h264(int fps) {
    return " ! x264enc speed-preset=ultrafast bframes=0 key-int-max=" + std::to_string(fps) +
           " ! h264parse ! ";
}

// Video: the pictures encoded.
std::string video(int w, int h, int fps, int seconds, const char* par = "1/1") {
    return pictures(w, h, fps, seconds, par) + h264(fps);
}

// One stream whose size and aspect change twice, 4 s each: 1280x720, 1920x1080, then 720x576
// with a 4:3 picture (pixel aspect 16:15). The encoder starts a new sequence at each change,
// as a broadcaster's encoder does, in one MPEG-TS with continuous timestamps.
std::string resolution_changes() {
    return "concat name=sizes ! videoconvert" + h264(25) + "mpegtsmux name=mux ! filesink location=@OUT@ " +
           pictures(1280, 720, 25, 4) + " ! sizes. " + pictures(1920, 1080, 25, 4) + " ! sizes. " +
           pictures(720, 576, 25, 4, "16/15") + " ! sizes. " + audio(12, kAac) + "mux.";
}

std::string mp4(const std::string& v, const std::string& a) {
    return v + "mp4mux name=mux ! filesink location=@OUT@ " + a + "mux.";
}
std::string ts(const std::string& v, const std::string& a) {
    return v + "mpegtsmux name=mux ! filesink location=@OUT@ " + a + "mux.";
}

// The advertisement as a broadcaster splices it after a 6 s programme: a programme of its
// own (number 2, so its tables replace the programme's), its timestamps going on from the
// programme's (6 s later). Concatenated, the two make one transport stream in which the
// audio codec changes.
std::string advertisement(const std::string& v, const std::string& a) {
    const std::string later = "identity ts-offset=6000000000 ! ";
    return v + later + "mux.sink_65 mpegtsmux name=mux prog-map=\"progs,sink_65=2,sink_66=2\" ! " +
           "filesink location=@OUT@ " + a + later + "mux.sink_66";
}

bool exists(const std::string& p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

void make_dirs(const std::string& dir) {
    for (size_t i = 1; i <= dir.size(); ++i)
        if (i == dir.size() || dir[i] == '/')
            mkdir(dir.substr(0, i).c_str(), 0755);
}

}  // namespace

const std::vector<Clip>& clips() {
    static const std::vector<Clip> kClips = {
        {"mp4-25", "H.264 640x360 25 fps + AAC stereo 48 kHz in MP4, 30 s",
         mp4(video(640, 360, 25, 30), audio(30, kAac)), "mp4-25.mp4"},
        {"mp4-50", "H.264 640x360 50 fps + AAC stereo 48 kHz in MP4, 30 s",
         mp4(video(640, 360, 50, 30), audio(30, kAac)), "mp4-50.mp4"},
        {"ts-ac3", "H.264 640x360 25 fps + AC-3 stereo 48 kHz in MPEG-TS, 20 s",
         ts(video(640, 360, 25, 20), audio(20, kAc3)), "ts-ac3.ts"},
        {"res-change", "H.264 1280x720, 1920x1080, then 720x576 (4:3) 25 fps + AAC in MPEG-TS, 12 s",
         resolution_changes(), "res-change.ts"},
        {"prog-aac", "H.264 640x360 25 fps + AAC in MPEG-TS, 6 s (the programme)",
         ts(video(640, 360, 25, 6), audio(6, kAac)), "prog-aac.ts"},
        {"ad-ac3", "H.264 640x360 25 fps + AC-3 in MPEG-TS, 6 s (the advertisement, programme 2, from 6 s)",
         advertisement(video(640, 360, 25, 6), audio(6, kAc3)), "ad-ac3.ts"},
        {"codec-switch",
         "prog-aac then ad-ac3 in one MPEG-TS: AAC into AC-3 at 6 s",
         "",
         "codec-switch.ts",
         {"prog-aac", "ad-ac3"}},
    };
    return kClips;
}

namespace {

// Runs the encoding pipeline `desc` to its end. False (and *error) when it fails.
bool encode(const std::string& name, const std::string& desc, std::string* error) {
    GError* err = nullptr;
    GstElement* p = gst_parse_launch(desc.c_str(), &err);
    if (!p || err) {
        if (p)
            gst_object_unref(p);
        *error = name + ": " + (err ? err->message : "cannot build the encoding pipeline");
        g_clear_error(&err);
        return false;
    }
    gst_element_set_state(p, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(p);
    GstMessage* m = gst_bus_timed_pop_filtered(
        bus, 300 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool ok = m && GST_MESSAGE_TYPE(m) == GST_MESSAGE_EOS;
    if (!ok) {
        GError* e = nullptr;
        if (m)
            gst_message_parse_error(m, &e, nullptr);
        *error = name + ": encoding failed: " + (e ? e->message : "timed out");
        g_clear_error(&e);
    }
    if (m)
        gst_message_unref(m);
    gst_object_unref(bus);
    gst_element_set_state(p, GST_STATE_NULL);
    gst_object_unref(p);
    return ok;
}

// Appends the file `from` to the open file `to`.
bool append_file(const std::string& from, FILE* to) {
    FILE* in = fopen(from.c_str(), "rb");
    if (in == nullptr)
        return false;
    char buf[65536];
    size_t n = 0;
    bool ok = true;
    while (ok && (n = fread(buf, 1, sizeof(buf), in)) > 0)
        ok = fwrite(buf, 1, n, to) == n;
    fclose(in);
    return ok;
}

// The parts' files, made first, one after the other into `out`.
bool concatenate(const std::string& dir, const Clip& c, const std::string& out, std::string* error) {
    std::vector<std::string> files;
    for (const std::string& part : c.parts) {
        files.push_back(make_clip(dir, part, error));
        if (files.back().empty())
            return false;
    }
    FILE* f = fopen(out.c_str(), "wb");
    bool ok = f != nullptr;
    for (size_t i = 0; ok && i < files.size(); ++i)
        ok = append_file(files[i], f);
    if (f != nullptr && fclose(f) != 0)
        ok = false;
    if (!ok)
        *error = c.name + ": cannot write " + out;
    return ok;
}

}  // namespace

std::string make_clip(const std::string& dir, const std::string& name, std::string* error) {
    if (name.find('/') != std::string::npos) {
        if (exists(name))
            return name;
        *error = name + ": no such media file";
        return "";
    }
    for (const Clip& c : clips()) {
        if (c.name != name)
            continue;
        const std::string out = dir + "/" + c.file;
        if (exists(out))
            return out;
        make_dirs(dir);
        const std::string part = out + ".part";
        std::string desc = c.pipeline;
        if (!desc.empty())
            desc.replace(desc.find("@OUT@"), 5, part);
        if (!(c.parts.empty() ? encode(name, desc, error) : concatenate(dir, c, part, error)))
            return "";
        rename(part.c_str(), out.c_str());
        return out;
    }
    *error = name + ": no such clip (mp4-25 mp4-50 ts-ac3 res-change codec-switch, or a file path)";
    return "";
}

}  // namespace conformance
