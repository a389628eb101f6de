// ruvoaudiosink in real time on the emulated TV's audio decoder model: clips made in the
// test by GStreamer's encoders play through their parsers in their own duration, the
// position only goes forward, a pause holds the decoder, an AAC to AC-3 switch plays
// through; the decoder's periods come from the emulated TV's timeline.
#include <glib/gstdio.h>
#include <unistd.h>

#include <mutex>

#include "emutv/timeline.h"
#include "gst_audio_fixture.h"
#include "ruvo_gst_register.h"

using gst_audio_test::GstAudioTest;

namespace {

// Runs a pipeline description to EOS (or an error); false when it did not end in time.
bool run_to_eos(const std::string& description, GstClockTime timeout) {
    GError* error = nullptr;
    GstElement* p = gst_parse_launch(description.c_str(), &error);
    if (p == nullptr) {
        ADD_FAILURE() << description << ": " << (error != nullptr ? error->message : "");
        return false;
    }
    gst_element_set_state(p, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(p);
    GstMessage* m = gst_bus_timed_pop_filtered(
        bus, timeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool ok = m != nullptr && GST_MESSAGE_TYPE(m) == GST_MESSAGE_EOS;
    if (m != nullptr)
        gst_message_unref(m);
    gst_element_set_state(p, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(p);
    return ok;
}

}  // namespace

class RealTime : public GstAudioTest {
  protected:
    void SetUp() override {
        GstAudioTest::SetUp();
        char tmpl[] = "/tmp/ruvoaudiosink-clips.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        if (pipeline_ != nullptr) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            gst_object_unref(pipeline_);
        }
        tv().set_timeline_listener(nullptr);
        for (const char* f : {"aac.mp4", "ac3.ts", "short-aac.mp4", "short-ac3.ts"})
            g_unlink((dir_ + "/" + f).c_str());
        g_rmdir(dir_.c_str());
        GstAudioTest::TearDown();
    }

    // An AAC clip in MP4 and an AC-3 clip in MPEG-TS, `seconds` long, 48 kHz stereo (the
    // encoders run on the virtual clock: the emulated TV plays no part in making them).
    std::string aac_clip(const char* name, int seconds) {
        const std::string path = dir_ + "/" + name;
        EXPECT_TRUE(run_to_eos("audiotestsrc num-buffers=" + std::to_string(seconds * 100) +
                                   " samplesperbuffer=480 ! audio/x-raw,rate=48000,channels=2 ! avenc_aac ! "
                                   "mp4mux ! filesink location=" +
                                   path,
                               60 * GST_SECOND));
        return path;
    }
    std::string ac3_clip(const char* name, int seconds) {
        const std::string path = dir_ + "/" + name;
        EXPECT_TRUE(run_to_eos("audiotestsrc num-buffers=" + std::to_string(seconds * 100) +
                                   " samplesperbuffer=480 ! audio/x-raw,rate=48000,channels=2 ! avenc_ac3 ! "
                                   "ac3parse ! mpegtsmux ! filesink location=" +
                                   path,
                               60 * GST_SECOND));
        return path;
    }

    // The TV in real time with its decoder model; the decoder's periods collected.
    void real_time() {
        tv().set_clock_mode(emutv::ClockMode::Real);
        script([](emutv::ComprModel& c) { c.answers = emutv::ComprModel::Answers::Modelled; });
        tv().set_timeline_listener([this](const emutv::TimelineEntry& e) {
            if (e.type != emutv::TimelineEntry::Type::Audio)
                return;
            std::lock_guard<std::mutex> g(periods_lock_);
            periods_.push_back(e);
        });
    }

    std::vector<emutv::TimelineEntry> periods() {
        tv().sync_timeline();
        std::lock_guard<std::mutex> g(periods_lock_);
        return periods_;
    }

    struct Run {
        bool eos = false;
        double seconds = 0;     // PLAYING to EOS, wall clock
        bool monotonic = true;  // the position queried every 20 ms
        gint64 last_position = 0;
    };

    // Plays `description` (its audio sink named "audio") to EOS.
    Run play(const std::string& description, int timeout_s) {
        Run run;
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        EXPECT_NE(pipeline_, nullptr) << (error != nullptr ? error->message : "");
        if (pipeline_ == nullptr)
            return run;
        GstElement* audio = gst_bin_get_by_name(GST_BIN(pipeline_), "audio");
        GstBus* bus = gst_element_get_bus(pipeline_);
        const auto t0 = std::chrono::steady_clock::now();
        gst_element_set_state(pipeline_, GST_STATE_PLAYING);
        const auto give_up = t0 + std::chrono::seconds(timeout_s);
        GstMessage* end = nullptr;
        while (end == nullptr && std::chrono::steady_clock::now() < give_up) {
            end = gst_bus_timed_pop_filtered(
                bus, 20 * GST_MSECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
            gint64 position = 0;
            if (end == nullptr && gst_element_query_position(audio, GST_FORMAT_TIME, &position)) {
                run.monotonic = run.monotonic && position >= run.last_position;
                run.last_position = position;
            }
        }
        run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        run.eos = end != nullptr && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS;
        if (end != nullptr)
            gst_message_unref(end);
        gst_object_unref(bus);
        gst_object_unref(audio);
        return run;
    }

    std::string dir_;
    GstElement* pipeline_ = nullptr;
    std::mutex periods_lock_;
    std::vector<emutv::TimelineEntry> periods_;
};

TEST_F(RealTime, a_ten_second_aac_clip_plays_in_ten_seconds_with_the_position_going_forward) {
    const std::string clip = aac_clip("aac.mp4", 10);
    real_time();
    const Run run = play("filesrc location=" + clip + " ! qtdemux ! aacparse ! ruvoaudiosink name=audio", 30);
    ASSERT_TRUE(run.eos);
    RecordProperty("seconds", std::to_string(run.seconds));
    EXPECT_NEAR(run.seconds, 10.0, 0.1);
    EXPECT_TRUE(run.monotonic);
    EXPECT_NEAR(static_cast<double>(run.last_position) / GST_SECOND, 10.0, 0.1);
    const auto p = periods();
    ASSERT_FALSE(p.empty());
    EXPECT_NEAR(static_cast<double>(p.back().media_us) / 1e6, 10.0, 0.1);
    EXPECT_EQ(p.back().undecodable, 0u);
    EXPECT_EQ(lines(), std::vector<std::string>{});  // no no-space line from the library
}

TEST_F(RealTime, ac3_in_mpeg_ts_plays_in_its_own_time) {
    const std::string clip = ac3_clip("ac3.ts", 10);
    real_time();
    const Run run = play("filesrc location=" + clip + " ! tsdemux ! ac3parse ! ruvoaudiosink name=audio", 30);
    ASSERT_TRUE(run.eos);
    RecordProperty("seconds", std::to_string(run.seconds));
    EXPECT_NEAR(run.seconds, 10.0, 0.1);
    EXPECT_TRUE(run.monotonic);
    EXPECT_EQ(periods().back().undecodable, 0u);
}

TEST_F(RealTime, an_aac_programme_into_an_ac3_advertisement_plays_through) {
    const std::string aac = aac_clip("short-aac.mp4", 2);
    const std::string ac3 = ac3_clip("short-ac3.ts", 2);
    real_time();
    tv().clear_events();
    const Run run =
        play("concat name=c ! ruvoaudiosink name=audio filesrc location=" + aac +
                 " ! qtdemux ! aacparse ! c. filesrc location=" + ac3 + " ! tsdemux ! ac3parse ! c.",
             30);
    ASSERT_TRUE(run.eos);
    RecordProperty("seconds", std::to_string(run.seconds));
    EXPECT_NEAR(run.seconds, 4.0, 0.2);
    // The position is each programme's own stream time: the advertisement's, near its end.
    EXPECT_GT(run.last_position, static_cast<gint64>(1500 * GST_MSECOND));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_SET_PARAMS"), 2u);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_STOP"), 1u);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 2u);
    EXPECT_EQ(periods().back().undecodable, 0u);
}

