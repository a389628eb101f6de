// Fault matrix of the audio output: open, setup, sync mode, data push, playback info, stop,
// close, and the mixer controls, each driver request failed in turn.
#include "fault_matrix.h"
#include "mixer_faults.h"

using namespace faults;

namespace {

using Names = std::vector<std::string>;

const char kDevice[] = "/dev/snd/comprC0D0";
const std::string kAvail = "SNDRV_COMPRESS_AVAIL";
const std::string kStart = "SNDRV_COMPRESS_START";
const std::string kMetadataFailed = "ioctl SNDRV_COMPRESS_SET_METADATA failed [%E]";  // plain, no newline

class AudioFaults : public FaultMatrix {
  protected:
    void SetUp() override {
        FaultMatrix::SetUp();
        warm_up_mixer();
        (void)lines_now();
    }
    void TearDown() override {
        close_output();
        FaultMatrix::TearDown();
    }

    void open_output() {
        tv().add_compr_device(kDevice);
        out_ = quarvel_audio_output_open(kDevice);
        ASSERT_NE(out_, nullptr);
    }
    void set_up_output() {
        open_output();
        ASSERT_EQ(quarvel_audio_output_setup(out_, &params_), 0);
    }
    void playing_output() {
        set_up_output();
        ASSERT_EQ(quarvel_audio_output_push_data(out_, block_, kPayload, kExtra), 0);
    }
    void close_output() {
        if (out_ != nullptr)
            quarvel_audio_output_close(out_);
        out_ = nullptr;
    }

    void expect_next(int result, int expected, const Names& requests) {
        EXPECT_EQ(result, expected) << "next call";
        EXPECT_EQ(requests_since_mark(), requests) << "next call";
    }

    Sequence sequence(const std::string& name, std::function<void()> setup, std::function<int()> call) {
        Sequence s;
        s.name = name;
        s.setup = std::move(setup);
        s.call = std::move(call);
        s.teardown = [this] {
            close_output();
            (void)lines_now();
        };
        return s;
    }

