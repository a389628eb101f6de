// The audio decoder's timeline as ruvoaudiosink keeps it: every block written to the
// compressed-offload device gets a span of device time, back to back, so that the playback
// report (bytes still in transit, decoded samples not yet played, the time of the report)
// says which instant of the stream leaves the decoder. No allocation after construction.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>

namespace ruvo_audio {

// What the element reads from one playback report of the library, in the decoder's units.
struct PlaybackReport {
    int64_t wallclock_ns = 0;  // time of the report, CLOCK_MONOTONIC_RAW
    uint64_t taken = 0;        // stream offset up to which the decoder took the bytes
    uint64_t remain_ns = 0;    // decoded audio the decoder holds and has not played
};

class Timeline {
  public:
    static constexpr size_t kBlocks = 1024;

    // A new stream: nothing written yet, its first block starts at `start_ns`.
    void restart(uint64_t start_ns);
    // A block of `bytes` written, lasting `duration_ns` of device time.
    void add_block(uint64_t bytes, uint64_t duration_ns);

    uint64_t bytes_written() const { return bytes_; }
    uint64_t start_ns() const { return start_ns_; }
    uint64_t end_ns() const { return end_ns_; }
    bool empty() const { return count_ == 0; }
    // Bytes written per second of device time over the blocks kept (0 when unknown).
    uint64_t bytes_per_second() const;

    // Device time at the byte `offset` of the stream, interpolated inside its block.
    uint64_t time_at_byte(uint64_t offset) const;
    // Device time of the sample leaving the decoder at the report: the decoder has taken
    // the bytes up to `taken`, and still holds `remain_ns` of what it took.
    uint64_t heard_at(const PlaybackReport& report) const;
    // Device time decoded at the report: no later instant can be heard before the next one.
    uint64_t decoded_at(const PlaybackReport& report) const;
    // Device time heard at `now_ns`: the report's, plus the time since it while the decoder
    // plays, never past what it had decoded.
    uint64_t heard_now(const PlaybackReport& report, int64_t now_ns, bool playing) const;

  private:
    struct Block {
        uint64_t byte_end = 0;  // stream offset after the block
        uint64_t time_end = 0;  // device time after the block
    };
    const Block& at(size_t i) const { return blocks_[(first_ + i) % kBlocks]; }

    std::array<Block, kBlocks> blocks_{};
    size_t first_ = 0;
    size_t count_ = 0;
    uint64_t bytes_ = 0;
    uint64_t start_ns_ = 0;
    uint64_t end_ns_ = 0;
    uint64_t first_byte_ = 0;  // stream offset where the oldest kept block starts
    uint64_t first_time_ = 0;  // device time where it starts
};

}  // namespace ruvo_audio
