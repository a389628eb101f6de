// ruvoaudiosink: caps to the decoder's setup records, properties to the mixer controls, the
// output's lifecycle and its errors.
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "gst_audio_fixture.h"
#include "ruvo/driver/compress_ext.h"

using gst_audio_test::GstAudioTest;
using gst_audio_test::kDevice;

namespace {

// The record setup sends for the compressed-offload defaults of the emulated device.
std::vector<uint8_t> expected_params(uint32_t channels, uint32_t rate) {
    snd_compr_params p;
    memset(&p, 0, sizeof(p));
    p.buffer.fragment_size = 4096;
    p.buffer.fragments = 8;
    p.codec.id = 2;
    p.codec.ch_in = channels;
    p.codec.ch_out = channels;
    p.codec.sample_rate = rate;
    p.codec.reserved[1] = 256;
    auto* b = reinterpret_cast<const uint8_t*>(&p);
    return std::vector<uint8_t>(b, b + sizeof(p));
}

std::vector<uint8_t> metadata_in(uint32_t key, uint32_t value) {
    snd_compr_metadata m;
    memset(&m, 0, sizeof(m));
    m.key = key;
    m.value[0] = value;
    auto* b = reinterpret_cast<const uint8_t*>(&m);
    return std::vector<uint8_t>(b, b + sizeof(m));
}

// `size` bytes of text: no byte of it starts an ADTS (0xFF) or AC-3 (0x0B 0x77) sync frame.
GstBuffer* garbage(size_t size) {
    static const char kText[] = "not a sync frame ";
    GstBuffer* b = gst_buffer_new_allocate(nullptr, size, nullptr);
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    for (size_t i = 0; i < size; ++i)
        map.data[i] = static_cast<uint8_t>(kText[i % (sizeof(kText) - 1)]);
    gst_buffer_unmap(b, &map);
    return b;
}

}  // namespace

class CapsSetup : public GstAudioTest {
  protected:
    // Sets the caps and checks the setup they gave, record by record.
    void expect_setup(const char* caps, uint32_t channels, uint32_t rate, uint32_t driver_sync_mode = 7) {
        start();
        tv().clear_events();
        gst_harness_set_src_caps_str(h_, caps);
        EXPECT_EQ(compr_requests(),
                  (std::vector<std::string>{"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
                                            "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_SET_METADATA",
                                            "SNDRV_COMPRESS_SET_METADATA"}));
        auto params = tv().events("SNDRV_COMPRESS_SET_PARAMS");
        ASSERT_EQ(params.size(), 1u);
        EXPECT_EQ(params[0].in, expected_params(channels, rate));
        auto metadata = tv().events("SNDRV_COMPRESS_SET_METADATA");
        ASSERT_EQ(metadata.size(), 3u);
        EXPECT_EQ(metadata[0].in, metadata_in(SNDRV_COMPRESS_SPDIF_DEVICE_INFO, rate));
        EXPECT_EQ(metadata[1].in, metadata_in(SNDRV_COMPRESS_IS_CDDTS, 0));
        EXPECT_EQ(metadata[2].in, metadata_in(SNDRV_COMPRESS_SYNC_MODE, driver_sync_mode));
        EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
    }
};

TEST_F(CapsSetup, adts_aac_sets_up_its_channels_and_rate) {
    expect_setup(
        "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts, channels=(int)2, rate=(int)44100", 2,
        44100);
}

TEST_F(CapsSetup, mpeg2_adts_aac_with_one_channel_at_8khz) {
    expect_setup(
        "audio/mpeg, mpegversion=(int)2, stream-format=(string)adts, channels=(int)1, rate=(int)8000", 1,
        8000);
}

TEST_F(CapsSetup, ac3_with_six_channels) {
    expect_setup(
        "audio/x-ac3, framed=(boolean)true, alignment=(string)frame, channels=(int)6, rate=(int)48000", 6,
        48000);
}

TEST_F(CapsSetup, eac3_with_eight_channels_at_96khz) {
    expect_setup(
        "audio/x-eac3, framed=(boolean)true, alignment=(string)frame, channels=(int)8, rate=(int)96000", 8,
        96000);
}

