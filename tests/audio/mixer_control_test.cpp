// Mixer controls through the real alsa-lib against the emulated sound card's control device.
#include <errno.h>
#include <math.h>
#include <stdint.h>

#include <limits>

#include "audio_fixture.h"
#include "ruvo_internal_audio.h"

using audio_test::AudioTest;
using audio_test::ControlWrites;
using emutv::Device;
using ruvo_test::aline;

using Strings = std::vector<std::string>;

namespace {

const char kControlPath[] = "/dev/snd/controlC0";

const std::string kOpenFailed = aline("_kcontrol_set", "Error! open  hctl failed");
const std::string kLoadFailed = aline("_kcontrol_set", "Error! load hctl failed");
const std::string kWriteFailed = aline("_kcontrol_set", "Error! write control elem failed");
const std::string kVolumeFailed =
    aline("quarvel_audio_output_volume_control", "Error! set 'speaker out gain' failed");
const std::string kSpeedFailed =
    aline("quarvel_audio_output_speed_control", "Error! set 'speaker out gain' failed");

std::string not_found(const std::string& name) {
    return aline("_kcontrol_set", "Error! Could not found the card default ctrl " + name + " error:0");
}

}  // namespace

class MixerControl : public AudioTest {
  protected:
    // Control handles opened and closed on the card.
    size_t card_opens() const {
        size_t n = 0;
        for (const auto& e : emutv::platform().events(Device::SoundCtl))
            if (e.name == "open" && e.result >= 0)
                n++;
        return n;
    }
    size_t card_closes() const {
        size_t n = 0;
        for (const auto& e : emutv::platform().events(Device::SoundCtl))
            if (e.name == "close")
                n++;
        return n;
    }
    void allow_any_value() {
        for (auto& c : tv().sound().controls) {
            c.min = std::numeric_limits<int32_t>::min();
            c.max = std::numeric_limits<int32_t>::max();
        }
    }
};

// ---- _kcontrol_set ----------------------------------------------------------------------

TEST_F(MixerControl, a_control_is_written_as_one_integer_on_the_mixer_interface) {
    EXPECT_EQ(_kcontrol_set("main out mute", 1), 0);
    EXPECT_EQ(control_writes(), (ControlWrites{{"main out mute", 1}}));
    auto writes = tv().events("SNDRV_CTL_IOCTL_ELEM_WRITE");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].text.at("name"), "main out mute");
    EXPECT_EQ(writes[0].field("value"), 1);
    EXPECT_EQ(writes[0].field("iface"), 2);  // SND_CTL_ELEM_IFACE_MIXER
    EXPECT_EQ(writes[0].field("device"), 0);
    EXPECT_EQ(writes[0].field("subdevice"), 0);
    EXPECT_EQ(writes[0].field("index"), 0);
    EXPECT_EQ(writes[0].path, kControlPath);
    EXPECT_EQ(card_opens(), card_closes());
    EXPECT_EQ(tv().open_descriptors(), 0);
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(MixerControl, every_write_opens_loads_and_closes_the_card_anew) {
    ASSERT_EQ(_kcontrol_set("qvl hp main gain", 5), 0);
    tv().clear_events();
    ASSERT_EQ(_kcontrol_set("qvl hp main gain", 6), 0);

    // alsa-lib resolves "default" to card 0 (card probes), then opens its control device,
    // loads the element list and writes; the handle is closed at the end.
    auto names = request_names(Device::SoundCtl);
    const Strings session = {"open",
                             "SNDRV_CTL_IOCTL_PVERSION",
                             "SNDRV_CTL_IOCTL_ELEM_LIST",
                             "SNDRV_CTL_IOCTL_ELEM_LIST",
                             "SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS",
                             "SNDRV_CTL_IOCTL_ELEM_WRITE",
                             "close"};
    ASSERT_GE(names.size(), session.size());
    EXPECT_EQ(Strings(names.end() - session.size(), names.end()), session);
    EXPECT_EQ(card_opens(), card_closes());
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 1u);
    EXPECT_EQ(tv().sound().value("qvl hp main gain"), 6);
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(MixerControl, a_control_the_card_lacks_is_not_found) {
    ASSERT_TRUE(tv().sound().remove_control("qvl hp main gain"));
    EXPECT_EQ(_kcontrol_set("qvl hp main gain", 7), -1);
    EXPECT_EQ(lines(), (Strings{not_found("qvl hp main gain"), ""}));
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 0u);
    EXPECT_EQ(card_opens(), card_closes());
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(MixerControl, an_unknown_control_name_is_not_found) {
    EXPECT_EQ(_kcontrol_set("qvl line out gain", 7), -1);
    EXPECT_EQ(lines(), (Strings{not_found("qvl line out gain"), ""}));
    EXPECT_TRUE(tv().sound().writes.empty());
}

