// ruvoaudiosink's flow: waiting for the decoder's room, pause and resume, rate, flush, EOS
// after the drain, a codec switch, and the clock and position from the playback report.
#include <errno.h>

#include "gst_audio_fixture.h"

using gst_audio_test::GstAudioTest;
using gst_audio_test::kFrame;
using Writes = std::vector<std::pair<std::string, long>>;

namespace {

constexpr char kAc3Caps[] =
    "audio/x-ac3, framed=(boolean)true, alignment=(string)frame, channels=(int)2, rate=(int)48000";

// The driver's remain answer for `ns` of decoded 2-channel audio (48 kHz, 16-bit).
uint64_t remain_for(GstClockTime ns) {
    return (ns * 48000 + GST_SECOND / 2) / GST_SECOND * 4;
}

// A full driver buffer: less room than any block plus the library's reserve.
constexpr uint64_t kFull = 200;

}  // namespace

class Flow : public GstAudioTest {
  protected:
    // The driver's buffer fills with the first block of 400 bytes, leaving kFull.
    void fill_with_first_block() {
        script([](emutv::ComprModel& c) {
            c.avail = 400 + kFull;
            c.consume_on_write = true;
        });
    }
    GstClockTime clock_time() {
        GstClock* clock = gst_element_provide_clock(sink());
        const GstClockTime t = gst_clock_get_time(clock);
        gst_object_unref(clock);
        return t;
    }
    bool query_position(gint64* position) {
        return gst_element_query_position(sink(), GST_FORMAT_TIME, position);
    }
    // The driver's stream counts afresh after the stop.
    void counts_afresh_after_stop() {
        tv().set_listener([](const emutv::Event& e) {
            if (e.name == "SNDRV_COMPRESS_STOP")
                emutv::platform().compr().copied_total = 0;
        });
    }
    // A programme of 4 AAC blocks from `first_pts`, all played; then AC-3 caps, the switch
    // waiting for the next block.
    void play_out_a_programme_then_ac3_caps(GstClockTime first_pts) {
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(push(400, first_pts + i * kFrame), GST_FLOW_OK);
        script([](emutv::ComprModel& c) { c.copied_total = 1600; });
        gst_harness_set_src_caps_str(h_, kAc3Caps);
        counts_afresh_after_stop();
    }
    void set_state(GstState state) {
        gst_element_set_state(sink(), state);
        gst_element_get_state(sink(), nullptr, nullptr, 0);
    }
};

TEST_F(Flow, a_full_buffer_holds_the_block_without_spinning_or_printing_until_there_is_room) {
    start_with_caps();
    script([](emutv::ComprModel& c) { c.avail = kFull; });
    push_in_background(400);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_FALSE(pushed_);
    EXPECT_EQ(count("write"), 0u);
    // A report at most every 20 ms: 25 in 500 ms, and a few for the scheduling.
    EXPECT_GE(count("SNDRV_COMPRESS_TSTAMP"), 2u);
    EXPECT_LE(count("SNDRV_COMPRESS_TSTAMP"), 28u);
    script([](emutv::ComprModel& c) { c.avail = 65536; });
    ASSERT_TRUE(wait_pushed());
    EXPECT_EQ(result_, GST_FLOW_OK);
    EXPECT_EQ(count("write"), 1u);
    EXPECT_EQ(stat("no-space"), 0u);
    // The library's no-space line never came: the element asked for the room first.
    EXPECT_EQ(lines(), std::vector<std::string>{});
}

TEST_F(Flow, the_no_space_answer_is_met_only_when_the_room_shrinks_under_the_report) {
    start_with_caps();
    // The report sees room; the push's own AVAIL just after sees none, then room again.
    auto seen = std::make_shared<int>(0);
    tv().set_listener([seen](const emutv::Event& e) {
        if (e.name != "SNDRV_COMPRESS_AVAIL")
            return;
        ++*seen;
        if (*seen == 1)
            emutv::platform().compr().avail = 100;
        if (*seen == 2)
            emutv::platform().compr().avail = 65536;
    });
    ASSERT_EQ(push(400), GST_FLOW_OK);
    tv().set_listener(nullptr);
    EXPECT_EQ(count("write"), 1u);
    EXPECT_EQ(stat("no-space"), 1u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{ruvo_test::aline(
                  "quarvel_audio_output_push_data",
                  "quarvel_audio_output_push_data no space (need = 400, with_headers = 400, avail = 100)")}));
}

