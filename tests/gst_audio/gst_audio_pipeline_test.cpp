// ruvoaudiosink in whole pipelines on the scripted device, with a stand-in for the decoder
// that takes the blocks written at a steady byte rate: AAC from GStreamer's encoder through
// aacparse plays to EOS, and the pipeline runs on the element's clock.
#include <glib/gstdio.h>

#include <algorithm>

#include "gst_audio_fixture.h"

using gst_audio_test::GstAudioTest;

class Pipeline : public GstAudioTest {
  protected:
    void TearDown() override {
        stop_decoder();
        if (pipeline_ != nullptr) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            gst_object_unref(pipeline_);
        }
        GstAudioTest::TearDown();
    }

    // Takes what was written at `bytes_per_second`, leaving the room to the writer.
    void start_decoder(uint64_t bytes_per_second) {
        running_ = true;
        script([](emutv::ComprModel& c) {
            c.avail = 16384;
            c.consume_on_write = true;  // each write takes room, the decoder gives it back
        });
        decoder_ = std::thread([this, bytes_per_second] {
            const auto t0 = std::chrono::steady_clock::now();
            while (running_) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
                script([&](emutv::ComprModel& c) {
                    const uint64_t budget = static_cast<uint64_t>(s * static_cast<double>(bytes_per_second));
                    if (!c.running)
                        return;
                    // Whole blocks, as a decoder takes whole frames.
                    uint64_t taken = 0;
                    for (size_t n : c.write_sizes) {
                        if (taken + n > budget)
                            break;
                        taken += n;
                    }
                    c.avail += taken - c.copied_total;
                    c.copied_total = static_cast<uint32_t>(taken);
                });
            }
        });
    }
    void stop_decoder() {
        running_ = false;
        if (decoder_.joinable())
            decoder_.join();
    }

    GstElement* launch(const char* description) {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description, &error);
        EXPECT_EQ(error, nullptr) << (error != nullptr ? error->message : "");
        return pipeline_;
    }

    GstElement* pipeline_ = nullptr;
    std::thread decoder_;
    std::atomic<bool> running_{false};
};

TEST_F(Pipeline, encoded_aac_plays_to_eos_on_the_element_clock_beside_a_video_branch) {
    ASSERT_NE(
        launch("audiotestsrc num-buffers=100 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 ! "
               "avenc_aac bitrate=128000 ! aacparse ! ruvoaudiosink name=audio device=/dev/snd/comprC0D0 "
               "videotestsrc num-buffers=50 ! video/x-raw,framerate=25/1 ! fakesink sync=true"),
        nullptr);
    start_decoder(16000);
    GstElement* audio = gst_bin_get_by_name(GST_BIN(pipeline_), "audio");
    ASSERT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* m = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_ASYNC_DONE);
    ASSERT_NE(m, nullptr);
    gst_message_unref(m);
    GstClock* provided = gst_element_provide_clock(audio);
    GstClock* used = gst_pipeline_get_pipeline_clock(GST_PIPELINE(pipeline_));
    EXPECT_EQ(used, provided);
    gint64 last = 0;
    bool monotonic = true;
    GstMessage* end = nullptr;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < give_up &&
           ((end = gst_bus_timed_pop_filtered(
                 bus, 100 * GST_MSECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR))) ==
            nullptr)) {
        gint64 position = 0;
        if (gst_element_query_position(audio, GST_FORMAT_TIME, &position)) {
            monotonic = monotonic && position >= last;
            last = position;
        }
    }
    ASSERT_NE(end, nullptr) << "no EOS within 60 s";
    EXPECT_EQ(GST_MESSAGE_TYPE(end), GST_MESSAGE_EOS);
    gst_message_unref(end);
    EXPECT_TRUE(monotonic);
    EXPECT_GT(last, 0);
    {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        EXPECT_EQ(tv().compr().copied_total, tv().compr().bytes_written);  // EOS after the decoder took all
        EXPECT_GE(tv().compr().starts, 1u);
    }
    EXPECT_EQ(lines(), std::vector<std::string>{});  // no no-space line from the library
    gst_object_unref(used);
    gst_object_unref(provided);
    gst_object_unref(bus);
    gst_object_unref(audio);
}

namespace {

bool has_element_of(GstBin* bin, const char* factory_name) {
    GstIterator* it = gst_bin_iterate_recurse(bin);
    GValue item = G_VALUE_INIT;
    bool found = false;
    while (!found && gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
        GstElementFactory* f = gst_element_get_factory(GST_ELEMENT(g_value_get_object(&item)));
        found = f != nullptr && g_strcmp0(GST_OBJECT_NAME(f), factory_name) == 0;
        g_value_reset(&item);
    }
    g_value_unset(&item);
    gst_iterator_free(it);
    return found;
}

}  // namespace

TEST_F(Pipeline, playbin_hands_parsed_aac_to_the_element_and_its_volume_to_the_gain_controls) {
    char dir[] = "/tmp/ruvoaudiosink-playbin.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string clip = std::string(dir) + "/clip.mp4";
    GstElement* encode = gst_parse_launch(("audiotestsrc num-buffers=50 samplesperbuffer=960 ! "
                                           "audio/x-raw,rate=48000,channels=2 ! avenc_aac ! mp4mux ! "
                                           "filesink location=" +
                                           clip)
                                              .c_str(),
                                          nullptr);
    ASSERT_NE(encode, nullptr);
    gst_element_set_state(encode, GST_STATE_PLAYING);
    GstBus* ebus = gst_element_get_bus(encode);
    GstMessage* done = gst_bus_timed_pop_filtered(
        ebus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(done, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(done), GST_MESSAGE_EOS);
    gst_message_unref(done);
    gst_object_unref(ebus);
    gst_element_set_state(encode, GST_STATE_NULL);
    gst_object_unref(encode);

    pipeline_ = gst_element_factory_make("playbin", nullptr);
    ASSERT_NE(pipeline_, nullptr);
    GstElement* audio = gst_element_factory_make("ruvoaudiosink", nullptr);
    g_object_set(audio, "device", gst_audio_test::kDevice, nullptr);
    gchar* uri = gst_filename_to_uri(clip.c_str(), nullptr);
    g_object_set(pipeline_, "uri", uri, "audio-sink", audio, "video-sink",
                 gst_element_factory_make("fakesink", nullptr), "volume", 0.5, nullptr);
    g_free(uri);
    control_writes();
    ASSERT_EQ(gst_element_set_state(pipeline_, GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
    ASSERT_EQ(gst_element_get_state(pipeline_, nullptr, nullptr, 30 * GST_SECOND), GST_STATE_CHANGE_SUCCESS);
    // Parsed AAC reached the element (no decoder in between), set up as the clip is.
    EXPECT_FALSE(has_element_of(GST_BIN(pipeline_), "avdec_aac"));
    EXPECT_FALSE(has_element_of(GST_BIN(pipeline_), "volume"));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_SET_PARAMS"), 1u);
    const auto writes = control_writes();
    EXPECT_NE(
        std::find(writes.begin(), writes.end(), std::make_pair(std::string("qvl speaker main gain"), 16384L)),
        writes.end());
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    g_unlink(clip.c_str());
    g_rmdir(dir);
}
