// The chip's audio decoder model: sync-frame parsing, the pace of the stream, the rate
// and mute controls, START and STOP, undecodable bytes, and answers consistent with one
// state at every poll. Virtual time throughout: deterministic.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "emutv/audio_decoder.h"
#include "emutv/fingerprint.h"
#include "emutv/timeline.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo_internal_audio.h"
#include "stream_builders.h"
#include "test_support.h"

using emutv::AudioDecoder;
using emutv::AudioFrameInfo;
using namespace timeline_test;

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kPeriod = 10 * kMs;
constexpr uint64_t kAdtsFrameNs = 1024ULL * 1000000000ULL / 48000;  // 21.333 ms

AudioDecoder::Config parsed_config(uint64_t ring = 32768, uint64_t dsp = 8192) {
    AudioDecoder::Config c;
    c.pacing = AudioDecoder::Pacing::Parsed;
    c.ring_bytes = ring;
    c.dsp_bytes = dsp;
    c.period_ns = kPeriod;
    return c;
}

// Feeds `stream` as the ring takes it and advances in 1 ms steps until everything is
// played; returns the virtual time it took from START (or -1 after `limit`).
int64_t play_to_end(AudioDecoder& d, const std::vector<uint8_t>& stream, uint64_t total_frames, long rate,
                    int64_t limit = 60000 * kMs) {
    size_t fed = 0;
    int64_t now = 0;
    d.start(now);
    auto noop = [](const AudioDecoder::Period&) {};
    while (now < limit) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(d.avail(), stream.size() - fed));
        fed += d.write(stream.data() + fed, n);
        if (d.frames_played() >= total_frames)
            return now;
        now += kMs;
        d.advance(now, rate, noop);
    }
    return -1;
}

