// The audio output handle: open, setup, start, stop, sync mode and close on the emulated
// compressed-offload device.
#include <errno.h>
#include <fcntl.h>

#include <regex>

#include "audio_fixture.h"
#include "ruvo_internal_audio.h"

using audio_test::AudioTest;
using audio_test::bytes_of;
using audio_test::ControlWrites;
using audio_test::kDevice;
using audio_test::metadata_record;
using emutv::Device;
using ruvo_test::aline;

using Strings = std::vector<std::string>;

class AudioSink : public AudioTest {};

// ---- open -------------------------------------------------------------------------------

TEST_F(AudioSink, open_gives_a_handle_on_the_device_opened_write_only) {
    quarvel_audio_output_s* out = quarvel_audio_output_open(kDevice);
    ASSERT_NE(out, nullptr);
    output_ = out;
    EXPECT_GE(out->m_fd, 0);
    EXPECT_EQ(out->m_pushed_frames, 0u);
    EXPECT_EQ(out->m_pushed_extra_bytes, 0u);
    EXPECT_FALSE(out->m_is_driver_started);
    EXPECT_EQ(out->m_default_volume, 1.0f);
    EXPECT_EQ(out->m_default_speed, 1.0f);

    auto events = tv().events(Device::Compr);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "open");
    EXPECT_EQ(events[0].path, kDevice);
    EXPECT_EQ(events[0].field("flags") & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(events[0].fd, out->m_fd);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, open_of_a_missing_device_prints_the_release_and_returns_null) {
    const int before = emutv::process_open_descriptors();
    quarvel_audio_output_s* out = quarvel_audio_output_open("/dev/snd/comprC1D0");
    EXPECT_EQ(out, nullptr);

    auto printed = lines();
    ASSERT_EQ(printed.size(), 2u);
    EXPECT_EQ(printed[0], aline("quarvel_audio_output_open",
                                "open(/dev/snd/comprC1D0) failed: No such file or directory"));
    EXPECT_TRUE(std::regex_match(printed[1], std::regex("output: (0x[0-9a-f]+|\\(nil\\))"))) << printed[1];
    auto opens = tv().events("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].err, ENOENT);
    EXPECT_EQ(tv().count("close"), 0u);
    EXPECT_EQ(emutv::process_open_descriptors(), before);
}

TEST_F(AudioSink, open_refused_by_the_driver_reports_its_error) {
    tv().fail(std::string("open:") + kDevice, EBUSY);
    EXPECT_EQ(quarvel_audio_output_open(kDevice), nullptr);
    auto printed = lines();
    ASSERT_EQ(printed.size(), 2u);
    EXPECT_EQ(printed[0],
              aline("quarvel_audio_output_open", "open(/dev/snd/comprC0D3) failed: Device or resource busy"));
    EXPECT_EQ(printed[1].rfind("output: ", 0), 0u);
    EXPECT_EQ(tv().open_descriptors(), 0);
}

// ---- setup ------------------------------------------------------------------------------

TEST_F(AudioSink, setup_of_a_null_handle_returns_minus_9) {
    quarvel_audio_output_setup_params_s params{2, 48000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(nullptr, &params), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_setup", "output is null")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioSink, setup_with_null_parameters_returns_minus_9_without_touching_the_device) {
    open_output();
    EXPECT_EQ(quarvel_audio_output_setup(output_, nullptr), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_setup", "qvl_params is null")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioSink, setup_configures_the_stream_from_the_caps_and_the_parameters) {
    tv().compr().min_fragment_size = 3072;
    tv().compr().max_fragment_size = 9999;
    tv().compr().min_fragments = 3;
    tv().compr().max_fragments = 5;
    open_output();
    quarvel_audio_output_setup_params_s params{6, 44100, {1, 2, 3, 4, 5, 6}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), 0);

    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
                                         "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_SET_METADATA"}));
    auto events = tv().events(Device::Compr);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].request, 0xC0C44310u);
    EXPECT_EQ(events[0].in.size(), 196u);

    snd_compr_params expected;
    memset(&expected, 0, sizeof(expected));
    expected.buffer.fragment_size = 3072;
    expected.buffer.fragments = 5;
    expected.codec.id = 2;
    expected.codec.ch_in = 6;
    expected.codec.ch_out = 6;
    expected.codec.sample_rate = 44100;
    expected.codec.reserved[1] = 256;
    EXPECT_EQ(events[1].request, 0x40844312u);
    ASSERT_EQ(events[1].in.size(), 132u);
    EXPECT_EQ(events[1].in, bytes_of(expected));
    EXPECT_EQ(tv().compr().params, bytes_of(expected));

    EXPECT_EQ(events[2].request, 0x40244314u);
    EXPECT_EQ(events[2].in, bytes_of(metadata_record(32, 44100)));  // SNDRV_COMPRESS_SPDIF_DEVICE_INFO
    EXPECT_EQ(events[3].in, bytes_of(metadata_record(34, 0)));      // SNDRV_COMPRESS_IS_CDDTS
    EXPECT_FALSE(tv().compr().running);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 0u);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, setup_keeps_the_whole_parameter_record) {
    open_output();
    quarvel_audio_output_setup_params_s params{2, 48000, {11, 12, 13, 14, 15, 16}};
    ASSERT_EQ(quarvel_audio_output_setup(output_, &params), 0);
    EXPECT_EQ(memcmp(&output_->m_setup_params, &params, sizeof(params)), 0);
}