    static constexpr unsigned kPayload = 4096;
    static constexpr unsigned kExtra = 32;
    unsigned char block_[kPayload + kExtra] = {};
    const quarvel_audio_output_setup_params_s params_{2, 48000, {0, 0, 0, 0, 0, 0}};
    quarvel_audio_output_s* out_ = nullptr;
};

TEST_F(AudioFaults, open_of_a_failing_device_returns_null_after_releasing_the_handle) {
    Sequence s = sequence(
        "audio open", [this] { tv().add_compr_device(kDevice); },
        [this] {
            out_ = quarvel_audio_output_open(kDevice);
            return out_ != nullptr ? 0 : -1;
        });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != std::string("open:") + kDevice)
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {a("quarvel_audio_output_open", "open(/dev/snd/comprC0D0) failed: %E"), "output: <ptr>"};
        o.next_call = [this] {
            out_ = quarvel_audio_output_open(kDevice);
            EXPECT_NE(out_, nullptr) << "next call";
        };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, setup_returns_the_code_of_the_failing_step_and_can_be_repeated) {
    const std::string S = "quarvel_audio_output_setup";
    Sequence s = sequence(
        "audio setup", [this] { open_output(); },
        [this] { return quarvel_audio_output_setup(out_, &params_); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        if (st.key == "SNDRV_COMPRESS_GET_CAPS") {
            o.result = -1;
            o.lines = {a(S, "ioctl(SNDRV_COMPRESS_GET_CAPS) failed : [%E]")};
        } else if (st.key == "SNDRV_COMPRESS_SET_PARAMS") {
            o.result = -2;
            o.lines = {a(S, "ioctl(SNDRV_COMPRESS_SET_PARAMS) failed : [%E]")};
        } else if (st.key == "SNDRV_COMPRESS_SET_METADATA" && st.occurrence == 1) {
            o.result = -3;
            o.lines = {kMetadataFailed +
                       a(S, "set_compr_metadata(SNDRV_COMPRESS_SPDIF_DEVICE_INFO, 48000) failed")};
        } else if (st.key == "SNDRV_COMPRESS_SET_METADATA" && st.occurrence == 2) {
            o.result = -4;
            o.lines = {kMetadataFailed + a(S, "set_compr_metadata(SNDRV_COMPRESS_IS_CDDTS, 0) failed")};
        } else {
            return unknown();
        }
        o.next_call = [this] {
            expect_next(quarvel_audio_output_setup(out_, &params_), 0,
                        {"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
                         "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_SET_METADATA"});
        };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, a_refused_sync_mode_returns_minus_1_with_the_mapped_value) {
    Sequence s = sequence(
        "audio sync mode", [this] { set_up_output(); },
        [this] {
            return quarvel_audio_output_set_sync_mode(out_, quarvel_audio_output_sync_mode__sync_to_video);
        });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != "SNDRV_COMPRESS_SET_METADATA")
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {kMetadataFailed + a("quarvel_audio_output_set_sync_mode",
                                       "set_compr_metadata(SNDRV_COMPRESS_SYNC_MODE, 0) failed")};
        o.next_call = [this] {
            expect_next(
                quarvel_audio_output_set_sync_mode(out_, quarvel_audio_output_sync_mode__sync_to_video), 0,
                {"SNDRV_COMPRESS_SET_METADATA"});
        };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, the_first_push_returns_the_code_of_the_failing_step) {
    const std::string P = "quarvel_audio_output_push_data";
    Sequence s = sequence(
        "audio first push", [this] { set_up_output(); },
        [this] { return quarvel_audio_output_push_data(out_, block_, kPayload, kExtra); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        auto nothing_counted = [this] {
            EXPECT_EQ(out_->m_pushed_frames, 0u);
            EXPECT_EQ(out_->m_pushed_extra_bytes, 0u);
        };
        auto pushes_and_starts = [this] {
            expect_next(quarvel_audio_output_push_data(out_, block_, kPayload, kExtra), 0,
                        {kAvail, "write", kStart});
            EXPECT_TRUE(out_->m_is_driver_started);
        };
        if (st.key == kAvail) {
            o.result = -1;
            o.lines = {a(P, "ioctl(SNDRV_COMPRESS_AVAIL) failed : [%E]")};
            o.check = nothing_counted;
            o.next_call = pushes_and_starts;
        } else if (st.key == "write") {
            o.result = -3;
            o.lines = {a(P, "write(4096) -> [%E]")};
            o.check = nothing_counted;
            o.next_call = pushes_and_starts;
        } else if (st.key == kStart) {
            // The block stays counted, so the next push does not start the stream.
            o.result = -4;
            o.lines = {a(P, "ioctl(SNDRV_COMPRESS_START) failed : [%E]")};
            o.check = [this] {
                EXPECT_EQ(out_->m_pushed_frames, 1024u);
                EXPECT_EQ(out_->m_pushed_extra_bytes, kExtra);
                EXPECT_FALSE(out_->m_is_driver_started);
            };
            o.next_call = [this] {
                expect_next(quarvel_audio_output_push_data(out_, block_, kPayload, kExtra), 0,
                            {kAvail, "write"});
                EXPECT_FALSE(out_->m_is_driver_started);
            };
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(AudioFaults,
       a_push_while_playing_returns_the_code_of_the_failing_step_and_the_next_push_goes_through) {
    const std::string P = "quarvel_audio_output_push_data";
    Sequence s = sequence(
        "audio push", [this] { playing_output(); },
        [this] { return quarvel_audio_output_push_data(out_, block_, kPayload, kExtra); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        if (st.key == kAvail) {
            o.result = -1;
            o.lines = {a(P, "ioctl(SNDRV_COMPRESS_AVAIL) failed : [%E]")};
        } else if (st.key == "write") {
            o.result = -3;
            o.lines = {a(P, "write(4096) -> [%E]")};
        } else {
            return unknown();
        }
        o.check = [this] { EXPECT_EQ(out_->m_pushed_frames, 1024u); };
        o.next_call = [this] {
            expect_next(quarvel_audio_output_push_data(out_, block_, kPayload, kExtra), 0, {kAvail, "write"});
            EXPECT_EQ(out_->m_pushed_frames, 2048u);
        };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, playback_info_returns_the_code_of_the_failing_step_and_leaves_the_record_alone) {
    const std::string I = "quarvel_audio_output_get_info";
    quarvel_audio_output_info_s info{};
    Sequence s = sequence(
        "audio info",
        [&, this] {
            playing_output();
            memset(&info, 0x5A, sizeof(info));
        },
        [&, this] { return quarvel_audio_output_get_info(out_, &info); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        if (st.key == "SNDRV_COMPRESS_TSTAMP") {
            o.result = -1;
            o.lines = {a(I, "ioctl(SNDRV_COMPRESS_TSTAMP) failed : [%E]")};
        } else if (st.key == "SNDRV_COMPRESS_GET_METADATA") {
            o.result = -2;
            o.lines = {"ioctl SNDRV_COMPRESS_GET_METADATA failed [%E]" +
                       a(I, "get_compr_metadata(SNDRV_COMPRESS_GET_REMAINSIZE) failed")};
        } else if (st.key == kAvail) {
            o.result = -3;
            o.lines = {a(I, "ioctl(SNDRV_COMPRESS_AVAIL) failed : [%E]")};
        } else {
            return unknown();
        }
        o.check = [&] {
            quarvel_audio_output_info_s untouched;
            memset(&untouched, 0x5A, sizeof(untouched));
            EXPECT_EQ(memcmp(&info, &untouched, sizeof(info)), 0) << "the record was written";
        };
        o.next_call = [&, this] {
            expect_next(quarvel_audio_output_get_info(out_, &info), 0,
                        {"SNDRV_COMPRESS_TSTAMP", "SNDRV_COMPRESS_GET_METADATA", kAvail});
            EXPECT_EQ(info.bytes_free, 65536u - 140u);
        };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, a_refused_stop_returns_minus_1_keeps_the_stream_started_and_the_next_stop_stops_it) {
    Sequence s = sequence(
        "audio stop", [this] { playing_output(); }, [this] { return quarvel_audio_output_stop(out_); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != "SNDRV_COMPRESS_STOP")
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {a("quarvel_audio_output_stop", "ioctl(SNDRV_COMPRESS_STOP) failed : [%E]")};
        o.check = [this] {
            EXPECT_TRUE(out_->m_is_driver_started);
            EXPECT_EQ(out_->m_pushed_frames, 0u);
        };
        o.next_call = [this] {
            expect_next(quarvel_audio_output_stop(out_), 0, {"SNDRV_COMPRESS_STOP"});
            EXPECT_FALSE(out_->m_is_driver_started);
        };
        return o;
    };
    run(s);
}

// The caller's line after a failed control write of the volume (writes 0 and 1) or of the
// speed.
std::vector<std::string> control_caller_line(const std::string& func) {
    return {a(func, "Error! set 'speaker out gain' failed"), " "};
}

TEST_F(AudioFaults, close_logs_a_failing_mixer_request_and_still_releases_the_output) {
    Sequence s = sequence(
        "audio close", [this] { playing_output(); },
        [this] {
            quarvel_audio_output_close(out_);
            out_ = nullptr;
            return 0;
        });
    s.success.lines = {"output: <ptr>"};
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        o.next_call = [this] {
            open_output();
            EXPECT_EQ(quarvel_audio_output_setup(out_, &params_), 0) << "next call";
        };
        if (st.key == std::string("close:") + kDevice) {
            o.lines = {"output: <ptr>"};
            return o;
        }
        const MixerFailure m = mixer_failure(st);
        if (!m.known)
            return unknown();
        const int write = mixer_step(st).write;
        o.lines = m.lines;
        if (!m.written)
            o.lines = cat(o.lines, control_caller_line(write < 2 ? "quarvel_audio_output_volume_control"
                                                                 : "quarvel_audio_output_speed_control"));
        o.lines.push_back("output: <ptr>");
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, volume_reports_minus_1_when_either_gain_control_fails_and_writes_the_other) {
    Sequence s = sequence(
        "volume", [] {}, [] { return quarvel_audio_output_volume_control(nullptr, 0.5f); });
    s.success.check = [this] {
        EXPECT_EQ(tv().sound().value("qvl speaker main gain"), 16384);
        EXPECT_EQ(tv().sound().value("qvl hp main gain"), 16384);
    };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        const MixerFailure m = mixer_failure(st);
        if (!m.known)
            return unknown();
        Outcome o;
        const int write = mixer_step(st).write;
        o.lines = m.lines;
        if (!m.written) {
            o.result = -1;
            o.lines = cat(o.lines, control_caller_line("quarvel_audio_output_volume_control"));
        }
        o.check = [this, m, write] {
            EXPECT_EQ(tv().sound().value("qvl speaker main gain"), write == 0 && !m.written ? 0 : 16384);
            EXPECT_EQ(tv().sound().value("qvl hp main gain"), write == 1 && !m.written ? 0 : 16384);
        };
        o.next_call = [] { EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 0.5f), 0) << "next call"; };
        return o;
    };
    run(s);
}

TEST_F(AudioFaults, speed_reports_minus_1_when_the_rate_control_fails) {
    Sequence s = sequence(
        "speed", [] {}, [] { return quarvel_audio_output_speed_control(nullptr, 1.5f); });
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        const MixerFailure m = mixer_failure(st);
        if (!m.known)
            return unknown();
        Outcome o;
        o.lines = m.lines;
        if (!m.written) {
            o.result = -1;
            o.lines = cat(o.lines, control_caller_line("quarvel_audio_output_speed_control"));
        }
        o.check = [this, m] {
            EXPECT_EQ(tv().sound().value("audio dec0 playback rate"), m.written ? 150 : 0);
        };
        o.next_call = [] { EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, 1.5f), 0) << "next call"; };
        return o;
    };
    run(s);
}

}  // namespace