TEST_F(Flow, a_flush_ends_the_wait_at_once_and_restarts_the_stream) {
    start_with_caps();
    fill_with_first_block();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    push_in_background(400);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_FALSE(pushed_);
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    ASSERT_TRUE(wait_pushed());
    EXPECT_EQ(result_, GST_FLOW_FLUSHING);
    gint64 position = 0;
    EXPECT_FALSE(query_position(&position));  // refused while flushing
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE)));
    EXPECT_EQ(count("SNDRV_COMPRESS_STOP"), 1u);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&segment)));
    script([](emutv::ComprModel& c) { c.avail = 65536; });
    ASSERT_EQ(push(400), GST_FLOW_OK);
    EXPECT_EQ(count("SNDRV_COMPRESS_START"), 2u);
    EXPECT_EQ(count("write"), 2u);
}

TEST_F(Flow, pause_holds_the_decoder_through_the_rate_control_and_resume_goes_on) {
    start_with_caps();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    control_writes();
    set_state(GST_STATE_PAUSED);
    // Rate 0 holds what the decoder has; a stop would drop it.
    EXPECT_EQ(control_writes(), (Writes{{"audio dec0 playback rate", 0}}));
    EXPECT_EQ(count("SNDRV_COMPRESS_STOP"), 0u);
    set_state(GST_STATE_PLAYING);
    EXPECT_EQ(control_writes(), (Writes{{"audio dec0 playback rate", 100}}));
    ASSERT_EQ(push(400), GST_FLOW_OK);
    EXPECT_EQ(count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(count("write"), 2u);
}

TEST_F(Flow, a_pause_during_the_wait_holds_the_block_until_resume) {
    start_with_caps();
    fill_with_first_block();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    push_in_background(400);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    gst_element_set_state(sink(), GST_STATE_PAUSED);
    const size_t polls = count("SNDRV_COMPRESS_TSTAMP");
    script([](emutv::ComprModel& c) { c.avail = 65536; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(pushed_);  // paused: the block waits in the base sink
    EXPECT_LE(count("SNDRV_COMPRESS_TSTAMP"), polls + 1);
    gst_element_set_state(sink(), GST_STATE_PLAYING);
    ASSERT_TRUE(wait_pushed());
    EXPECT_EQ(result_, GST_FLOW_OK);
    EXPECT_EQ(count("write"), 2u);
}

TEST_F(Flow, segment_rate_and_instant_rate_changes_reach_the_rate_control) {
    start();
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.rate = 1.5;
    gst_harness_set_src_caps_str(h_, gst_audio_test::kAdtsCaps);
    control_writes();
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&segment)));
    EXPECT_EQ(control_writes(), (Writes{{"audio dec0 playback rate", 150}}));
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_instant_rate_change(0.5, GST_SEGMENT_FLAG_NONE)));
    EXPECT_EQ(control_writes(), (Writes{{"audio dec0 playback rate", 75}}));
}

