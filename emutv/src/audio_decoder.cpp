// The chip's audio decoder model: sync-frame parsing, the ring, the decoder's buffer and
// its pace.
#include "emutv/audio_decoder.h"

#include <string.h>

#include <algorithm>

namespace emutv {

namespace {

constexpr int64_t kNsPerS = 1000000000;
constexpr uint64_t kRemainRate = 48000;  // the driver reports the remain size at 48 kHz
constexpr size_t kHeaderBytes = 7;       // longest header looked at (ADTS)

const uint32_t kAdtsRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                               22050, 16000, 12000, 11025, 8000,  7350};
const uint32_t kAc3Rates[] = {48000, 44100, 32000};
const uint32_t kEac3HalfRates[] = {24000, 22050, 16000};
const uint32_t kAc3Kbps[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                             192, 224, 256, 320, 384, 448, 512, 576, 640};
const uint32_t kEac3Blocks[] = {1, 2, 3, 6};

bool parse_adts(const uint8_t* p, AudioFrameInfo* out) {
    if (p[0] != 0xFF || (p[1] & 0xF6) != 0xF0)
        return false;
    const uint32_t sf = (p[2] >> 2) & 0xF;
    if (sf >= sizeof(kAdtsRates) / sizeof(kAdtsRates[0]))
        return false;
    const uint32_t length = ((p[3] & 3u) << 11) | (static_cast<uint32_t>(p[4]) << 3) | (p[5] >> 5);
    const uint32_t header = (p[1] & 1) ? 7 : 9;
    if (length < header)
        return false;
    out->bytes = length;
    out->samples = 1024u * ((p[6] & 3u) + 1);
    out->sampling_rate = kAdtsRates[sf];
    return true;
}

bool parse_ac3(const uint8_t* p, AudioFrameInfo* out) {
    if (p[0] != 0x0B || p[1] != 0x77)
        return false;
    const uint32_t bsid = p[5] >> 3;
    const uint32_t fscod = p[4] >> 6;
    if (bsid <= 8) {
        const uint32_t code = p[4] & 0x3F;
        if (fscod == 3 || code >= 38)
            return false;
        const uint32_t kbps = kAc3Kbps[code / 2];
        uint32_t words = fscod == 0 ? kbps * 2 : fscod == 2 ? kbps * 3 : kbps * 96000 / 44100 + (code & 1);
        out->bytes = words * 2;
        out->samples = 1536;
        out->sampling_rate = kAc3Rates[fscod];
        return true;
    }
    if (bsid < 11 || bsid > 16)
        return false;
    const uint32_t strmtyp = p[2] >> 6;
    if (strmtyp == 3)
        return false;
    out->bytes = ((((p[2] & 7u) << 8) | p[3]) + 1) * 2;
    if (fscod == 3) {
        const uint32_t fscod2 = (p[4] >> 4) & 3;
        if (fscod2 == 3)
            return false;
        out->sampling_rate = kEac3HalfRates[fscod2];
        out->samples = 256 * 6;
    } else {
        out->sampling_rate = kAc3Rates[fscod];
        out->samples = 256 * kEac3Blocks[(p[4] >> 4) & 3];
    }
    // A dependent substream adds channels to the independent frame before it, not time.
    if (strmtyp == 1)
        out->samples = 0;
    return true;
}

}  // namespace

bool parse_audio_frame(const uint8_t* p, size_t n, AudioFrameInfo* out, bool* need_more) {
    *need_more = false;
    if (n == 0 || (n == 1 && (p[0] == 0xFF || p[0] == 0x0B))) {
        *need_more = true;
        return false;
    }
    if (n == 1)
        return false;
    const bool adts = p[0] == 0xFF && (p[1] & 0xF6) == 0xF0;
    const bool ac3 = p[0] == 0x0B && p[1] == 0x77;
    if (!adts && !ac3)
        return false;
    if (n < kHeaderBytes) {
        *need_more = true;
        return false;
    }
    *out = AudioFrameInfo{};
    return adts ? parse_adts(p, out) : parse_ac3(p, out);
}

