#include "ruvoaudiosink_timeline.h"

#include <algorithm>

namespace ruvo_audio {

void Timeline::restart(uint64_t start_ns) {
    first_ = 0;
    count_ = 0;
    bytes_ = 0;
    start_ns_ = end_ns_ = first_time_ = start_ns;
    first_byte_ = 0;
}

void Timeline::add_block(uint64_t bytes, uint64_t duration_ns) {
    if (count_ == kBlocks) {
        // The oldest block leaves the table; its end is where the kept ones start.
        first_byte_ = blocks_[first_].byte_end;
        first_time_ = blocks_[first_].time_end;
        first_ = (first_ + 1) % kBlocks;
        --count_;
    }
    bytes_ += bytes;
    end_ns_ += duration_ns;
    blocks_[(first_ + count_) % kBlocks] = Block{bytes_, end_ns_};
    ++count_;
}

uint64_t Timeline::bytes_per_second() const {
    const uint64_t bytes = bytes_ - first_byte_;
    const uint64_t ns = end_ns_ - first_time_;
    if (ns == 0)
        return 0;
    return static_cast<uint64_t>(static_cast<double>(bytes) * 1e9 / static_cast<double>(ns));
}

uint64_t Timeline::time_at_byte(uint64_t offset) const {
    if (offset <= first_byte_ || count_ == 0)
        return first_time_;
    if (offset >= bytes_)
        return end_ns_;
    // Binary search for the first block ending after `offset`.
    size_t lo = 0, hi = count_ - 1;
    while (lo < hi) {
        const size_t mid = (lo + hi) / 2;
        if (at(mid).byte_end > offset)
            hi = mid;
        else
            lo = mid + 1;
    }
    const uint64_t b0 = lo == 0 ? first_byte_ : at(lo - 1).byte_end;
    const uint64_t t0 = lo == 0 ? first_time_ : at(lo - 1).time_end;
    const Block& b = at(lo);
    const double share = static_cast<double>(offset - b0) / static_cast<double>(b.byte_end - b0);
    return t0 + static_cast<uint64_t>(share * static_cast<double>(b.time_end - t0));
}

uint64_t Timeline::decoded_at(const PlaybackReport& report) const {
    return time_at_byte(report.taken);
}

uint64_t Timeline::heard_at(const PlaybackReport& report) const {
    const uint64_t decoded = decoded_at(report);
    const uint64_t floor = std::max(start_ns_, first_time_);
    if (decoded < floor + report.remain_ns)
        return floor;
    return decoded - report.remain_ns;
}

uint64_t Timeline::heard_now(const PlaybackReport& report, int64_t now_ns, bool playing) const {
    const uint64_t heard = heard_at(report);
    if (!playing || now_ns <= report.wallclock_ns)
        return heard;
    const uint64_t since = static_cast<uint64_t>(now_ns - report.wallclock_ns);
    return std::min(heard + since, std::max(heard, decoded_at(report)));
}

}  // namespace ruvo_audio