TEST_F(CapsSetup, sync_mode_property_reaches_the_driver_through_the_library_table) {
    start();
    GstElement* s = sink();
    gst_util_set_object_arg(G_OBJECT(s), "sync-mode", "sync-to-external-video");
    tv().clear_events();
    gst_harness_set_src_caps_str(h_, gst_audio_test::kAdtsCaps);
    auto metadata = tv().events("SNDRV_COMPRESS_SET_METADATA");
    ASSERT_EQ(metadata.size(), 3u);
    EXPECT_EQ(metadata[2].in, metadata_in(SNDRV_COMPRESS_SYNC_MODE, 2));
}

TEST_F(CapsSetup, raw_aac_gets_an_adts_header_from_the_codec_data_on_every_frame) {
    start();
    // AAC LC (2), 44.1 kHz (index 4), 2 channels.
    GstCaps* caps = gst_caps_from_string(
        "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw, channels=(int)2, rate=(int)44100");
    const guint8 asc[] = {0x12, 0x10};
    GstBuffer* codec_data = gst_buffer_new_memdup(asc, sizeof(asc));
    gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, codec_data, nullptr);
    gst_buffer_unref(codec_data);
    gst_harness_set_src_caps(h_, caps);
    tv().clear_events();
    GstBuffer* frame = gst_buffer_new_allocate(nullptr, 300, nullptr);
    gst_buffer_memset(frame, 0, 0xAB, 300);
    ASSERT_EQ(gst_harness_push(h_, frame), GST_FLOW_OK);
    auto writes = tv().events("write");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(write_sizes(), std::vector<size_t>{307});
    // 0xFFF1: MPEG-4, no CRC; LC, index 4, channel config 2; length 307; fullness 0x7FF.
    EXPECT_EQ(std::vector<uint8_t>(writes[0].in.begin(), writes[0].in.begin() + 7),
              (std::vector<uint8_t>{0xFF, 0xF1, 0x50, 0x80, 0x26, 0x7F, 0xFC}));
    EXPECT_EQ(writes[0].in[7], 0xAB);
}

TEST_F(CapsSetup, raw_aac_without_codec_data_is_refused_with_an_error) {
    start();
    tv().clear_events();
    gst_harness_set_src_caps_str(
        h_,
        "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw, channels=(int)2, "
        "rate=(int)48000");
    EXPECT_EQ(push(100), GST_FLOW_NOT_NEGOTIATED);
    EXPECT_EQ(tv().count("write"), 0u);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_SET_PARAMS"), 0u);
    EXPECT_GE(count_messages(GST_MESSAGE_ERROR), 1u);
}

TEST_F(CapsSetup, the_template_refuses_nine_channels_and_unframed_ac3) {
    start();
    GstPad* pad = gst_element_get_static_pad(sink(), "sink");
    GstCaps* nine = gst_caps_from_string(
        "audio/x-ac3, framed=(boolean)true, alignment=(string)frame, channels=(int)9, "
        "rate=(int)48000");
    GstCaps* unframed =
        gst_caps_from_string("audio/x-ac3, framed=(boolean)false, channels=(int)2, rate=(int)48000");
    GstCaps* pcm = gst_caps_from_string("audio/x-raw, format=S16LE, channels=(int)2, rate=(int)48000");
    EXPECT_FALSE(gst_pad_query_accept_caps(pad, nine));
    EXPECT_FALSE(gst_pad_query_accept_caps(pad, unframed));
    EXPECT_FALSE(gst_pad_query_accept_caps(pad, pcm));
    gst_caps_unref(nine);
    gst_caps_unref(unframed);
    gst_caps_unref(pcm);
    gst_object_unref(pad);
}

// ---- Lifecycle and errors ----

TEST_F(GstAudioTest, ready_opens_the_device_and_null_closes_it) {
    start();
    EXPECT_EQ(tv().open_descriptors(), 1);
    auto opens = tv().events(emutv::Device::Compr);
    ASSERT_FALSE(opens.empty());
    EXPECT_EQ(opens[0].name, "open");
    EXPECT_EQ(opens[0].path, kDevice);
    gst_element_set_state(sink(), GST_STATE_NULL);
    EXPECT_EQ(tv().open_descriptors(), 0);
    // The library's close puts the gain and the rate back to normal.
    EXPECT_EQ(control_writes(),
              (std::vector<std::pair<std::string, long>>{{"qvl speaker main gain", 32768},
                                                         {"qvl hp main gain", 32768},
                                                         {"audio dec0 playback rate", 100}}));
}

