// Pushing audio blocks and reading the playback position on the emulated
// compressed-offload device.
#include <errno.h>
#include <time.h>

#include "audio_fixture.h"

using audio_test::AudioTest;
using audio_test::bytes_of;
using audio_test::metadata_record;
using emutv::Device;
using ruvo_test::aline;

using Strings = std::vector<std::string>;

namespace {

std::vector<unsigned char> pattern(size_t n) {
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<unsigned char>(i * 7 + 3);
    return v;
}

int64_t monotonic_raw_us() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

class AudioPush : public AudioTest {};
class AudioInfo : public AudioTest {
  protected:
    // Leaves 1000 frames and `extra` header bytes counted on a 2-channel stream.
    void push_1000_frames(uint32_t extra = 0) {
        auto block = pattern(4000 + extra);
        ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4000, extra), 0);
        tv().clear_events();
        lines();
    }
    quarvel_audio_output_info_s info_{};
};

// ---- push data --------------------------------------------------------------------------

TEST_F(AudioPush, null_handle_returns_minus_9) {
    unsigned char b[4] = {};
    EXPECT_EQ(quarvel_audio_output_push_data(nullptr, b, 4, 0), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data", "output is null")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioPush, null_data_returns_minus_9) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, nullptr, 4, 0), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data", "data is null")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioPush, first_block_counts_frames_and_headers_and_starts_the_stream_once) {
    open_and_setup(2, 48000);
    auto block = pattern(4096 + 32);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    EXPECT_EQ(output_->m_pushed_frames, 1024u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 32u);
    EXPECT_TRUE(output_->m_is_driver_started);
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_AVAIL", "write", "SNDRV_COMPRESS_START"}));
    auto events = tv().events(Device::Compr);
    EXPECT_EQ(events[0].request, 0x801C4321u);
    EXPECT_EQ(events[0].in.size(), 28u);
    EXPECT_EQ(events[1].field("size"), 4128);
    EXPECT_EQ(events[1].in, std::vector<uint8_t>(block.begin(), block.begin() + 64));
    EXPECT_EQ(events[2].request, 0x4332u);
    EXPECT_TRUE(tv().compr().running);

    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    EXPECT_EQ(output_->m_pushed_frames, 2048u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 64u);
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_AVAIL", "write", "SNDRV_COMPRESS_START",
                                         "SNDRV_COMPRESS_AVAIL", "write"}));
    EXPECT_EQ(tv().compr().write_sizes, (std::vector<size_t>{4128, 4128}));
    EXPECT_EQ(tv().compr().starts, 1u);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioPush, frames_are_counted_per_channel_with_integer_divisions) {
    open_and_setup(6, 48000);
    auto block = pattern(6155);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 6155, 0), 0);
    EXPECT_EQ(output_->m_pushed_frames, 512u);  // (6155 / 2) / 6
}

TEST_F(AudioPush, one_byte_above_avail_returns_minus_2_and_writes_nothing) {
    open_and_setup(2, 48000);
    tv().compr().avail = 4128;
    auto block = pattern(4129);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4097, 32), -2);
    EXPECT_EQ(
        lines(),
        Strings{aline(
            "quarvel_audio_output_push_data",
            "quarvel_audio_output_push_data no space (need = 4097, with_headers = 4129, avail = 4128)")});
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_AVAIL"});
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_FALSE(output_->m_is_driver_started);

    // Exactly avail fits.
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    EXPECT_EQ(tv().compr().write_sizes, std::vector<size_t>{4128});
}

TEST_F(AudioPush, only_the_low_word_of_avail_counts_for_room) {
    open_and_setup(2, 48000);
    tv().compr().avail = 0x100001000ull;  // low word 4096
    auto block = pattern(4097);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4097, 0), -2);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data",
                                     "quarvel_audio_output_push_data no space (need = 4097, with_headers = "
                                     "4097, avail = 4294971392)")});
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 0), 0);
}

TEST_F(AudioPush, a_low_word_of_avail_with_the_sign_bit_leaves_no_room) {
    open_and_setup(2, 48000);
    tv().compr().avail = 0x80000000ull;
    unsigned char b[4] = {};
    EXPECT_EQ(quarvel_audio_output_push_data(output_, b, 4, 0), -2);
    EXPECT_EQ(
        lines(),
        Strings{aline(
            "quarvel_audio_output_push_data",
            "quarvel_audio_output_push_data no space (need = 4, with_headers = 4, avail = 2147483648)")});
    EXPECT_EQ(tv().count("write"), 0u);
}