TEST_F(Flow, eos_is_posted_once_the_decoder_played_everything) {
    start_with_caps();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    std::thread eos([this] { gst_harness_push_event(h_, gst_event_new_eos()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 0u);
    // Taken, but the decoder still holds a frame's worth.
    script([](emutv::ComprModel& c) {
        c.copied_total = 1200;
        c.remain = remain_for(kFrame);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 0u);
    script([](emutv::ComprModel& c) { c.remain = 0; });
    eos.join();
    GstMessage* m = gst_bus_timed_pop_filtered(bus_, 5 * GST_SECOND, GST_MESSAGE_EOS);
    ASSERT_NE(m, nullptr);
    gst_message_unref(m);
}

TEST_F(Flow, a_codec_switch_drains_stops_and_sets_up_again) {
    start_with_caps();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    ASSERT_EQ(push(400), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 800; });  // all played
    gst_harness_set_src_caps_str(
        h_,
        "audio/x-ac3, framed=(boolean)true, alignment=(string)frame, channels=(int)6, "
        "rate=(int)48000");
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_SET_PARAMS"), 0u);  // not before the stream played out
    tv().clear_events();
    counts_afresh_after_stop();
    ASSERT_EQ(push(768), GST_FLOW_OK);
    auto requests = compr_requests();
    // The drain's report, then stop, setup of 6 channels, the new stream's report and block.
    const std::vector<std::string> expected{"SNDRV_COMPRESS_TSTAMP",       "SNDRV_COMPRESS_GET_METADATA",
                                            "SNDRV_COMPRESS_AVAIL",        "SNDRV_COMPRESS_STOP",
                                            "SNDRV_COMPRESS_GET_CAPS",     "SNDRV_COMPRESS_SET_PARAMS",
                                            "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_SET_METADATA",
                                            "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_TSTAMP",
                                            "SNDRV_COMPRESS_GET_METADATA", "SNDRV_COMPRESS_AVAIL",
                                            "SNDRV_COMPRESS_AVAIL",        "write",
                                            "SNDRV_COMPRESS_START"};
    EXPECT_EQ(requests, expected);
    auto params = tv().events("SNDRV_COMPRESS_SET_PARAMS");
    ASSERT_EQ(params.size(), 1u);
    EXPECT_EQ(params[0].field("ch_in"), 6);
}

// An advertisement spliced after a programme may begin before the programme ended. On the
// element's own clock the frames that clock already passed are left out, and the first one
// still due starts the stream: the sound stays with the picture.
TEST_F(Flow, after_a_codec_switch_the_frames_the_clock_already_passed_are_left_out) {
    start_with_caps();
    GstClock* own = gst_element_provide_clock(sink());
    ASSERT_TRUE(gst_element_set_clock(sink(), own));
    gst_object_unref(own);
    gst_element_set_base_time(sink(), 0);  // running time is the clock's time
    const GstClockTime start = clock_time();
    play_out_a_programme_then_ac3_caps(start);
    const GstClockTime programme_end = start + 4 * kFrame;
    const GstClockTime ac3_frame = 32 * GST_MSECOND;
    tv().clear_events();
    // Due 20 ms before the programme's end, more than half a frame: already heard over.
    ASSERT_EQ(gst_harness_push(h_, block(768, programme_end - 20 * GST_MSECOND, ac3_frame)), GST_FLOW_OK);
    EXPECT_EQ(count("SNDRV_COMPRESS_SET_PARAMS"), 1u);
    EXPECT_EQ(count("write"), 0u);
    ASSERT_EQ(gst_harness_push(h_, block(768, programme_end + 500 * GST_MSECOND, ac3_frame)), GST_FLOW_OK);
    EXPECT_EQ(count("write"), 1u);
    EXPECT_EQ(count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(stat("late"), 1u);
}

// On another clock the element cannot tell when a frame is due: after a switch every frame
// is written.
TEST_F(Flow, after_a_codec_switch_on_another_clock_every_frame_is_written) {
    start_with_caps();
    play_out_a_programme_then_ac3_caps(0);
    tv().clear_events();
    ASSERT_EQ(gst_harness_push(h_, block(768, 0, 32 * GST_MSECOND)), GST_FLOW_OK);
    EXPECT_EQ(count("write"), 1u);
}

TEST_F(Flow, the_clock_is_the_time_leaving_the_decoder_and_stands_while_paused) {
    start_with_caps();
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    const GstClockTime t0 = clock_time();
    // Nothing taken: the first sample has not left the decoder.
    script([](emutv::ComprModel& c) {
        c.copied_total = 1600;  // 4 frames taken
        c.remain = remain_for(kFrame);
    });
    set_state(GST_STATE_PAUSED);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    const GstClockTime t1 = clock_time();
    // 4 frames taken, one of them still in the decoder: 3 frames heard, to a few ns.
    EXPECT_NEAR(static_cast<double>(t1 - t0), 3.0 * kFrame, 1000.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(clock_time(), t1);  // paused: the clock stands
    gint64 position = 0;
    ASSERT_TRUE(query_position(&position));
    EXPECT_NEAR(static_cast<double>(position), 3.0 * kFrame, 1000.0);
    set_state(GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // Playing: on from where it stood, never past what the decoder had decoded (4 frames).
    const GstClockTime t2 = clock_time();
    EXPECT_GE(t2, t1);
    EXPECT_LE(t2 - t0, 4 * kFrame);
}

TEST_F(Flow, the_clock_never_goes_back_when_the_stream_is_flushed) {
    start_with_caps();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 1600; });
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    const GstClockTime before = clock_time();
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE)));
    script([](emutv::ComprModel& c) { c.copied_total = 0; });
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&segment)));
    ASSERT_EQ(push(400, 0), GST_FLOW_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_GE(clock_time(), before);
}