TEST_F(GstAudioTest, a_missing_device_fails_the_state_change_with_the_path_and_the_reason) {
    GstElement* s = gst_element_factory_make("ruvoaudiosink", nullptr);
    g_object_set(s, "device", "/dev/snd/comprC9D9", nullptr);
    bus_ = gst_bus_new();
    gst_element_set_bus(s, bus_);
    EXPECT_EQ(gst_element_set_state(s, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    auto errors = take(GST_MESSAGE_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(errors[0], &error, &debug);
    EXPECT_TRUE(g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE));
    EXPECT_NE(std::string(error->message).find("/dev/snd/comprC9D9"), std::string::npos) << error->message;
    EXPECT_NE(std::string(debug).find(strerror(ENOENT)), std::string::npos) << debug;
    g_error_free(error);
    g_free(debug);
    gst_message_unref(errors[0]);
    gst_element_set_state(s, GST_STATE_NULL);
    gst_object_unref(s);
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(GstAudioTest, the_default_device_is_the_first_compressed_offload_node) {
    GstElement* s = gst_element_factory_make("ruvoaudiosink", nullptr);
    gchar* device = nullptr;
    g_object_get(s, "device", &device, nullptr);
    EXPECT_STREQ(device, "/dev/snd/comprC0D0");
    g_free(device);
    gst_object_unref(s);
}

TEST_F(GstAudioTest, each_buffer_is_one_block_and_the_stream_starts_once) {
    start_with_caps();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(push(371), GST_FLOW_OK);
    EXPECT_EQ(write_sizes(), (std::vector<size_t>{371, 371, 371}));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(stat("blocks-pushed"), 3u);
    EXPECT_EQ(stat("bytes-pushed"), 3u * 371u);
    EXPECT_EQ(stat("no-space"), 0u);
    // Nothing printed per block: the room was known before each push.
    EXPECT_EQ(lines(), std::vector<std::string>{});
}

// After an accurate seek the demuxer starts with the frame that holds the target; a
// compressed frame cannot be cut, so the sound starts with the first whole frame inside the
// segment and the clock counts from that frame's own time.
TEST_F(GstAudioTest, a_frame_starting_before_the_segment_is_left_out) {
    start_with_caps();
    g_object_set(sink(), "sync", FALSE, nullptr);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = 100 * GST_MSECOND;
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&segment)));
    const GstClockTime straddling = segment.start - 10 * GST_MSECOND;  // ends inside the segment
    ASSERT_EQ(gst_harness_push(h_, block(371, straddling)), GST_FLOW_OK);
    EXPECT_EQ(write_sizes(), std::vector<size_t>{});
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 0u);
    ASSERT_EQ(gst_harness_push(h_, block(372, straddling + gst_audio_test::kFrame)), GST_FLOW_OK);
    ASSERT_EQ(gst_harness_push(h_, block(373, straddling + 2 * gst_audio_test::kFrame)), GST_FLOW_OK);
    EXPECT_EQ(write_sizes(), (std::vector<size_t>{372, 373}));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(stat("blocks-pushed"), 2u);
}

TEST_F(GstAudioTest, the_library_counts_every_byte_written_so_its_delay_is_exact) {
    start_with_caps();
    // 3 blocks of 371 bytes: 1113 bytes; the decoder took 1000 of them and holds nothing.
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(push(371), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 1000; });
    // Draining waits for those 113 bytes: the element reads them in transit.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const guint64 delay = stat("delay");
    // 113 of 1113 bytes still in transit: the last 113 bytes of the third frame.
    const double frame_share = 113.0 / 371.0;
    EXPECT_NEAR(static_cast<double>(delay), frame_share * gst_audio_test::kFrame,
                0.01 * gst_audio_test::kFrame);
}