void AudioDecoder::reset(const Config& config) {
    *this = AudioDecoder();
    config_ = config;
}

void AudioDecoder::set_params(uint32_t channels, uint32_t sampling_rate) {
    channels_ = channels ? channels : 2;
    params_rate_ = sampling_rate;
}

void AudioDecoder::start(int64_t now_ns) {
    running_ = true;
    last_ns_ = now_ns;
    period_start_ns_ = now_ns;
    period_played_ = 0;
    settle_pcm();
    take_from_ring();
}

void AudioDecoder::stop() {
    const Config config = config_;
    const uint32_t channels = channels_, rate = params_rate_;
    const int64_t last = last_ns_;
    reset(config);
    channels_ = channels;
    params_rate_ = rate;
    last_ns_ = last;
}

size_t AudioDecoder::write(const uint8_t* data, size_t n) {
    undecodable_last_ = 0;
    if (config_.pacing == Pacing::Pcm) {
        written_ += n;
        settle_pcm();
        return n;
    }
    n = static_cast<size_t>(std::min<uint64_t>(n, avail()));
    written_ += n;
    if (data != nullptr && n)
        pending_.insert(pending_.end(), data, data + n);
    const uint64_t before = undecodable_;
    parse_pending();
    undecodable_last_ = undecodable_ - before;
    take_from_ring();
    return n;
}

// Frames the bytes written so far; an incomplete frame at the end waits for more.
void AudioDecoder::parse_pending() {
    size_t pos = 0;
    uint32_t bad_run = 0;
    auto flush_bad = [&]() {
        if (bad_run) {
            AudioFrameInfo f;
            f.bytes = bad_run;
            f.bad = true;
            ring_.push_back(f);
            ring_bytes_ += bad_run;
            undecodable_ += bad_run;
            bad_run = 0;
        }
    };
    while (pos < pending_.size()) {
        AudioFrameInfo f;
        bool need_more = false;
        const size_t left = pending_.size() - pos;
        if (parse_audio_frame(&pending_[pos], left, &f, &need_more)) {
            if (f.bytes > left)
                break;
            flush_bad();
            ring_.push_back(f);
            ring_bytes_ += f.bytes;
            stream_rate_ = f.sampling_rate;
            pos += f.bytes;
        } else if (need_more) {
            break;
        } else {
            bad_run++;
            pos++;
        }
    }
    flush_bad();
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pos));
}

// The decoder takes whole frames while its buffer has room (one frame always fits in an
// empty buffer); undecodable runs are taken and thrown away.
void AudioDecoder::take_from_ring() {
    if (!running_ || config_.pacing == Pacing::Pcm)
        return;
    while (!ring_.empty()) {
        const AudioFrameInfo& f = ring_.front();
        if (!f.bad && !dsp_.empty() && dsp_used_ + f.bytes > config_.dsp_bytes)
            break;
        copied_ += f.bytes;
        ring_bytes_ -= f.bytes;
        if (!f.bad) {
            dsp_.push_back(f);
            dsp_used_ += f.bytes;
        }
        ring_.pop_front();
    }
}

void AudioDecoder::step(int64_t dt_ns, long rate_percent) {
    const uint64_t rate = rate_percent > 0 ? static_cast<uint64_t>(rate_percent) : 0;
    if (config_.pacing == Pacing::Pcm) {
        const uint64_t bytes_per_s = static_cast<uint64_t>(params_rate_) * channels_ * 2;
        played_e9_ += bytes_per_s * static_cast<uint64_t>(dt_ns) * rate / 100;
        played_e9_ = std::min<uint64_t>(played_e9_, written_ * static_cast<uint64_t>(kNsPerS));
        settle_pcm();
        return;
    }
    play_parsed(static_cast<int64_t>(static_cast<uint64_t>(dt_ns) * rate / 100));
}