TEST_F(AudioPush, a_block_size_with_the_sign_bit_passes_the_room_check) {
    open_and_setup(2, 48000);
    tv().compr().avail = 0;
    // The emulated device never reads the data beyond its first bytes.
    auto block = pattern(64);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 0x80000000u, 0), 0);
    auto writes = tv().events("write");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].field("size"), 0x80000000LL);
    // The kernel passes at most MAX_RW_COUNT bytes on: a short write, which is not checked.
    EXPECT_EQ(writes[0].result, 0x7FFFF000LL);
    EXPECT_EQ(tv().compr().write_sizes, std::vector<size_t>{0x7FFFF000u});
    EXPECT_EQ(output_->m_pushed_frames, 0x20000000u);
}

TEST_F(AudioPush, size_and_headers_add_up_in_32_bits) {
    open_and_setup(2, 48000);
    tv().compr().avail = 16;
    auto block = pattern(64);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 0xFFFFFFF0u, 0x20u), 0);
    EXPECT_EQ(tv().compr().write_sizes, std::vector<size_t>{16});
    EXPECT_EQ(output_->m_pushed_frames, 0x3FFFFFFCu);  // (0xFFFFFFF0 / 2) / 2
    EXPECT_EQ(output_->m_pushed_extra_bytes, 0x20u);

    tv().compr().avail = 15;
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 0xFFFFFFF0u, 0x20u), -2);
    EXPECT_EQ(
        lines(),
        Strings{aline(
            "quarvel_audio_output_push_data",
            "quarvel_audio_output_push_data no space (need = 4294967280, with_headers = 16, avail = 15)")});
}

TEST_F(AudioPush, failed_avail_returns_minus_1_and_writes_nothing) {
    open_and_setup(2, 48000);
    tv().fail("SNDRV_COMPRESS_AVAIL", EIO);
    auto block = pattern(100);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 100, 0), -1);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data",
                                     "ioctl(SNDRV_COMPRESS_AVAIL) failed : [Input/output error]")});
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_AVAIL"});
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 100, 0), 0);
}

TEST_F(AudioPush, failed_write_returns_minus_3_with_the_payload_size_and_counts_nothing) {
    open_and_setup(2, 48000);
    tv().fail("write", EPIPE);
    auto block = pattern(4096 + 32);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), -3);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data", "write(4096) -> [Broken pipe]")});
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_AVAIL", "write"}));
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 0u);
    EXPECT_FALSE(output_->m_is_driver_started);

    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    EXPECT_EQ(compr_requests().back(), "SNDRV_COMPRESS_START");
}

TEST_F(AudioPush, failed_start_returns_minus_4_and_keeps_the_block_counted) {
    open_and_setup(2, 48000);
    tv().fail("SNDRV_COMPRESS_START", EIO);
    auto block = pattern(4096 + 32);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), -4);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_push_data",
                                     "ioctl(SNDRV_COMPRESS_START) failed : [Input/output error]")});
    EXPECT_EQ(output_->m_pushed_frames, 1024u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 32u);
    EXPECT_FALSE(output_->m_is_driver_started);
    EXPECT_FALSE(tv().compr().running);

    // The count is no longer 0, so the next block does not start.
    tv().clear_events();
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_AVAIL", "write"}));
}

TEST_F(AudioPush, a_block_shorter_than_a_frame_starts_again_on_the_next_push) {
    open_and_setup(2, 48000);
    auto block = pattern(8);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 3, 5), 0);
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 5u);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 8, 0), 0);
    EXPECT_EQ(output_->m_pushed_frames, 2u);
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 8, 0), 0);
    EXPECT_EQ(compr_requests(),
              (Strings{"SNDRV_COMPRESS_AVAIL", "write", "SNDRV_COMPRESS_START", "SNDRV_COMPRESS_AVAIL",
                       "write", "SNDRV_COMPRESS_START", "SNDRV_COMPRESS_AVAIL", "write"}));
    EXPECT_EQ(tv().compr().starts, 2u);
}

TEST_F(AudioPush, a_push_after_stop_restarts_the_stream) {
    open_and_setup(2, 48000);
    auto block = pattern(400);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 400, 0), 0);
    ASSERT_EQ(quarvel_audio_output_stop(output_), 0);
    tv().clear_events();
    EXPECT_EQ(quarvel_audio_output_push_data(output_, block.data(), 400, 0), 0);
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_AVAIL", "write", "SNDRV_COMPRESS_START"}));
    EXPECT_TRUE(output_->m_is_driver_started);
    EXPECT_EQ(output_->m_pushed_frames, 100u);
}