TEST_F(RealTime, a_pause_holds_the_decoder_and_the_clock_and_resume_goes_on_without_a_jump) {
    const std::string clip = aac_clip("aac.mp4", 3);
    real_time();
    pipeline_ = gst_parse_launch(
        ("filesrc location=" + clip + " ! qtdemux ! aacparse ! ruvoaudiosink name=audio").c_str(), nullptr);
    ASSERT_NE(pipeline_, nullptr);
    GstElement* audio = gst_bin_get_by_name(GST_BIN(pipeline_), "audio");
    GstClock* clock = gst_element_provide_clock(audio);
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    gst_element_set_state(pipeline_, GST_STATE_PAUSED);
    gst_element_get_state(pipeline_, nullptr, nullptr, 5 * GST_SECOND);
    const GstClockTime held = gst_clock_get_time(clock);
    const auto paused_at = periods().size();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(gst_clock_get_time(clock), held);
    const auto during = periods();
    for (size_t i = paused_at + 1; i < during.size(); ++i)
        EXPECT_EQ(during[i].played, 0u) << i;  // nothing consumed while paused
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const GstClockTime resumed = gst_clock_get_time(clock);
    EXPECT_GT(resumed, held);
    EXPECT_LT(resumed - held, 300 * GST_MSECOND);  // on from where it stood
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* m = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_EOS);
    EXPECT_NE(m, nullptr);
    if (m != nullptr)
        gst_message_unref(m);
    EXPECT_NEAR(static_cast<double>(periods().back().media_us) / 1e6, 3.0, 0.1);  // no block lost
    gst_object_unref(bus);
    gst_object_unref(clock);
    gst_object_unref(audio);
}

TEST_F(RealTime, with_both_sinks_in_one_playbin_the_pipeline_runs_on_the_audio_clock) {
    ASSERT_TRUE(ruvo_video_sink_register(nullptr));
    const std::string clip = dir_ + "/av.mp4";
    ASSERT_TRUE(
        run_to_eos("mp4mux name=m ! filesink location=" + clip +
                       " audiotestsrc num-buffers=200 samplesperbuffer=480 ! "
                       "audio/x-raw,rate=48000,channels=2 ! avenc_aac ! m. "
                       "videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 ! "
                       "x264enc tune=zerolatency ! m.",
                   60 * GST_SECOND));
    real_time();
    pipeline_ = gst_element_factory_make("playbin", nullptr);
    ASSERT_NE(pipeline_, nullptr);
    GstElement* audio = gst_element_factory_make("ruvoaudiosink", nullptr);
    g_object_set(audio, "device", gst_audio_test::kDevice, nullptr);
    GstElement* video = gst_element_factory_make("ruvovideosink", nullptr);
    ASSERT_NE(video, nullptr);
    gchar* uri = gst_filename_to_uri(clip.c_str(), nullptr);
    g_object_set(pipeline_, "uri", uri, "audio-sink", audio, "video-sink", video, nullptr);
    g_free(uri);
    GstClock* provided = gst_element_provide_clock(audio);
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* m = gst_bus_timed_pop_filtered(
        bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(m), GST_MESSAGE_EOS);
    gst_message_unref(m);
    GstClock* used = gst_pipeline_get_pipeline_clock(GST_PIPELINE(pipeline_));
    EXPECT_EQ(used, provided);
    gst_object_unref(used);
    gst_object_unref(provided);
    gst_object_unref(bus);
    g_unlink(clip.c_str());
}