TEST_F(GstAudioTest, a_failed_start_reopens_the_device_with_a_warning_and_plays_on) {
    start_with_caps();
    tv().fail("SNDRV_COMPRESS_START", EIO, 1);
    ASSERT_EQ(push(400), GST_FLOW_OK);
    ASSERT_EQ(push(400), GST_FLOW_OK);
    // The block went once to the first descriptor, then to the reopened one.
    EXPECT_EQ(compr_requests(), (std::vector<std::string>{"SNDRV_COMPRESS_TSTAMP",
                                                          "SNDRV_COMPRESS_GET_METADATA",
                                                          "SNDRV_COMPRESS_AVAIL",
                                                          "SNDRV_COMPRESS_AVAIL",
                                                          "write",
                                                          "SNDRV_COMPRESS_START",
                                                          "close",
                                                          "open",
                                                          "SNDRV_COMPRESS_GET_CAPS",
                                                          "SNDRV_COMPRESS_SET_PARAMS",
                                                          "SNDRV_COMPRESS_SET_METADATA",
                                                          "SNDRV_COMPRESS_SET_METADATA",
                                                          "SNDRV_COMPRESS_SET_METADATA",
                                                          "SNDRV_COMPRESS_TSTAMP",
                                                          "SNDRV_COMPRESS_GET_METADATA",
                                                          "SNDRV_COMPRESS_AVAIL",
                                                          "SNDRV_COMPRESS_AVAIL",
                                                          "write",
                                                          "SNDRV_COMPRESS_START",
                                                          "SNDRV_COMPRESS_AVAIL",
                                                          "write"}));
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 1u);
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
    EXPECT_EQ(stat("reopens"), 1u);
    EXPECT_EQ(stat("blocks-pushed"), 2u);
}

TEST_F(GstAudioTest, a_start_that_always_fails_is_an_error_after_the_documented_number_in_a_row) {
    start_with_caps();
    tv().fail("SNDRV_COMPRESS_START", EIO, -1);
    EXPECT_EQ(push(400), GST_FLOW_ERROR);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), static_cast<size_t>(RUVO_AUDIO_SINK_ERRORS_IN_A_ROW));
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), static_cast<size_t>(RUVO_AUDIO_SINK_ERRORS_IN_A_ROW - 1));
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 1u);
    EXPECT_EQ(tv().open_descriptors(), 1);  // reopened each time, never leaked
}

TEST_F(GstAudioTest, a_failed_write_drops_the_block_with_a_warning_and_a_run_of_them_is_an_error) {
    start_with_caps();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    tv().fail("write", EIO, 1);
    EXPECT_EQ(push(400), GST_FLOW_OK);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 1u);
    ASSERT_EQ(push(400), GST_FLOW_OK);  // a success ends the run
    tv().fail("write", EIO, -1);
    for (int i = 1; i < RUVO_AUDIO_SINK_ERRORS_IN_A_ROW; ++i)
        EXPECT_EQ(push(400), GST_FLOW_OK) << i;
    EXPECT_EQ(push(400), GST_FLOW_ERROR);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), static_cast<size_t>(RUVO_AUDIO_SINK_ERRORS_IN_A_ROW - 1));
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 1u);
    EXPECT_EQ(stat("blocks-pushed"), 2u);
}

// The element cannot tell garbage from audio on valid caps: it writes the bytes as they
// come, and the decoder (the emulated TV's model) counts them as undecodable and goes on.
TEST_F(GstAudioTest, garbage_on_valid_caps_is_written_and_the_decoder_counts_it_as_undecodable) {
    script([](emutv::ComprModel& c) { c.answers = emutv::ComprModel::Answers::Modelled; });
    start_with_caps();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(gst_harness_push(h_, garbage(400)), GST_FLOW_OK);
    std::vector<long long> undecodable_per_write;
    for (const auto& e : tv().events(emutv::Device::Compr))
        if (e.name == "write")
            undecodable_per_write.push_back(e.has("undecodable") ? e.field("undecodable") : 0);
    EXPECT_EQ(undecodable_per_write, (std::vector<long long>{400, 400, 400}));
    script([](emutv::ComprModel& c) {
        EXPECT_EQ(c.decoder.undecodable(), 1200u);
        EXPECT_EQ(c.decoder.queued(), 0u);  // taken from the ring and thrown away
        EXPECT_EQ(c.decoder.frames_played(), 0u);
    });
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(stat("blocks-pushed"), 3u);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 0u);
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
}

// ---- Properties ----

