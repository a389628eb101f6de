// ruvoaudiosink's parts alone: the ADTS framing of raw AAC and the decoder's timeline.
#include <gtest/gtest.h>

#include <vector>

#include "ruvoaudiosink_adts.h"
#include "ruvoaudiosink_timeline.h"

using ruvo_audio::AdtsConfig;
using ruvo_audio::PlaybackReport;
using ruvo_audio::Timeline;

TEST(AdtsConfig, aac_lc_at_44khz_in_stereo) {
    const uint8_t asc[] = {0x12, 0x10};
    AdtsConfig c;
    ASSERT_TRUE(ruvo_audio::adts_config_from_codec_data(asc, sizeof(asc), &c));
    EXPECT_EQ(c.profile, 1);
    EXPECT_EQ(c.frequency_index, 4);
    EXPECT_EQ(c.channel_config, 2);
}

TEST(AdtsConfig, he_aac_is_carried_as_its_aac_core) {
    // SBR (5) at 24 kHz (6), stereo, extension at 48 kHz (3), core AAC LC (2).
    const uint8_t asc[] = {0x2B, 0x11, 0x88};
    AdtsConfig c;
    ASSERT_TRUE(ruvo_audio::adts_config_from_codec_data(asc, sizeof(asc), &c));
    EXPECT_EQ(c.profile, 1);
    EXPECT_EQ(c.frequency_index, 6);
    EXPECT_EQ(c.channel_config, 2);
}

TEST(AdtsConfig, an_explicit_rate_takes_the_nearest_table_entry) {
    // LC (2), index 15 then 24-bit 44100, mono: 00010 1111 <24 bits> 0001.
    const uint32_t rate = 44100;
    const uint64_t bits = (2ull << 35) | (15ull << 31) | (static_cast<uint64_t>(rate) << 7) | (1ull << 3);
    const uint8_t asc[] = {static_cast<uint8_t>(bits >> 32), static_cast<uint8_t>(bits >> 24),
                           static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8),
                           static_cast<uint8_t>(bits)};
    AdtsConfig c;
    ASSERT_TRUE(ruvo_audio::adts_config_from_codec_data(asc, sizeof(asc), &c));
    EXPECT_EQ(c.frequency_index, 4);
    EXPECT_EQ(c.channel_config, 1);
    EXPECT_EQ(ruvo_audio::adts_frequency_index(44000), 4);
    EXPECT_EQ(ruvo_audio::adts_frequency_index(7350), 12);
}

TEST(AdtsConfig, configs_adts_cannot_carry_are_refused) {
    AdtsConfig c;
    const uint8_t usac[] = {0xF8, 0x58, 0x10};  // escape 31 + 10 = object type 42
    EXPECT_FALSE(ruvo_audio::adts_config_from_codec_data(usac, sizeof(usac), &c));
    const uint8_t short_config[] = {0x12};
    EXPECT_FALSE(ruvo_audio::adts_config_from_codec_data(short_config, sizeof(short_config), &c));
    EXPECT_FALSE(ruvo_audio::adts_config_from_codec_data(nullptr, 0, &c));
    const uint8_t bad_index[] = {0x16, 0x90};  // index 13
    EXPECT_FALSE(ruvo_audio::adts_config_from_codec_data(bad_index, sizeof(bad_index), &c));
}

TEST(AdtsHeader, carries_the_frame_length_and_the_mpeg_version) {
    uint8_t h[7];
    AdtsConfig c{1, 3, 6, false};
    ASSERT_TRUE(ruvo_audio::write_adts_header(c, 100, h));
    // length 107 = 0b0000001101011
    EXPECT_EQ(std::vector<uint8_t>(h, h + 7),
              (std::vector<uint8_t>{0xFF, 0xF1, 0x4D, 0x80, 0x0D, 0x7F, 0xFC}));
    c.mpeg2 = true;
    ASSERT_TRUE(ruvo_audio::write_adts_header(c, 100, h));
    EXPECT_EQ(h[1], 0xF9);
    EXPECT_TRUE(ruvo_audio::write_adts_header(c, 8191 - 7, h));
    EXPECT_FALSE(ruvo_audio::write_adts_header(c, 8191 - 6, h));
}