TEST(AudioFrameParse, adts_ac3_and_eac3_headers_give_each_frame_its_length_and_duration) {
    AudioFrameInfo f;
    bool more = false;
    auto adts = adts_frame(300);
    ASSERT_TRUE(emutv::parse_audio_frame(adts.data(), adts.size(), &f, &more));
    EXPECT_EQ(f.bytes, 300u);
    EXPECT_EQ(f.samples, 1024u);
    EXPECT_EQ(f.sampling_rate, 48000u);

    auto ac3 = ac3_frame();
    ASSERT_TRUE(emutv::parse_audio_frame(ac3.data(), ac3.size(), &f, &more));
    EXPECT_EQ(f.bytes, 768u);
    EXPECT_EQ(f.samples, 1536u);
    EXPECT_EQ(f.sampling_rate, 48000u);

    auto eac3 = eac3_frame(512);
    ASSERT_TRUE(emutv::parse_audio_frame(eac3.data(), eac3.size(), &f, &more));
    EXPECT_EQ(f.bytes, 512u);
    EXPECT_EQ(f.samples, 1536u);
    auto dependent = eac3_frame(256, true);
    ASSERT_TRUE(emutv::parse_audio_frame(dependent.data(), dependent.size(), &f, &more));
    EXPECT_EQ(f.samples, 0u) << "a dependent substream adds no time";

    // Three bytes of a header: more is needed; garbage: no frame.
    EXPECT_FALSE(emutv::parse_audio_frame(adts.data(), 3, &f, &more));
    EXPECT_TRUE(more);
    const uint8_t junk[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_FALSE(emutv::parse_audio_frame(junk, sizeof(junk), &f, &more));
    EXPECT_FALSE(more);
}

TEST(AudioDecoderModel, a_ten_second_adts_stream_plays_in_ten_seconds_within_one_period) {
    uint32_t frames = 0;
    auto stream = adts_stream(10.0, 400, &frames);
    AudioDecoder d;
    d.reset(parsed_config());
    d.set_params(2, 48000);
    const int64_t took = play_to_end(d, stream, uint64_t{frames} * 1024, 100);
    const int64_t duration = static_cast<int64_t>(frames * kAdtsFrameNs);
    ASSERT_GT(took, 0);
    EXPECT_NEAR(static_cast<double>(took), static_cast<double>(duration), static_cast<double>(kPeriod));
    EXPECT_NEAR(static_cast<double>(took), 10.0e9, static_cast<double>(kPeriod) + kAdtsFrameNs);
    EXPECT_EQ(d.media_us(), static_cast<int64_t>(frames * kAdtsFrameNs / 1000));
    EXPECT_EQ(d.undecodable(), 0u);
    EXPECT_EQ(d.copied_total(), stream.size());
}

TEST(AudioDecoderModel, rate_200_halves_the_time_and_rate_0_holds_the_decoder) {
    uint32_t frames = 0;
    auto stream = adts_stream(4.0, 300, &frames);
    AudioDecoder normal, fast;
    normal.reset(parsed_config());
    fast.reset(parsed_config());
    const int64_t t100 = play_to_end(normal, stream, uint64_t{frames} * 1024, 100);
    const int64_t t200 = play_to_end(fast, stream, uint64_t{frames} * 1024, 200);
    ASSERT_GT(t100, 0);
    ASSERT_GT(t200, 0);
    EXPECT_NEAR(static_cast<double>(t200), t100 / 2.0, 2.0 * kMs);

    AudioDecoder held;
    held.reset(parsed_config());
    held.start(0);
    held.write(stream.data(), 16384);
    held.advance(500 * kMs, 100, [](const AudioDecoder::Period&) {});
    const uint64_t at_half_second = held.frames_played();
    EXPECT_EQ(at_half_second, 24000u);
    held.advance(1500 * kMs, 0, [](const AudioDecoder::Period&) {});
    EXPECT_EQ(held.frames_played(), at_half_second) << "rate 0 plays nothing while the time goes on";
}

TEST(AudioDecoderModel, stop_drops_the_queue_and_the_counters_start_again) {
    auto stream = adts_stream(2.0, 500);
    AudioDecoder d;
    d.reset(parsed_config(32768, 4096));
    d.set_params(2, 48000);
    d.start(0);
    ASSERT_EQ(d.write(stream.data(), 20000), 20000u);
    d.advance(100 * kMs, 100, [](const AudioDecoder::Period&) {});
    ASSERT_GT(d.queued(), 0u);
    ASSERT_GT(d.copied_total(), 0u);
    ASSERT_GT(d.remain(), 0u);
    d.stop();
    EXPECT_EQ(d.queued(), 0u);
    EXPECT_EQ(d.avail(), 32768u);
    EXPECT_EQ(d.copied_total(), 0u);
    EXPECT_EQ(d.pcm_io_frames(), 0u);
    EXPECT_EQ(d.remain(), 0u);
    EXPECT_FALSE(d.running());
    // Stopped, nothing plays.
    d.write(stream.data(), 1000);
    d.advance(300 * kMs, 100, [](const AudioDecoder::Period&) {});
    EXPECT_EQ(d.pcm_io_frames(), 0u);
    EXPECT_EQ(d.copied_total(), 0u);
}

TEST(AudioDecoderModel, undecodable_bytes_are_counted_and_the_decoder_goes_on) {
    std::vector<uint8_t> data;
    const std::vector<uint8_t> junk = {0x01, 0x02, 0xFF, 0x00, 0x0B, 0x00, 0x55};
    auto frame = adts_frame(256);
    data.insert(data.end(), junk.begin(), junk.end());
    data.insert(data.end(), frame.begin(), frame.end());
    data.insert(data.end(), junk.begin(), junk.end());
    data.insert(data.end(), frame.begin(), frame.end());
    AudioDecoder d;
    d.reset(parsed_config());
    d.start(0);
    EXPECT_EQ(d.write(data.data(), data.size()), data.size());
    EXPECT_EQ(d.undecodable_last_write(), 2 * junk.size());
    EXPECT_EQ(d.undecodable(), 2 * junk.size());
    d.advance(100 * kMs, 100, [](const AudioDecoder::Period&) {});
    EXPECT_EQ(d.frames_played(), 2048u);
    EXPECT_EQ(d.copied_total(), data.size());
    // Random bytes: never a crash, every byte accounted for.
    std::mt19937 rng(7);
    std::vector<uint8_t> noise(20000);
    for (auto& b : noise)
        b = static_cast<uint8_t>(rng());
    AudioDecoder n;
    n.reset(parsed_config(65536, 8192));
    n.start(0);
    const size_t taken = n.write(noise.data(), noise.size());
    n.advance(5000 * kMs, 100, [](const AudioDecoder::Period&) {});
    EXPECT_EQ(taken, noise.size());
    EXPECT_EQ(n.queued() + n.copied_total(), noise.size());
    EXPECT_GT(n.undecodable(), 0u);
}

TEST(AudioDecoderModel, a_write_larger_than_the_room_is_short) {
    auto stream = adts_stream(2.0, 500);
    AudioDecoder d;
    d.reset(parsed_config(4096, 1024));
    EXPECT_EQ(d.write(stream.data(), 10000), 4096u);
    EXPECT_EQ(d.avail(), 0u);
    EXPECT_EQ(d.write(stream.data(), 10), 0u);
}

// The answers of one poll, for the consistency checks.
struct Poll {
    uint64_t avail, queued, remain;
    uint32_t copied, pcm_frames, rate;
};

Poll poll(const AudioDecoder& d) {
    return Poll{d.avail(), d.queued(), d.remain(), d.copied_total(), d.pcm_io_frames(), d.sampling_rate()};
}

TEST(AudioDecoderModel, at_every_poll_avail_tstamp_and_remain_agree_over_random_sequences) {
    auto stream = adts_stream(30.0, 333);
    for (unsigned seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const uint64_t ring = 4096u << (rng() % 4);
        const uint64_t dsp = 1024u << (rng() % 3);
        AudioDecoder d;
        d.reset(parsed_config(ring, dsp));
        d.set_params(2, 48000);
        int64_t now = 0;
        size_t fed = 0;
        uint64_t written_since_start = 0;
        Poll last{};
        auto noop = [](const AudioDecoder::Period&) {};
        for (int op = 0; op < 400; ++op) {
            switch (rng() % 8) {
                case 0:
                case 1:
                case 2: {  // push what fits (sometimes with garbage in front)
                    std::vector<uint8_t> block;
                    if (rng() % 5 == 0)
                        block.assign(1 + rng() % 40, static_cast<uint8_t>(rng() % 7));
                    const size_t n = std::min<size_t>(1 + rng() % 3000, stream.size() - fed);
                    block.insert(block.end(), stream.begin() + static_cast<long>(fed),
                                 stream.begin() + static_cast<long>(fed + n));
                    const uint64_t room = d.avail();
                    const size_t taken = d.write(block.data(), block.size());
                    ASSERT_EQ(taken, std::min<uint64_t>(room, block.size()))
                        << "a short write takes the room";
                    written_since_start += taken;
                    fed = (fed + n) % (stream.size() - 4000);
                    // Realign on a frame boundary now and then happens by itself: the
                    // parser skips what is not a sync frame.
                    break;
                }
                case 3:
                case 4:
                case 5:
                    now += static_cast<int64_t>(rng() % 40) * kMs;
                    d.advance(now, 100, noop);
                    break;
                case 6:
                    if (!d.running())
                        d.start(now);
                    break;
                case 7:
                    if (rng() % 4 == 0) {
                        d.stop();
                        written_since_start = 0;
                        last = Poll{};
                    }
                    break;
            }
            const Poll p = poll(d);
            // AVAIL and the queue are one state.
            ASSERT_EQ(p.avail, p.queued >= ring ? 0 : ring - p.queued) << "seed " << seed << " op " << op;
            // Everything written is either queued or taken by the decoder.
            ASSERT_EQ(p.queued + p.copied, written_since_start) << "seed " << seed << " op " << op;
            // The decoder holds no more than its buffer (one frame always fits).
            ASSERT_LE(p.remain, (dsp / 333 + 1) * 1024ULL * 4) << "seed " << seed;
            // Counters only grow between stops.
            ASSERT_GE(p.copied, last.copied);
            ASSERT_GE(p.pcm_frames, last.pcm_frames);
            // The remain size is what was taken and not played: it is zero when nothing was taken.
            if (p.copied == 0) {
                ASSERT_EQ(p.remain, 0u);
            }
            // Played time never runs ahead of the data taken.
            ASSERT_LE(uint64_t{p.pcm_frames} / 1024 * 333, uint64_t{p.copied} + 333);
            ASSERT_EQ(p.rate, 48000u);
            last = p;
        }
    }
}

// ---- Through the library and the platform: mute and the timeline -----------------------

class DecoderOnPlatform : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        tv().add_compr_device("/dev/snd/comprC0D0");
        tv().compr().answers = emutv::ComprModel::Answers::Modelled;
        tv().compr().ring_bytes = 65536;
        tv().compr().dsp_bytes = 8192;
        tv().set_timeline_listener([this](const emutv::TimelineEntry& e) {
            if (e.type == emutv::TimelineEntry::Type::Audio)
                audio_.push_back(e);
            else if (e.type == emutv::TimelineEntry::Type::Event && e.what == "audio-stream")
                stream_starts_.push_back(e.detail);
        });
        out_ = quarvel_audio_output_open("/dev/snd/comprC0D0");
        ASSERT_NE(out_, nullptr);
        quarvel_audio_output_setup_params_s p{};
        p.channels = 2;
        p.sample_rate = 48000;
        ASSERT_EQ(quarvel_audio_output_setup(out_, &p), 0);
    }
    void TearDown() override {
        quarvel_audio_output_close(out_);
        tv().set_timeline_listener(nullptr);
        PlatformTest::TearDown();
    }
    void push(const std::vector<uint8_t>& data) {
        ASSERT_EQ(quarvel_audio_output_push_data(out_, data.data(), static_cast<unsigned>(data.size()), 0),
                  0);
    }
    void at_ms(int64_t ms) { tv().set_virtual_time_ns(ms * kMs); }

    quarvel_audio_output_s* out_ = nullptr;
    std::vector<emutv::TimelineEntry> audio_;
    std::vector<std::string> stream_starts_;
};

