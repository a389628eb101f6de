// The chip's audio decoder behind the compressed-offload device: a ring buffer the
// program writes into, and a decoder that, once started, takes whole frames from the
// ring into its own buffer as soon as there is room and plays them at the pace of the
// stream, scaled by the "audio dec0 playback rate" mixer control.
//
// Pacing::Parsed (the default): the bytes are parsed as ADTS AAC, AC-3 or E-AC-3 sync
// frames, each frame lasting its samples at its own sampling rate. Bytes that are no
// sync frame are undecodable: counted, taken from the ring without playing, never a
// stop. A write larger than the free room is short, as a driver's is.
// Pacing::Pcm: 16-bit PCM at the channels and rate of SET_PARAMS, consumed byte by byte
// (the session player's generated data). Every write is taken whole.
//
// Rate: 100 is normal speed, 200 plays twice as fast; 0 (or less) holds the decoder
// where it is (nothing is played, the frames counter stops) while the clock goes on.
// Mute ("main out mute" set): the decoder plays on, silently.
// START starts playing; STOP drops what the ring and the decoder hold and the counters
// start again from zero, as the driver's stream does.
//
// Answers, all from the one state at the time of the request:
//   AVAIL        avail = ring size - queued bytes (never below 0)
//   TSTAMP       copied_total = bytes taken from the ring since START (32 bits),
//                pcm_io_frames = PCM frames played, sampling_rate = the stream's rate
//   GET_METADATA remain = what the decoder holds and has not played, in bytes of a
//                48 kHz 16-bit stream of the stream's channels
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <vector>

namespace emutv {

// One sync frame found in the stream (or a run of undecodable bytes: samples 0, bad).
struct AudioFrameInfo {
    uint32_t bytes = 0;
    uint32_t samples = 0;        // PCM frames it decodes to
    uint32_t sampling_rate = 0;  // Hz
    bool bad = false;
};

// Parses the header at `p` (n bytes available). Returns false when `p` holds no sync
// frame header; sets *need_more when the header is incomplete.
bool parse_audio_frame(const uint8_t* p, size_t n, AudioFrameInfo* out, bool* need_more);

class AudioDecoder {
  public:
    enum class Pacing { Parsed, Pcm };

    struct Config {
        Pacing pacing = Pacing::Parsed;
        uint64_t ring_bytes = 32768;   // the ring the program writes into
        uint64_t dsp_bytes = 8192;     // the decoder's own buffer
        int64_t period_ns = 10000000;  // decoder period (one timeline entry each)
    };

    // What one decoder period played (for the timeline).
    struct Period {
        int64_t t_ns = 0;
        uint64_t played = 0;  // PCM frames in this period
    };

    void reset(const Config& config);
    const Config& config() const { return config_; }
    void set_config(const Config& config) { config_ = config; }
    // SET_PARAMS: channels and sampling rate of the stream.
    void set_params(uint32_t channels, uint32_t sampling_rate);

    // Brings the decoder to `now_ns`, period by period; `emit` (may be null) is called
    // at the end of each whole period while started.
    template <typename Emit>
    void advance(int64_t now_ns, long rate_percent, Emit&& emit);

    // A write of n bytes at the current time; returns the bytes taken.
    size_t write(const uint8_t* data, size_t n);
    void start(int64_t now_ns);
    void stop();
    bool running() const { return running_; }

    uint64_t avail() const;
    uint32_t copied_total() const;
    uint32_t pcm_io_frames() const;
    uint32_t sampling_rate() const;
    uint64_t remain() const;
    uint64_t queued() const;                               // written, not yet taken by the decoder
    uint64_t undecodable() const { return undecodable_; }  // since START
    uint64_t undecodable_last_write() const { return undecodable_last_; }
    int64_t media_us() const;        // media time reached since START
    uint64_t frames_played() const;  // PCM frames played since START

  private:
    void step(int64_t dt_ns, long rate_percent);
    void take_from_ring();
    void parse_pending();
    void play_parsed(int64_t budget_ns);
    void settle_pcm();
    uint64_t held_ns() const;

    Config config_;
    uint32_t channels_ = 2;
    uint32_t params_rate_ = 0;  // 0 until SET_PARAMS
    bool running_ = false;
    int64_t last_ns_ = 0;
    int64_t period_start_ns_ = 0;
    uint64_t period_played_ = 0;

    // Shared counters.
    uint64_t written_ = 0;  // since START/STOP
    uint64_t copied_ = 0;
    uint64_t undecodable_ = 0;
    uint64_t undecodable_last_ = 0;

    // Pcm pacing: bytes played, times 10^9.
    uint64_t played_e9_ = 0;

    // Parsed pacing.
    std::vector<uint8_t> pending_;  // written bytes not yet framed
    std::deque<AudioFrameInfo> ring_;
    std::deque<AudioFrameInfo> dsp_;
    uint64_t ring_bytes_ = 0;  // framed bytes in ring_
    uint64_t dsp_used_ = 0;
    int64_t head_done_ns_ = 0;    // of dsp_.front()
    uint64_t played_frames_ = 0;  // whole frames' PCM frames
    uint64_t media_ns_ = 0;       // whole frames' media time
    uint32_t stream_rate_ = 0;    // rate of the last parsed frame
};

template <typename Emit>
void AudioDecoder::advance(int64_t now_ns, long rate_percent, Emit&& emit) {
    if (!running_ || now_ns <= last_ns_) {
        if (!running_)
            last_ns_ = now_ns > last_ns_ ? now_ns : last_ns_;
        return;
    }
    const int64_t period = config_.period_ns > 0 ? config_.period_ns : 10000000;
    while (running_ && last_ns_ < now_ns) {
        const int64_t period_end = period_start_ns_ + period;
        const int64_t until = now_ns < period_end ? now_ns : period_end;
        const uint64_t before = frames_played();
        step(until - last_ns_, rate_percent);
        last_ns_ = until;
        period_played_ += frames_played() - before;
        if (until == period_end) {
            Period p;
            p.t_ns = period_end;
            p.played = period_played_;
            emit(p);
            period_start_ns_ = period_end;
            period_played_ = 0;
        }
    }
}

}  // namespace emutv