namespace {

constexpr uint64_t kMs = 1000000;

// Ten blocks of 400 bytes, 20 ms each, from 1 s.
Timeline ten_blocks() {
    Timeline t;
    t.restart(1000 * kMs);
    for (int i = 0; i < 10; ++i)
        t.add_block(400, 20 * kMs);
    return t;
}

PlaybackReport report(uint64_t taken, uint64_t remain_ns, int64_t at_ns = 0) {
    PlaybackReport r;
    r.taken = taken;
    r.remain_ns = remain_ns;
    r.wallclock_ns = at_ns;
    return r;
}

}  // namespace

TEST(Timeline, bytes_map_to_device_time_inside_their_block) {
    const Timeline t = ten_blocks();
    EXPECT_EQ(t.time_at_byte(0), 1000 * kMs);
    EXPECT_EQ(t.time_at_byte(200), 1010 * kMs);
    EXPECT_EQ(t.time_at_byte(400), 1020 * kMs);
    EXPECT_EQ(t.time_at_byte(1000), 1050 * kMs);
    EXPECT_EQ(t.time_at_byte(4000), 1200 * kMs);
    EXPECT_EQ(t.time_at_byte(9999), 1200 * kMs);
    EXPECT_EQ(t.bytes_per_second(), 20000u);
}

TEST(Timeline, heard_is_what_was_taken_less_what_the_decoder_still_holds) {
    const Timeline t = ten_blocks();
    EXPECT_EQ(t.heard_at(report(1600, 20 * kMs)), 1060 * kMs);
    EXPECT_EQ(t.decoded_at(report(1600, 20 * kMs)), 1080 * kMs);
    // Before the first sample played: the stream's start, never before it.
    EXPECT_EQ(t.heard_at(report(400, 30 * kMs)), 1000 * kMs);
    EXPECT_EQ(t.heard_at(report(0, 0)), 1000 * kMs);
}

TEST(Timeline, between_reports_time_runs_on_while_playing_up_to_what_was_decoded) {
    const Timeline t = ten_blocks();
    const PlaybackReport r = report(1600, 20 * kMs, 5000 * kMs);
    EXPECT_EQ(t.heard_now(r, 5000 * kMs + 5 * kMs, true), 1065 * kMs);
    EXPECT_EQ(t.heard_now(r, 5000 * kMs + 50 * kMs, true), 1080 * kMs);
    EXPECT_EQ(t.heard_now(r, 5000 * kMs + 50 * kMs, false), 1060 * kMs);
    EXPECT_EQ(t.heard_now(r, 4000 * kMs, true), 1060 * kMs);
}

TEST(Timeline, the_oldest_blocks_leave_a_full_table_and_their_end_stays_the_floor) {
    Timeline t;
    t.restart(0);
    const size_t n = Timeline::kBlocks + 10;
    for (size_t i = 0; i < n; ++i)
        t.add_block(100, 10 * kMs);
    EXPECT_EQ(t.bytes_written(), n * 100);
    EXPECT_EQ(t.end_ns(), n * 10 * kMs);
    EXPECT_EQ(t.time_at_byte(0), 100 * kMs);     // 10 blocks gone
    EXPECT_EQ(t.time_at_byte(1050), 105 * kMs);  // inside the oldest kept block
    EXPECT_EQ(t.time_at_byte(n * 100 - 50), n * 10 * kMs - 5 * kMs);
}

TEST(Timeline, a_restart_forgets_the_stream) {
    Timeline t = ten_blocks();
    t.restart(2000 * kMs);
    EXPECT_TRUE(t.empty());
    EXPECT_EQ(t.bytes_written(), 0u);
    EXPECT_EQ(t.time_at_byte(100), 2000 * kMs);
    EXPECT_EQ(t.heard_at(report(0, 0)), 2000 * kMs);
}
