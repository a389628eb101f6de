// The steady-state render path of ruvovideosink makes no heap allocation per frame. The
// program replaces the allocator with a counting one.

#include "alloc_counter.h"
#include "gst_video_fixture.h"

using namespace gst_video;

namespace {

class RenderPathAllocations : public SinkTest {
  protected:
    // Heap allocations made by pushing `n` frames (made beforehand) through the harness.
    size_t allocations_for(int n, int first) {
        std::vector<GstBuffer*> frames;
        for (int i = first; i < first + n; ++i) {
            frames.push_back(frame(i * kFrame, 64));
        }
        tv().set_recording(false);  // the emulator's record is not the element's cost
        ruvo_test::AllocationCounter counter;
        counter.start();
        for (GstBuffer* b : frames) {
            if (gst_harness_push(h_, b) != GST_FLOW_OK) {
                ADD_FAILURE() << "push failed";
            }
        }
        return counter.stop();
    }
};

TEST_F(RenderPathAllocations, TheCounterSeesGStreamerObjects) {
    ruvo_test::AllocationCounter counter;
    counter.start();
    GstStructure* s = gst_structure_new_empty("counted");
    const size_t n = counter.stop();
    gst_structure_free(s);
    EXPECT_GE(n, 1u);
}

TEST_F(RenderPathAllocations, NonePerFrameInSteadyState) {
    start();
    // GstBaseSink's own per-buffer work, left out: the GstSample of last-sample and the QoS
    // event it sends upstream for every rendered buffer.
    g_object_set(sink_, "enable-last-sample", FALSE, "qos", FALSE, nullptr);
    set_frames_held(0);
    push_frames(5);  // first frame, first latch, caches of GStreamer's own
    EXPECT_EQ(allocations_for(200, 5), 0u);
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 2u + 4u + 200u);
    EXPECT_EQ(tv().count("FR2IP_SetPTS"), 5u + 200u);
}

}  // namespace