TEST_F(MixerControl, a_card_without_control_device_fails_the_open_and_closes_nothing) {
    tv().set_present(kControlPath, false);
    EXPECT_EQ(_kcontrol_set("main out mute", 1), -1);
    EXPECT_EQ(lines(), (Strings{kOpenFailed, ""}));
    EXPECT_EQ(card_opens(), 0u);
    EXPECT_EQ(card_closes(), 0u);
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 0u);

    // The card comes back: the next write works.
    tv().set_present(kControlPath, true);
    EXPECT_EQ(_kcontrol_set("main out mute", 1), 0);
    EXPECT_EQ(control_writes(), (ControlWrites{{"main out mute", 1}}));
}

TEST_F(MixerControl, a_refused_control_device_open_fails_the_open_and_closes_nothing) {
    tv().fail(std::string("open:") + kControlPath, EACCES, -1);
    EXPECT_EQ(_kcontrol_set("main out mute", 1), -1);
    EXPECT_EQ(lines(), (Strings{kOpenFailed, ""}));
    EXPECT_EQ(card_opens(), 0u);
    EXPECT_EQ(card_closes(), 0u);
    EXPECT_GE(tv().count("open"), 1u);
}

TEST_F(MixerControl, a_failed_load_is_reported_and_the_card_closed) {
    tv().fail("SNDRV_CTL_IOCTL_ELEM_LIST", EIO);
    EXPECT_EQ(_kcontrol_set("main out mute", 1), -1);
    EXPECT_EQ(lines(), (Strings{kLoadFailed, ""}));
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 0u);
    EXPECT_EQ(card_opens(), card_closes());
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(MixerControl, a_failed_write_is_reported_and_the_card_closed) {
    tv().fail("SNDRV_CTL_IOCTL_ELEM_WRITE", EIO);
    EXPECT_EQ(_kcontrol_set("main out mute", 1), -1);
    EXPECT_EQ(lines(), (Strings{kWriteFailed, " "}));
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 1u);
    EXPECT_TRUE(tv().sound().writes.empty());
    EXPECT_EQ(card_opens(), card_closes());
}

TEST_F(MixerControl, a_value_the_driver_rejects_fails_the_write) {
    tv().sound().controls[3].max = 1;  // "main out mute"
    EXPECT_EQ(_kcontrol_set("main out mute", 2), -1);
    EXPECT_EQ(lines(), (Strings{kWriteFailed, " "}));
}

// ---- volume -----------------------------------------------------------------------------

TEST_F(MixerControl, unity_volume_writes_32768_to_both_gains) {
    EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 1.0f), 0);
    EXPECT_EQ(control_writes(),
              (ControlWrites{{"qvl speaker main gain", 32768}, {"qvl hp main gain", 32768}}));
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(MixerControl, volume_is_fixed_point_with_15_fraction_bits) {
    allow_any_value();
    const std::pair<float, long> cases[] = {
        {0.5f, 16384},          {0.0f, 0},
        {2.0f, 65536},          {-0.5f, -16384},
        {1.0f / 65536.0f, 0},   // 0.5 truncated
        {-1.0f / 65536.0f, 0},  // -0.5 truncated toward zero
        {0.99999994f, 32767},   // 32767.998 truncated
        {-0.99999994f, -32767}, {65535.0f, 2147450880},
    };
    for (const auto& c : cases) {
        tv().sound().writes.clear();
        EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, c.first), 0) << c.first;
        EXPECT_EQ(control_writes(),
                  (ControlWrites{{"qvl speaker main gain", c.second}, {"qvl hp main gain", c.second}}))
            << c.first;
    }
}