TEST_F(AudioSink, failed_caps_returns_minus_1_and_keeps_the_copied_parameters) {
    open_output();
    tv().fail("SNDRV_COMPRESS_GET_CAPS", EIO);
    quarvel_audio_output_setup_params_s params{2, 32000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), -1);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_setup",
                                     "ioctl(SNDRV_COMPRESS_GET_CAPS) failed : [Input/output error]")});
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_GET_CAPS"});
    EXPECT_EQ(output_->m_setup_params.sample_rate, 32000u);

    // The handle stays usable.
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), 0);
}

TEST_F(AudioSink, failed_params_returns_minus_2) {
    open_output();
    tv().fail("SNDRV_COMPRESS_SET_PARAMS", EINVAL);
    quarvel_audio_output_setup_params_s params{2, 48000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), -2);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_setup",
                                     "ioctl(SNDRV_COMPRESS_SET_PARAMS) failed : [Invalid argument]")});
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS"}));
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), 0);
}

TEST_F(AudioSink, failed_spdif_metadata_returns_minus_3_after_the_plain_message) {
    open_output();
    tv().fail("SNDRV_COMPRESS_SET_METADATA", EIO);
    quarvel_audio_output_setup_params_s params{2, 48000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), -3);
    EXPECT_EQ(lines(), Strings{"ioctl SNDRV_COMPRESS_SET_METADATA failed [Input/output error]" +
                               aline("quarvel_audio_output_setup",
                                     "set_compr_metadata(SNDRV_COMPRESS_SPDIF_DEVICE_INFO, 48000) failed")});
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
                                         "SNDRV_COMPRESS_SET_METADATA"}));
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), 0);
}

TEST_F(AudioSink, spdif_message_prints_the_rate_unsigned) {
    open_output();
    tv().fail("SNDRV_COMPRESS_SET_METADATA", EIO);
    quarvel_audio_output_setup_params_s params{2, 0xFFFFFFF0u, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), -3);
    EXPECT_EQ(lines(),
              Strings{"ioctl SNDRV_COMPRESS_SET_METADATA failed [Input/output error]" +
                      aline("quarvel_audio_output_setup",
                            "set_compr_metadata(SNDRV_COMPRESS_SPDIF_DEVICE_INFO, 4294967280) failed")});
    auto md = tv().events("SNDRV_COMPRESS_SET_METADATA");
    ASSERT_EQ(md.size(), 1u);
    EXPECT_EQ(md[0].in, bytes_of(metadata_record(32, 0xFFFFFFF0u)));
}

TEST_F(AudioSink, failed_cddts_metadata_returns_minus_4) {
    open_output();
    fail_nth("SNDRV_COMPRESS_SET_METADATA", 2, EPERM);
    quarvel_audio_output_setup_params_s params{2, 48000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), -4);
    EXPECT_EQ(lines(), Strings{"ioctl SNDRV_COMPRESS_SET_METADATA failed [Operation not permitted]" +
                               aline("quarvel_audio_output_setup",
                                     "set_compr_metadata(SNDRV_COMPRESS_IS_CDDTS, 0) failed")});
    auto md = tv().events("SNDRV_COMPRESS_SET_METADATA");
    ASSERT_EQ(md.size(), 2u);
    EXPECT_EQ(md[0].result, 0);
    EXPECT_EQ(md[1].in, bytes_of(metadata_record(34, 0)));
    EXPECT_EQ(md[1].err, EPERM);
}

TEST_F(AudioSink, repeated_setup_keeps_the_frame_counters) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(400 + 8);  // payload and header bytes, one block
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 400, 8), 0);
    quarvel_audio_output_setup_params_s params{1, 32000, {}};
    EXPECT_EQ(quarvel_audio_output_setup(output_, &params), 0);
    EXPECT_EQ(output_->m_pushed_frames, 100u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 8u);
    EXPECT_TRUE(output_->m_is_driver_started);
}