TEST_F(DecoderOnPlatform, mute_silences_without_stopping_the_clock) {
    auto stream = adts_stream(1.0, 400);
    at_ms(1000);
    push(stream);
    at_ms(1200);
    ASSERT_EQ(_kcontrol_set("main out mute", 1), 0);
    at_ms(1400);
    ASSERT_EQ(_kcontrol_set("main out mute", 0), 0);
    at_ms(1600);
    tv().sync_timeline();
    ASSERT_EQ(audio_.size(), 60u) << "one entry per 10 ms period from START";
    uint64_t muted_played = 0, muted_periods = 0;
    for (const auto& e : audio_) {
        if (e.audio_muted) {
            muted_periods++;
            muted_played += e.played;
        }
    }
    EXPECT_EQ(muted_periods, 20u);
    EXPECT_EQ(muted_played, 9600u) << "muted, the decoder plays on in silence: 200 ms of frames";
    EXPECT_EQ(audio_.back().media_us, 600000);
    EXPECT_EQ(audio_.back().frames, 28800u);
}

// The first block of each stream is named in the timeline by the fingerprint of its tail,
// so that a player can tell which of its buffers started the stream.
TEST_F(DecoderOnPlatform, each_streams_first_block_is_marked_with_the_fingerprint_of_its_tail) {
    const auto first = adts_stream(0.1, 400);
    const auto second = adts_stream(0.1, 300);
    const auto after_stop = adts_stream(0.2, 200);
    at_ms(0);
    push(first);
    push(second);
    ASSERT_EQ(quarvel_audio_output_stop(out_), 0);
    push(after_stop);
    ASSERT_EQ(stream_starts_.size(), 2u);
    EXPECT_EQ(stream_starts_[0], "tail=" + emutv::audio_tail_fingerprint(first.data(), first.size()));
    EXPECT_EQ(stream_starts_[1],
              "tail=" + emutv::audio_tail_fingerprint(after_stop.data(), after_stop.size()));
    EXPECT_NE(stream_starts_[0], stream_starts_[1]);
    // The tail alone: a header put in front does not change it.
    std::vector<uint8_t> with_header(7, 0xff);
    with_header.insert(with_header.end(), first.end() - 32, first.end());
    EXPECT_EQ(emutv::audio_tail_fingerprint(with_header.data(), with_header.size()),
              emutv::audio_tail_fingerprint(first.data(), first.size()));
}