// Between a flush and the next stream no sound plays, yet the pipeline waits on this clock
// for the new stream's first block (its running time is rarely exactly 0): the clock runs on
// as silence plays, and stands while paused.
TEST_F(Flow, after_a_flush_the_clock_runs_on_until_the_next_stream_starts) {
    start_with_caps();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 1600; });
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE)));
    const GstClockTime t0 = clock_time();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    const GstClockTime t1 = clock_time();
    EXPECT_GE(t1 - t0, 30 * GST_MSECOND);  // slept 40 ms
    set_state(GST_STATE_PAUSED);
    const GstClockTime t2 = clock_time();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(clock_time(), t2);  // paused: the clock stands
}

TEST_F(Flow, latency_includes_what_the_decoder_holds) {
    start_with_caps();
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    GstQuery* q = gst_query_new_latency();
    ASSERT_TRUE(gst_element_query(sink(), q));
    gboolean live = FALSE;
    GstClockTime min = 0, max = 0;
    gst_query_parse_latency(q, &live, &min, &max);
    EXPECT_GE(min, 5 * kFrame - 1000);  // nothing taken yet: all five frames are ahead
    gst_query_unref(q);
}

TEST_F(Flow, report_reads_under_a_full_buffer_stay_within_fifty_a_second) {
    start_with_caps();
    fill_with_first_block();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    const size_t before = count("SNDRV_COMPRESS_TSTAMP");
    push_in_background(400);
    const auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const size_t polls = count("SNDRV_COMPRESS_TSTAMP") - before;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    ASSERT_TRUE(wait_pushed());
    RecordProperty("reports_per_second", std::to_string(polls / seconds));
    EXPECT_LE(static_cast<double>(polls), 50.0 * seconds + 1.0);
    EXPECT_GE(polls, 2u);
}

TEST_F(Flow, after_eos_the_clock_runs_on_as_silence_plays_and_stands_while_paused) {
    start_with_caps();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(push(400, i * kFrame), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 1200; });
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_eos()));
    const GstClockTime t0 = clock_time();
    EXPECT_GE(t0, 3 * kFrame);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const GstClockTime t1 = clock_time();
    EXPECT_GE(t1 - t0, 90 * GST_MSECOND);  // CLOCK_MONOTONIC_RAW against the sleep's clock
    set_state(GST_STATE_PAUSED);
    const GstClockTime t2 = clock_time();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(clock_time(), t2);
    set_state(GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const GstClockTime t3 = clock_time();
    EXPECT_GE(t3 - t2, 45 * GST_MSECOND);
    EXPECT_LT(t3 - t2, 10 * GST_SECOND);  // on from where it stood, no jump
}

TEST_F(Flow, leaving_paused_for_ready_during_the_wait_ends_it_as_flushing) {
    start_with_caps();
    fill_with_first_block();
    ASSERT_EQ(push(400), GST_FLOW_OK);
    push_in_background(400);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_FALSE(pushed_);
    gst_element_set_state(sink(), GST_STATE_READY);
    ASSERT_TRUE(wait_pushed());
    EXPECT_EQ(result_, GST_FLOW_FLUSHING);
    EXPECT_EQ(count("write"), 1u);
    EXPECT_EQ(count("SNDRV_COMPRESS_STOP"), 1u);  // the stream ends with the state
}

TEST_F(Flow, a_decoder_found_empty_while_playing_counts_one_underrun_per_starvation) {
    start_with_caps();
    ASSERT_EQ(push(400, 0), GST_FLOW_OK);
    script([](emutv::ComprModel& c) { c.copied_total = 400; });  // all taken and played
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(stat("underruns"), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(stat("underruns"), 1u);  // still the same starvation
    ASSERT_EQ(push(400, kFrame), GST_FLOW_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(stat("underruns"), 1u);  // fed again
    script([](emutv::ComprModel& c) { c.copied_total = 800; });
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(stat("underruns"), 2u);
}