// ---- set_compr_metadata -------------------------------------------------------------------

TEST_F(AudioSink, set_compr_metadata_sends_the_key_and_one_value) {
    open_output();
    EXPECT_EQ(set_compr_metadata(output_->m_fd, SNDRV_COMPRESS_SYNC_MODE, -2), 1);
    auto md = tv().events("SNDRV_COMPRESS_SET_METADATA");
    ASSERT_EQ(md.size(), 1u);
    EXPECT_EQ(md[0].in, bytes_of(metadata_record(20, 0xFFFFFFFEu)));
    EXPECT_EQ(tv().compr().metadata.at(20), 0xFFFFFFFEu);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, set_compr_metadata_failure_returns_0_with_a_plain_message_without_newline) {
    open_output();
    tv().fail("SNDRV_COMPRESS_SET_METADATA", ENODEV);
    EXPECT_EQ(set_compr_metadata(output_->m_fd, SNDRV_COMPRESS_IS_CDDTS, 0), 0);
    EXPECT_EQ(lines(), Strings{"ioctl SNDRV_COMPRESS_SET_METADATA failed [No such device]"});
}

// ---- start ------------------------------------------------------------------------------

TEST_F(AudioSink, start_does_nothing_but_answer_0) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_start(output_), 0);
    EXPECT_TRUE(tv().events().empty());
    EXPECT_FALSE(output_->m_is_driver_started);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, start_of_a_null_handle_returns_minus_9) {
    EXPECT_EQ(quarvel_audio_output_start(nullptr), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_start", "output is null")});
}

// ---- stop -------------------------------------------------------------------------------

TEST_F(AudioSink, stop_of_a_null_handle_returns_minus_9) {
    EXPECT_EQ(quarvel_audio_output_stop(nullptr), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_stop", "output is null")});
}

TEST_F(AudioSink, stop_before_any_push_issues_no_request) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_stop(output_), 0);
    EXPECT_TRUE(tv().events().empty());
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, stop_after_a_push_stops_once_and_a_second_stop_issues_none) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(4096);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4000, 16), 0);
    tv().clear_events();

    EXPECT_EQ(quarvel_audio_output_stop(output_), 0);
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_STOP"});
    EXPECT_EQ(tv().events("SNDRV_COMPRESS_STOP")[0].request, 0x4333u);
    EXPECT_FALSE(output_->m_is_driver_started);
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 0u);
    EXPECT_FALSE(tv().compr().running);

    EXPECT_EQ(quarvel_audio_output_stop(output_), 0);
    EXPECT_EQ(compr_requests(), Strings{"SNDRV_COMPRESS_STOP"});
    EXPECT_EQ(tv().compr().stops, 1u);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, failed_stop_returns_minus_1_resets_the_counters_and_keeps_the_flag) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(4096);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4000, 16), 0);
    tv().clear_events();
    tv().fail("SNDRV_COMPRESS_STOP", EIO);

    EXPECT_EQ(quarvel_audio_output_stop(output_), -1);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_stop",
                                     "ioctl(SNDRV_COMPRESS_STOP) failed : [Input/output error]")});
    EXPECT_TRUE(output_->m_is_driver_started);
    EXPECT_EQ(output_->m_pushed_frames, 0u);
    EXPECT_EQ(output_->m_pushed_extra_bytes, 0u);

    // Still started: the next stop asks the driver again.
    EXPECT_EQ(quarvel_audio_output_stop(output_), 0);
    EXPECT_EQ(compr_requests(), (Strings{"SNDRV_COMPRESS_STOP", "SNDRV_COMPRESS_STOP"}));
    EXPECT_FALSE(output_->m_is_driver_started);
}

// ---- sync mode --------------------------------------------------------------------------

TEST_F(AudioSink, sync_mode_of_a_null_handle_returns_minus_9) {
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(nullptr, quarvel_audio_output_sync_mode__free_run), -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_set_sync_mode", "output is null")});
}