TEST_F(DecoderOnPlatform, the_rate_control_scales_the_pace_and_the_timeline_says_so) {
    auto stream = adts_stream(2.0, 400);
    at_ms(0);
    push(stream);
    ASSERT_EQ(quarvel_audio_output_speed_control(out_, 2.0f), 0);
    at_ms(250);
    tv().sync_timeline();
    ASSERT_FALSE(audio_.empty());
    EXPECT_EQ(audio_.back().rate, 200);
    EXPECT_EQ(audio_.back().media_us, 500000) << "250 ms at rate 200";
    ASSERT_EQ(quarvel_audio_output_speed_control(out_, 0.0f), 0);
    at_ms(500);
    tv().sync_timeline();
    EXPECT_EQ(audio_.back().media_us, 500000) << "rate 0 holds the decoder";
    EXPECT_EQ(audio_.back().rate, 0);
}

TEST_F(DecoderOnPlatform, answers_of_get_info_follow_the_model_and_garbage_is_in_the_trace) {
    auto stream = adts_stream(1.0, 400);
    at_ms(0);
    std::vector<uint8_t> garbage(100, 0x5A);
    push(garbage);
    push(stream);
    const auto writes = tv().events("write");
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].field("undecodable"), 100);
    EXPECT_FALSE(writes[1].has("undecodable"));
    EXPECT_NE(emutv::describe(writes[0]).find(" undecodable=100 "), std::string::npos);
    at_ms(100);
    quarvel_audio_output_info_s info{};
    ASSERT_EQ(quarvel_audio_output_get_info(out_, &info), 0);
    const auto& d = tv().compr().decoder;
    EXPECT_EQ(info.bytes_free, d.avail() - 140);
    EXPECT_EQ(info.remain_size, static_cast<int64_t>(d.remain()));
    EXPECT_EQ(d.copied_total() + d.queued(), stream.size() + 100);
}

}  // namespace
