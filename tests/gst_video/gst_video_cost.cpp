// Instructions per frame of ruvovideosink beside the library calls it makes and beside
// fakevideosink, counted by callgrind (see cost_check.sh):
//   valgrind --tool=callgrind --collect-atstart=no gst_video_cost 200
// Three dumps: "library push+set_pts" (the two calls alone on a handle of their own),
// "ruvovideosink chain" and "fakevideosink chain" (gst_pad_push of one buffer into the sink,
// GstBaseSink's work included, with sync, qos and last-sample off in both). With "render"
// as second argument only the ruvovideosink frames run, for a count of the element's
// render function by --toggle-collect.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <stdio.h>
#include <stdlib.h>
#include <valgrind/callgrind.h>

#include <mutex>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo_gst_register.h"

namespace {

constexpr GstClockTime kFrame = 40 * GST_MSECOND;

v4l2_drm hd_frame() {
    v4l2_drm d{};
    d.inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    d.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    d.u.dec_info.hres = 1920;
    d.u.dec_info.vres = 1080;
    return d;
}

void measure_library(int n) {
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    v4l2_drm d = hd_frame();
    quarvel_video_output_frame_s frame{&d, -1, {}};
    quarvel_video_output_init_with_first_frame(out, &frame);
    for (int i = 0; i < n + 5; ++i) {
        d.u.dec_info.pFrame[0].display_index = static_cast<uint32_t>(i);
        const bool counted = i >= 5;
        if (counted) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        quarvel_video_output_push_frame_to_display(out, &frame);
        quarvel_video_output_set_pts(out, i * 3600);
        if (counted) {
            CALLGRIND_TOGGLE_COLLECT;
        }
    }
    CALLGRIND_DUMP_STATS_AT("library push+set_pts");
    quarvel_video_output_close(out);
}

bool g_toggles = true;  // false: the run counts by --toggle-collect on a function instead

void measure_sink(const char* factory, const char* label, int n) {
    GstHarness* h = gst_harness_new(factory);
    g_object_set(h->element, "sync", FALSE, "qos", FALSE, "enable-last-sample", FALSE, nullptr);
    gst_harness_set_src_caps_str(h, "video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1");
    std::vector<GstBuffer*> buffers;
    for (int i = 0; i < n + 5; ++i) {
        GstBuffer* b = gst_buffer_new_allocate(nullptr, 64, nullptr);
        GST_BUFFER_PTS(b) = i * kFrame;
        GST_BUFFER_DURATION(b) = kFrame;
        buffers.push_back(b);
    }
    for (int i = 0; i < n + 5; ++i) {
        const bool counted = i >= 5 && g_toggles;
        if (counted) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        const GstFlowReturn ret = gst_harness_push(h, buffers[i]);
        if (counted) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        if (ret != GST_FLOW_OK) {
            fprintf(stderr, "gst_video_cost: %s: push %d: %s\n", factory, i, gst_flow_get_name(ret));
        }
    }
    CALLGRIND_DUMP_STATS_AT(label);
    gst_harness_teardown(h);
}

}  // namespace

int main(int argc, char** argv) {
    const int n = argc > 1 ? atoi(argv[1]) : 200;
    // "render": only frames into ruvovideosink, for a run with
    // --toggle-collect='*sink_render*' that counts the element's render function itself.
    const bool render_only = argc > 2 && std::string(argv[2]) == "render";
    g_toggles = !render_only;
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    gst_init(nullptr, nullptr);
    ruvo_video_sink_register(nullptr);
    emutv::platform().reset();
    {
        std::lock_guard<emutv::PlatformMutex> lock(emutv::platform().mutex());
        emutv::platform().vplt().frames[0] = 0;
    }
    emutv::platform().set_recording(false);
    if (!render_only) {
        measure_library(n);
    }
    const size_t before = emutv::platform().count("DRM_IOCTL_SDP_SET_DP_SOURCE");
    measure_sink("ruvovideosink", "ruvovideosink chain", n);
    const size_t pushed = emutv::platform().count("DRM_IOCTL_SDP_SET_DP_SOURCE") - before;
    if (!render_only) {
        measure_sink("fakevideosink", "fakevideosink chain", n);
    }
    // The first frame goes through the first-frame call (two source requests).
    if (pushed != static_cast<size_t>(n + 5 + 1)) {
        fprintf(stderr, "gst_video_cost: %zu source requests for %d frames\n", pushed, n + 5);
        return 1;
    }
    return 0;
}