TEST_F(MixerControl, volume_out_of_range_saturates_and_nan_gives_0) {
    allow_any_value();
    const std::pair<float, long> cases[] = {
        {65536.0f, 2147483647L},
        {1e10f, 2147483647L},
        {std::numeric_limits<float>::infinity(), 2147483647L},
        {-65536.0f, -2147483647L - 1},
        {-1e10f, -2147483647L - 1},
        {-std::numeric_limits<float>::infinity(), -2147483647L - 1},
        {std::numeric_limits<float>::quiet_NaN(), 0},
    };
    for (const auto& c : cases) {
        tv().sound().writes.clear();
        EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, c.first), 0) << c.first;
        EXPECT_EQ(control_writes(),
                  (ControlWrites{{"qvl speaker main gain", c.second}, {"qvl hp main gain", c.second}}))
            << c.first;
    }
}

TEST_F(MixerControl, a_missing_speaker_gain_still_writes_the_headphone_gain) {
    ASSERT_TRUE(tv().sound().remove_control("qvl speaker main gain"));
    EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 0.5f), -1);
    EXPECT_EQ(control_writes(), (ControlWrites{{"qvl hp main gain", 16384}}));
    EXPECT_EQ(lines(), (Strings{not_found("qvl speaker main gain"), "", kVolumeFailed, " "}));
}

TEST_F(MixerControl, a_missing_headphone_gain_fails_after_the_speaker_gain) {
    ASSERT_TRUE(tv().sound().remove_control("qvl hp main gain"));
    EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 0.5f), -1);
    EXPECT_EQ(control_writes(), (ControlWrites{{"qvl speaker main gain", 16384}}));
    EXPECT_EQ(lines(), (Strings{not_found("qvl hp main gain"), "", kVolumeFailed, " "}));
}

TEST_F(MixerControl, both_gains_failing_print_the_message_twice) {
    tv().fail("SNDRV_CTL_IOCTL_ELEM_WRITE", EIO, 2);
    EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 1.0f), -1);
    EXPECT_EQ(lines(),
              (Strings{kWriteFailed, " ", kVolumeFailed, " ", kWriteFailed, " ", kVolumeFailed, " "}));
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 2u);
}

TEST_F(MixerControl, volume_ignores_the_handle) {
    open_and_setup(2, 48000);
    EXPECT_EQ(quarvel_audio_output_volume_control(output_, 0.5f), 0);
    EXPECT_EQ(control_writes(),
              (ControlWrites{{"qvl speaker main gain", 16384}, {"qvl hp main gain", 16384}}));
    EXPECT_TRUE(tv().events(Device::Compr).empty());
}

// ---- speed ------------------------------------------------------------------------------

TEST_F(MixerControl, speed_is_written_in_percent_truncated) {
    allow_any_value();
    const std::pair<float, long> cases[] = {
        {1.0f, 100}, {1.5f, 150},   {0.333f, 33},   {0.999f, 99},
        {0.0f, 0},   {-1.0f, -100}, {-0.999f, -99}, {2.0f, 200},
    };
    for (const auto& c : cases) {
        tv().sound().writes.clear();
        EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, c.first), 0) << c.first;
        EXPECT_EQ(control_writes(), (ControlWrites{{"audio dec0 playback rate", c.second}})) << c.first;
    }
    EXPECT_EQ(lines(), Strings{});
}

TEST_F(MixerControl, speed_out_of_range_saturates_and_nan_gives_0) {
    allow_any_value();
    const std::pair<float, long> cases[] = {
        {1e30f, 2147483647L},
        {-1e30f, -2147483647L - 1},
        {std::numeric_limits<float>::quiet_NaN(), 0},
    };
    for (const auto& c : cases) {
        tv().sound().writes.clear();
        EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, c.first), 0) << c.first;
        EXPECT_EQ(control_writes(), (ControlWrites{{"audio dec0 playback rate", c.second}})) << c.first;
    }
}

TEST_F(MixerControl, a_failed_speed_write_reports_the_gain_message) {
    tv().fail("SNDRV_CTL_IOCTL_ELEM_WRITE", EIO);
    EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, 1.0f), -1);
    EXPECT_EQ(lines(), (Strings{kWriteFailed, " ", kSpeedFailed, " "}));
}

TEST_F(MixerControl, a_missing_rate_control_fails_the_speed) {
    ASSERT_TRUE(tv().sound().remove_control("audio dec0 playback rate"));
    EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, 1.0f), -1);
    EXPECT_EQ(lines(), (Strings{not_found("audio dec0 playback rate"), "", kSpeedFailed, " "}));
}
