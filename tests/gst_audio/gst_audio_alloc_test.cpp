// ruvoaudiosink's render path in steady state: no heap allocation per buffer, counted by
// this program's replaced allocator (the emulated platform's record is not counted).
#include "alloc_counter.h"
#include "gst_audio_fixture.h"

using gst_audio_test::GstAudioTest;
using ruvo_test::AllocationCounter;

class RenderCost : public GstAudioTest {
  protected:
    static constexpr int kBuffers = 200;
    static std::vector<GstBuffer*> make_blocks(size_t size) {
        std::vector<GstBuffer*> out;
        for (int i = 0; i < kBuffers; ++i)
            out.push_back(block(size, i * gst_audio_test::kFrame));
        return out;
    }
};

TEST_F(RenderCost, the_render_path_allocates_nothing_per_buffer) {
    start_with_caps();
    ASSERT_EQ(push(400), GST_FLOW_OK);  // the stream is started, the room known
    auto blocks = make_blocks(400);
    GstBaseSinkClass* klass = GST_BASE_SINK_GET_CLASS(sink());
    GstBaseSink* base = GST_BASE_SINK(sink());
    AllocationCounter counter;
    int failures = 0;
    counter.start();
    for (GstBuffer* b : blocks)
        failures += klass->render(base, b) != GST_FLOW_OK;
    const size_t allocations = counter.stop();
    for (GstBuffer* b : blocks)
        gst_buffer_unref(b);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(count("write"), static_cast<size_t>(kBuffers + 1));
}

TEST_F(RenderCost, raw_aac_framing_allocates_nothing_per_buffer) {
    start();
    GstCaps* caps = gst_caps_from_string(
        "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw, channels=(int)2, "
        "rate=(int)44100");
    const guint8 asc[] = {0x12, 0x10};
    GstBuffer* codec_data = gst_buffer_new_memdup(asc, sizeof(asc));
    gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, codec_data, nullptr);
    gst_buffer_unref(codec_data);
    gst_harness_set_src_caps(h_, caps);
    ASSERT_EQ(push(300), GST_FLOW_OK);
    auto blocks = make_blocks(300);
    GstBaseSinkClass* klass = GST_BASE_SINK_GET_CLASS(sink());
    AllocationCounter counter;
    counter.start();
    for (GstBuffer* b : blocks)
        klass->render(GST_BASE_SINK(sink()), b);
    const size_t allocations = counter.stop();
    for (GstBuffer* b : blocks)
        gst_buffer_unref(b);
    EXPECT_EQ(allocations, 0u);
}

TEST_F(RenderCost, through_the_pad_the_base_sink_and_the_element_allocate_nothing_per_buffer) {
    start_with_caps();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    auto blocks = make_blocks(400);
    AllocationCounter counter;
    counter.start();
    for (GstBuffer* b : blocks)
        gst_harness_push(h_, b);
    const size_t allocations = counter.stop();
    RecordProperty("allocations_per_buffer_through_the_pad", std::to_string(allocations / double(kBuffers)));
    EXPECT_EQ(allocations, 0u);
}

// The library alone, for the instruction count beside the element's render path (run both
// under callgrind): the same blocks pushed, and the playback report read as often as the
// element reads it with the room it is given (once per 65,396 bytes).
TEST_F(RenderCost, the_library_alone_pushes_the_same_blocks) {
    quarvel_audio_output_s* out = quarvel_audio_output_open(gst_audio_test::kDevice);
    ASSERT_NE(out, nullptr);
    quarvel_audio_output_setup_params_s params{};
    params.channels = 2;
    params.sample_rate = 48000;
    ASSERT_EQ(quarvel_audio_output_setup(out, &params), 0);
    std::vector<unsigned char> data(400);
    quarvel_audio_output_info_s info{};
    size_t room = 0;
    int failures = 0;
    for (int i = 0; i < kBuffers + 1; ++i) {
        if (room < data.size()) {
            failures += quarvel_audio_output_get_info(out, &info) != 0;
            room = info.bytes_free;
        }
        failures += quarvel_audio_output_push_data(out, data.data(), 400, 0) != 0;
        room -= data.size();
    }
    EXPECT_EQ(failures, 0);
    quarvel_audio_output_close(out);
    lines();
}
