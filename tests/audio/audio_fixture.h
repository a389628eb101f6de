// Fixture of the audio suites: a compressed-offload device at a path of the test's choosing
// beside the emulated sound card, and helpers to read what the drivers were told.
#pragma once

#include <stdio.h>
#include <sys/ioctl.h>

#include <sound/compress_offload.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

namespace audio_test {

constexpr char kDevice[] = "/dev/snd/comprC0D3";

// What the sound card was told, as (control, value) pairs in order.
using ControlWrites = std::vector<std::pair<std::string, long>>;

class AudioTest : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        tv().add_compr_device(kDevice);
    }

    void TearDown() override {
        if (output_ != nullptr)
            quarvel_audio_output_close(output_);
        output_ = nullptr;
        PlatformTest::TearDown();
    }

    // Opens the device into output_ and clears the record and the printed lines.
    void open_output() {
        output_ = quarvel_audio_output_open(kDevice);
        ASSERT_NE(output_, nullptr);
        tv().clear_events();
        lines();
    }

    // Opens and sets up output_, then clears the record and the printed lines.
    void open_and_setup(uint32_t channels, uint32_t sample_rate) {
        open_output();
        ASSERT_NE(output_, nullptr);
        quarvel_audio_output_setup_params_s params{};
        params.channels = channels;
        params.sample_rate = sample_rate;
        ASSERT_EQ(quarvel_audio_output_setup(output_, &params), 0);
        tv().clear_events();
        tv().sound().writes.clear();
        lines();
    }

    // Closes output_ (the test then owns the printed lines of the close).
    void close_output() {
        quarvel_audio_output_close(output_);
        output_ = nullptr;
    }

    // Names of the requests the compressed-offload device received.
    std::vector<std::string> compr_requests() const { return request_names(emutv::Device::Compr); }

    // Fails the n-th (1-based) next request of that name with `err`.
    void fail_nth(const std::string& name, int n, int err) {
        if (n <= 1) {
            tv().fail(name, err);
            return;
        }
        auto seen = std::make_shared<int>(0);
        tv().set_listener([name, n, err, seen](const emutv::Event& e) {
            if (e.name == name && ++*seen == n - 1)
                emutv::platform().fail(name, err);
        });
    }

    ControlWrites control_writes() const {
        ControlWrites out;
        for (const auto& w : emutv::platform().sound().writes)
            out.emplace_back(w.name, w.value);
        return out;
    }

    // The plain line a handle's release prints: "output: %p", without newline.
    static std::string release_line(const void* handle) {
        char buf[64];
        snprintf(buf, sizeof(buf), "output: %p", handle);
        return buf;
    }

    quarvel_audio_output_s* output_ = nullptr;
};

// Bytes of a record, for comparing with Event::in / Event::out.
template <typename T>
std::vector<uint8_t> bytes_of(const T& record) {
    auto* p = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

inline snd_compr_metadata metadata_record(uint32_t key, uint32_t value0) {
    snd_compr_metadata m;
    memset(&m, 0, sizeof(m));
    m.key = key;
    m.value[0] = value0;
    return m;
}

}  // namespace audio_test