// ---- get info ---------------------------------------------------------------------------

TEST_F(AudioInfo, null_handle_returns_minus_9) {
    EXPECT_EQ(quarvel_audio_output_get_info(nullptr, &info_), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_get_info", "output is null")});
}

TEST_F(AudioInfo, null_info_returns_minus_9) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_get_info(output_, nullptr), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_get_info", "info_out is null")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioInfo, delay_is_the_rescaled_remain_plus_the_bytes_in_transit) {
    open_and_setup(2, 48000);
    push_1000_frames();
    tv().compr().remain = 9600;
    tv().compr().copied_total = 3000;
    tv().compr().avail = 10000;
    const int64_t t0 = monotonic_raw_us();
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    const int64_t t1 = monotonic_raw_us();
    EXPECT_EQ(info_.remain_size, 9600);
    EXPECT_EQ(info_.frames_delay, 2650u);  // (9600 + 1000) / 4
    EXPECT_EQ(info_.bytes_free, 9860u);
    EXPECT_GE(info_.wallclock_us, t0);
    EXPECT_LE(info_.wallclock_us, t1);

    EXPECT_EQ(compr_requests(),
              (Strings{"SNDRV_COMPRESS_TSTAMP", "SNDRV_COMPRESS_GET_METADATA", "SNDRV_COMPRESS_AVAIL"}));
    auto events = tv().events(Device::Compr);
    EXPECT_EQ(events[0].request, 0x80144320u);
    EXPECT_EQ(events[0].out.size(), 20u);
    EXPECT_EQ(events[1].request, 0xC0244315u);
    EXPECT_EQ(events[1].in, bytes_of(metadata_record(33, 0)));  // SNDRV_COMPRESS_GET_REMAINSIZE
    EXPECT_EQ(events[2].request, 0x801C4321u);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioInfo, header_bytes_count_as_in_transit) {
    open_and_setup(2, 48000);
    push_1000_frames(32);
    tv().compr().copied_total = 4000;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 8u);  // 32 / 4
}

TEST_F(AudioInfo, remain_is_rescaled_from_48000_to_the_stream_rate) {
    open_and_setup(2, 44100);
    tv().compr().remain = 48000;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.remain_size, 44100);
    EXPECT_EQ(info_.frames_delay, 11025u);
}

TEST_F(AudioInfo, remain_takes_both_words_of_the_answer) {
    open_and_setup(2, 44100);
    tv().compr().remain = 0x100000000ull;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.remain_size, 3946001203LL);  // 4294967296 * 44100 / 48000, truncated
    EXPECT_EQ(info_.frames_delay, 986500300u);
}

TEST_F(AudioInfo, remain_is_read_as_a_signed_number) {
    open_and_setup(2, 48000);
    tv().compr().remain = 0xFFFFFFFFFFFFFFFFull;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.remain_size, -1);
    EXPECT_EQ(info_.frames_delay, 0xFFFFFFFFu);  // low word of 0xFFFFFFFFFFFFFFFF / 4
}

TEST_F(AudioInfo, the_rescaling_truncates_toward_zero) {
    open_and_setup(2, 44100);
    tv().compr().remain = static_cast<uint64_t>(-1000LL);
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.remain_size, -918);  // -918.75
}

TEST_F(AudioInfo, frames_delay_keeps_the_low_32_bits) {
    open_and_setup(2, 48000);
    tv().compr().remain = 0x500000000ull;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.remain_size, 0x500000000LL);
    EXPECT_EQ(info_.frames_delay, 0x40000000u);  // 0x140000000 truncated
}

TEST_F(AudioInfo, bytes_free_keeps_a_reserve_of_140) {
    open_and_setup(2, 48000);
    tv().compr().avail = 140;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.bytes_free, 0u);
    tv().compr().avail = 141;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.bytes_free, 1u);
    tv().compr().avail = 0;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.bytes_free, 0u);
    tv().compr().avail = 0x100000100ull;  // only the low word counts
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.bytes_free, 116u);
}

TEST_F(AudioInfo, more_copied_than_pushed_prints_the_negative_transit_and_uses_remain_alone) {
    open_and_setup(2, 48000);
    push_1000_frames();
    tv().compr().remain = 9600;
    tv().compr().copied_total = 5000;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(lines(),
              Strings{aline("quarvel_audio_output_get_info", "in transit bytes are negative (-1000)")});
    EXPECT_EQ(info_.frames_delay, 2400u);
    EXPECT_EQ(info_.remain_size, 9600);
}