TEST_F(GstAudioTest, volume_and_mute_reach_the_gain_controls_with_the_library_mapping) {
    start_with_caps();
    using Writes = std::vector<std::pair<std::string, long>>;
    g_object_set(sink(), "volume", 0.5, nullptr);
    EXPECT_EQ(control_writes(), (Writes{{"qvl speaker main gain", 16384}, {"qvl hp main gain", 16384}}));
    g_object_set(sink(), "mute", TRUE, nullptr);
    EXPECT_EQ(control_writes(), (Writes{{"qvl speaker main gain", 0}, {"qvl hp main gain", 0}}));
    g_object_set(sink(), "volume", 0.25, nullptr);  // kept for the unmute
    EXPECT_EQ(control_writes(), Writes{});
    g_object_set(sink(), "mute", FALSE, nullptr);
    EXPECT_EQ(control_writes(), (Writes{{"qvl speaker main gain", 8192}, {"qvl hp main gain", 8192}}));
}

TEST_F(GstAudioTest, volume_set_before_open_is_applied_at_open) {
    GstElement* s = gst_element_factory_make("ruvoaudiosink", nullptr);
    g_object_set(s, "device", kDevice, "volume", 2.0, nullptr);
    ASSERT_EQ(gst_element_set_state(s, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(control_writes(), (std::vector<std::pair<std::string, long>>{{"qvl speaker main gain", 65536},
                                                                           {"qvl hp main gain", 65536}}));
    gst_element_set_state(s, GST_STATE_NULL);
    gst_object_unref(s);
}

TEST_F(GstAudioTest, it_is_a_stream_volume_so_playbin_uses_it) {
    start();
    ASSERT_TRUE(GST_IS_STREAM_VOLUME(sink()));
    gst_stream_volume_set_volume(GST_STREAM_VOLUME(sink()), GST_STREAM_VOLUME_FORMAT_LINEAR, 0.5);
    EXPECT_EQ(gst_stream_volume_get_volume(GST_STREAM_VOLUME(sink()), GST_STREAM_VOLUME_FORMAT_LINEAR), 0.5);
    gst_stream_volume_set_mute(GST_STREAM_VOLUME(sink()), TRUE);
    EXPECT_TRUE(gst_stream_volume_get_mute(GST_STREAM_VOLUME(sink())));
}

TEST_F(GstAudioTest, stats_are_read_only_and_documented) {
    auto* klass = static_cast<GObjectClass*>(g_type_class_ref(RUVO_TYPE_AUDIO_SINK));
    GParamSpec* stats_param = g_object_class_find_property(klass, "stats");
    ASSERT_NE(stats_param, nullptr);
    EXPECT_FALSE(stats_param->flags & G_PARAM_WRITABLE);
    for (const char* name : {"device", "sync-mode", "volume", "mute", "stats"}) {
        GParamSpec* p = g_object_class_find_property(klass, name);
        ASSERT_NE(p, nullptr) << name;
        EXPECT_GT(strlen(g_param_spec_get_blurb(p)), 10u) << name;
    }
    g_type_class_unref(klass);
}

TEST_F(GstAudioTest, the_element_provides_an_audio_clock) {
    start();
    GstClock* clock = gst_element_provide_clock(sink());
    ASSERT_NE(clock, nullptr);
    EXPECT_TRUE(GST_IS_AUDIO_CLOCK(clock));
    EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(sink(), GST_ELEMENT_FLAG_PROVIDE_CLOCK));
    gst_object_unref(clock);
}

TEST_F(GstAudioTest, null_to_playing_and_back_two_hundred_times_leaves_no_descriptor) {
    start_with_caps();
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(push(400), GST_FLOW_OK) << i;
        ASSERT_EQ(gst_element_set_state(sink(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(tv().open_descriptors(), 0) << i;
        gst_harness_play(h_);
        gst_harness_set_src_caps_str(h_, gst_audio_test::kAdtsCaps);
    }
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 200u);
    auto compr = tv().events(emutv::Device::Compr);
    EXPECT_EQ(
        std::count_if(compr.begin(), compr.end(), [](const emutv::Event& e) { return e.name == "open"; }),
        200);
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
    lines();
}

TEST_F(GstAudioTest, a_playback_report_that_keeps_failing_is_an_error_after_the_documented_number) {
    start_with_caps();
    tv().fail("SNDRV_COMPRESS_TSTAMP", EIO, -1);
    EXPECT_EQ(push(400), GST_FLOW_ERROR);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_TSTAMP"), static_cast<size_t>(RUVO_AUDIO_SINK_ERRORS_IN_A_ROW));
    EXPECT_EQ(tv().count("write"), 0u);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), static_cast<size_t>(RUVO_AUDIO_SINK_ERRORS_IN_A_ROW - 1));
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 1u);
    lines();
}