void AudioDecoder::play_parsed(int64_t budget_ns) {
    while (budget_ns > 0 && !dsp_.empty()) {
        const AudioFrameInfo& f = dsp_.front();
        const int64_t duration =
            f.sampling_rate
                ? static_cast<int64_t>(static_cast<uint64_t>(f.samples) * kNsPerS / f.sampling_rate)
                : 0;
        const int64_t need = duration - head_done_ns_;
        if (budget_ns < need) {
            head_done_ns_ += budget_ns;
            return;
        }
        budget_ns -= need;
        played_frames_ += f.samples;
        media_ns_ += static_cast<uint64_t>(duration);
        dsp_used_ -= f.bytes;
        head_done_ns_ = 0;
        dsp_.pop_front();
        take_from_ring();
    }
    // An empty decoder buffer: the time goes by in silence (an underrun).
}

// Pcm pacing: the decoder's buffer holds up to dsp_bytes ahead of what it played.
void AudioDecoder::settle_pcm() {
    if (!running_ || config_.pacing != Pacing::Pcm)
        return;
    const uint64_t played = played_e9_ / static_cast<uint64_t>(kNsPerS);
    copied_ = std::max(copied_, std::min(written_, played + config_.dsp_bytes));
}

uint64_t AudioDecoder::queued() const {
    if (config_.pacing == Pacing::Pcm)
        return written_ - std::min(written_, copied_);
    return ring_bytes_ + pending_.size();
}

uint64_t AudioDecoder::avail() const {
    const uint64_t q = queued();
    return config_.ring_bytes > q ? config_.ring_bytes - q : 0;
}

uint32_t AudioDecoder::copied_total() const {
    return static_cast<uint32_t>(copied_);
}

uint32_t AudioDecoder::sampling_rate() const {
    if (config_.pacing == Pacing::Parsed && stream_rate_)
        return stream_rate_;
    return params_rate_ ? params_rate_ : 48000;
}

uint64_t AudioDecoder::frames_played() const {
    if (config_.pacing == Pacing::Pcm)
        return played_e9_ / static_cast<uint64_t>(kNsPerS) / (2ULL * channels_);
    uint64_t partial = 0;
    if (!dsp_.empty() && dsp_.front().sampling_rate)
        partial = static_cast<uint64_t>(head_done_ns_) * dsp_.front().sampling_rate / kNsPerS;
    return played_frames_ + partial;
}

uint32_t AudioDecoder::pcm_io_frames() const {
    return static_cast<uint32_t>(frames_played());
}

int64_t AudioDecoder::media_us() const {
    if (config_.pacing == Pacing::Pcm) {
        const uint64_t bytes_per_s = static_cast<uint64_t>(params_rate_) * channels_ * 2;
        return bytes_per_s ? static_cast<int64_t>(played_e9_ / bytes_per_s / 1000) : 0;
    }
    return static_cast<int64_t>((media_ns_ + static_cast<uint64_t>(head_done_ns_)) / 1000);
}

// Media time the decoder holds and has not played.
uint64_t AudioDecoder::held_ns() const {
    uint64_t ns = 0;
    for (const AudioFrameInfo& f : dsp_)
        if (f.sampling_rate)
            ns += static_cast<uint64_t>(f.samples) * kNsPerS / f.sampling_rate;
    return ns - std::min<uint64_t>(ns, static_cast<uint64_t>(head_done_ns_));
}

uint64_t AudioDecoder::remain() const {
    if (config_.pacing == Pacing::Pcm) {
        if (!params_rate_)
            return 0;
        const uint64_t played = played_e9_ / static_cast<uint64_t>(kNsPerS);
        return (copied_ - std::min(copied_, played)) * kRemainRate / params_rate_;
    }
    return held_ns() * kRemainRate / kNsPerS * 2 * channels_;
}

}  // namespace emutv