TEST_F(AudioSink, sync_mode_3_is_unexpected) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_, static_cast<quarvel_audio_output_sync_mode_t>(3)),
              -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_set_sync_mode", "unexpected mode 3")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioSink, sync_mode_is_unsigned_so_a_huge_mode_is_unexpected) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_,
                                                 static_cast<quarvel_audio_output_sync_mode_t>(0xFFFFFFFFu)),
              -9);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_set_sync_mode", "unexpected mode -1")});
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(AudioSink, each_sync_mode_sends_its_driver_mode) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_, quarvel_audio_output_sync_mode__free_run), 0);
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_, quarvel_audio_output_sync_mode__sync_to_video), 0);
    EXPECT_EQ(
        quarvel_audio_output_set_sync_mode(output_, quarvel_audio_output_sync_mode__sync_to_external_video),
        0);
    auto md = tv().events(Device::Compr);
    ASSERT_EQ(md.size(), 3u);
    EXPECT_EQ(md[0].in, bytes_of(metadata_record(20, 7)));  // EN_PROP_SYNC_MODE_FORCE_NONE
    EXPECT_EQ(md[1].in, bytes_of(metadata_record(20, 0)));  // EN_PROP_SYNC_MODE_NONE
    EXPECT_EQ(md[2].in, bytes_of(metadata_record(20, 2)));  // EN_PROP_SYNC_MODE_SLAVE
    for (const auto& e : md)
        EXPECT_EQ(e.name, "SNDRV_COMPRESS_SET_METADATA");
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(AudioSink, failed_sync_mode_names_the_driver_value) {
    open_and_setup(2, 48000);
    tv().fail("SNDRV_COMPRESS_SET_METADATA", EINVAL);
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_, quarvel_audio_output_sync_mode__sync_to_video), -1);
    EXPECT_EQ(lines(), Strings{"ioctl SNDRV_COMPRESS_SET_METADATA failed [Invalid argument]" +
                               aline("quarvel_audio_output_set_sync_mode",
                                     "set_compr_metadata(SNDRV_COMPRESS_SYNC_MODE, 0) failed")});
    EXPECT_EQ(quarvel_audio_output_set_sync_mode(output_, quarvel_audio_output_sync_mode__sync_to_video), 0);
}

// ---- close ------------------------------------------------------------------------------

TEST_F(AudioSink, close_of_a_null_handle_prints_and_returns) {
    quarvel_audio_output_close(nullptr);
    EXPECT_EQ(lines(), Strings{aline("quarvel_audio_output_close", "output is null")});
    EXPECT_TRUE(tv().events().empty());
    EXPECT_TRUE(tv().sound().writes.empty());
}

TEST_F(AudioSink, close_restores_volume_and_speed_even_if_never_changed) {
    open_and_setup(2, 48000);
    const void* handle = output_;
    const int fd = output_->m_fd;
    close_output();

    EXPECT_EQ(control_writes(), (ControlWrites{{"qvl speaker main gain", 32768},
                                               {"qvl hp main gain", 32768},
                                               {"audio dec0 playback rate", 100}}));
    auto closes = tv().events(Device::Compr);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].name, "close");
    EXPECT_EQ(closes[0].fd, fd);
    EXPECT_EQ(lines(), Strings{release_line(handle)});
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(AudioSink, close_puts_back_a_changed_volume_and_speed) {
    open_and_setup(2, 48000);
    ASSERT_EQ(quarvel_audio_output_volume_control(output_, 0.25f), 0);
    ASSERT_EQ(quarvel_audio_output_speed_control(output_, 2.0f), 0);
    tv().sound().writes.clear();
    close_output();
    EXPECT_EQ(tv().sound().value("qvl speaker main gain"), 32768);
    EXPECT_EQ(tv().sound().value("qvl hp main gain"), 32768);
    EXPECT_EQ(tv().sound().value("audio dec0 playback rate"), 100);
    EXPECT_EQ(control_writes().size(), 3u);
}

TEST_F(AudioSink, close_does_not_stop_a_running_stream) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(64);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 64, 0), 0);
    tv().clear_events();
    close_output();
    EXPECT_EQ(compr_requests(), Strings{"close"});
    EXPECT_EQ(tv().compr().stops, 0u);
}

TEST_F(AudioSink, close_without_the_mixer_controls_still_releases_the_handle) {
    open_and_setup(2, 48000);
    tv().set_present("/dev/snd/controlC0", false);
    const void* handle = output_;
    close_output();
    const std::string open_failed = aline("_kcontrol_set", "Error! open  hctl failed");
    const std::string set_failed =
        aline("quarvel_audio_output_volume_control", "Error! set 'speaker out gain' failed");
    const std::string rate_failed =
        aline("quarvel_audio_output_speed_control", "Error! set 'speaker out gain' failed");
    EXPECT_EQ(lines(), (Strings{open_failed, "", set_failed, " ", open_failed, "", set_failed, " ",
                                open_failed, "", rate_failed, " ", release_line(handle)}));
    EXPECT_EQ(compr_requests(), Strings{"close"});
    EXPECT_TRUE(tv().sound().writes.empty());
}

TEST_F(AudioSink, close_device_releases_a_handle_without_descriptor) {
    auto* handle = new quarvel_audio_output_s{};
    handle->m_fd = -1;
    const std::string expected = release_line(handle);
    CloseDevice(handle);
    EXPECT_EQ(lines(), Strings{expected});
    EXPECT_TRUE(tv().events().empty());
}