TEST_F(AudioInfo, nothing_in_transit_gives_the_remain_alone) {
    open_and_setup(2, 48000);
    push_1000_frames();
    tv().compr().remain = 9600;
    tv().compr().copied_total = 4000;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 2400u);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioInfo, in_transit_is_narrowed_to_31_bits_with_bit_30_as_sign) {
    open_and_setup(2, 48000);
    push_1000_frames();  // 4000 bytes pushed
    tv().compr().remain = 0;

    tv().compr().copied_total = 4000u - 0x3FFFFFFFu;  // difference 0x3FFFFFFF: positive
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 0x3FFFFFFFu / 4);

    tv().compr().copied_total = 4000u - 0x40000000u;  // difference 0x40000000: bit 30 set
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 0u);

    tv().compr().copied_total = 4000u - 0x80000008u;  // difference 0x80000008: bit 31 dropped
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 2u);

    tv().compr().copied_total = 4000u - 0xC0000000u;  // difference 0xC0000000: bit 30 set
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 0u);

    EXPECT_EQ(
        lines(),
        (Strings{aline("quarvel_audio_output_get_info", "in transit bytes are negative (-1073741824)"),
                 aline("quarvel_audio_output_get_info", "in transit bytes are negative (-1073741824)")}));
}

TEST_F(AudioInfo, pushed_bytes_use_the_low_words_of_the_counters) {
    open_and_setup(2, 48000);
    output_->m_pushed_frames = 0x100000000ull + 10;  // low word 10 frames = 40 bytes
    output_->m_pushed_extra_bytes = 0x200000000ull + 2;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 10u);  // 42 / 4
}

TEST_F(AudioInfo, before_the_first_push_the_driver_values_alone_count) {
    open_and_setup(1, 48000);
    tv().compr().remain = 960;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    EXPECT_EQ(info_.frames_delay, 480u);
    EXPECT_EQ(info_.remain_size, 960);
}

TEST_F(AudioInfo, reserved_words_are_not_written) {
    open_and_setup(2, 48000);
    for (auto& r : info_.reserved)
        r = 0xA5A5A5A5u;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
    for (auto r : info_.reserved)
        EXPECT_EQ(r, 0xA5A5A5A5u);
}

TEST_F(AudioInfo, failed_timestamp_returns_minus_1) {
    open_and_setup(2, 48000);
    tv().fail("SNDRV_COMPRESS_TSTAMP", EIO);
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), -1);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_get_info",
                                     "ioctl(SNDRV_COMPRESS_TSTAMP) failed : [Input/output error]")});
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_TSTAMP"});
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
}

TEST_F(AudioInfo, failed_remain_size_returns_minus_2_after_the_plain_message) {
    open_and_setup(2, 48000);
    tv().fail("SNDRV_COMPRESS_GET_METADATA", EINVAL);
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), -2);
    EXPECT_EQ(lines(), Strings{"ioctl SNDRV_COMPRESS_GET_METADATA failed [Invalid argument]" +
                               aline("quarvel_audio_output_get_info",
                                     "get_compr_metadata(SNDRV_COMPRESS_GET_REMAINSIZE) failed")});
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_TSTAMP", "SNDRV_COMPRESS_GET_METADATA"}));
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
}

TEST_F(AudioInfo, failed_avail_returns_minus_3_and_leaves_the_record_untouched) {
    open_and_setup(2, 48000);
    push_1000_frames();
    tv().compr().remain = 9600;
    tv().compr().copied_total = 5000;  // also prints the negative transit first
    tv().fail("SNDRV_COMPRESS_AVAIL", EIO);
    quarvel_audio_output_info_s before;
    memset(&before, 0x5A, sizeof(before));
    info_ = before;
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), -3);
    EXPECT_EQ(memcmp(&info_, &before, sizeof(before)), 0);
    EXPECT_EQ(lines(),
              (Strings{aline("quarvel_audio_output_get_info", "in transit bytes are negative (-1000)"),
                       aline("quarvel_audio_output_get_info",
                             "ioctl(SNDRV_COMPRESS_AVAIL) failed : [Input/output error]")}));
    EXPECT_EQ(compr_requests(),
              (Strings{"SNDRV_COMPRESS_TSTAMP", "SNDRV_COMPRESS_GET_METADATA", "SNDRV_COMPRESS_AVAIL"}));
    EXPECT_EQ(quarvel_audio_output_get_info(output_, &info_), 0);
}
