// Compressed-offload device model: the chip's audio decoder behind the ALSA compressed
// offload interface, answering with the kernel's own records.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include <sound/compress_offload.h>

#include <algorithm>

#include "core.h"
#include "timeline_internal.h"
#include "ruvo/driver/compress_ext.h"

namespace emutv {

namespace {

bool modelled(const ComprModel& m) {
    return m.answers == ComprModel::Answers::Modelled;
}

void fill_tstamp(const ComprModel& m, snd_compr_tstamp* t) {
    memset(t, 0, sizeof(*t));
    if (modelled(m)) {
        t->copied_total = m.decoder.copied_total();
        t->byte_offset = t->copied_total;
        t->pcm_io_frames = m.decoder.pcm_io_frames();
        t->sampling_rate = m.decoder.sampling_rate();
        return;
    }
    t->copied_total = m.copied_total;
    t->byte_offset = m.copied_total;
    t->sampling_rate = m.sampling_rate;
}

// The decoder's sizes follow the device's capabilities unless set.
void configure_decoder(ComprModel& m) {
    AudioDecoder::Config c = m.decoder.config();
    c.pacing = m.pacing;
    c.ring_bytes = m.ring_bytes ? m.ring_bytes : static_cast<uint64_t>(m.min_fragment_size) * m.max_fragments;
    c.dsp_bytes = m.dsp_bytes >= 0 ? static_cast<uint64_t>(m.dsp_bytes) : 2ULL * m.min_fragment_size;
    m.decoder.set_config(c);
}

}  // namespace

// The defaults are the members' initializers (emutv/models.h).
void ComprModel::reset() {
    *this = ComprModel();
    answers = detail::timeline().mode == ClockMode::Real ? Answers::Modelled : Answers::Scripted;
}

const char* ComprModel::request_literal(unsigned long req, const void*) const {
    switch (req) {
        case SNDRV_COMPRESS_IOCTL_VERSION:
            return "SNDRV_COMPRESS_IOCTL_VERSION";
        case SNDRV_COMPRESS_GET_CAPS:
            return "SNDRV_COMPRESS_GET_CAPS";
        case SNDRV_COMPRESS_SET_PARAMS:
            return "SNDRV_COMPRESS_SET_PARAMS";
        case SNDRV_COMPRESS_SET_METADATA:
            return "SNDRV_COMPRESS_SET_METADATA";
        case SNDRV_COMPRESS_GET_METADATA:
            return "SNDRV_COMPRESS_GET_METADATA";
        case SNDRV_COMPRESS_TSTAMP:
            return "SNDRV_COMPRESS_TSTAMP";
        case SNDRV_COMPRESS_AVAIL:
            return "SNDRV_COMPRESS_AVAIL";
        case SNDRV_COMPRESS_START:
            return "SNDRV_COMPRESS_START";
        case SNDRV_COMPRESS_STOP:
            return "SNDRV_COMPRESS_STOP";
        default:
            return nullptr;
    }
}

std::string ComprModel::request_name(unsigned long req, const void* arg) const {
    if (const char* name = request_literal(req, arg))
        return name;
    char buf[40];
    snprintf(buf, sizeof(buf), "SNDRV_COMPRESS_0x%lx", req);
    return buf;
}

long ComprModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    auto& f = ev.fields;
    const bool has_data = ((req >> 16) & 0x3FFF) != 0;
    if (has_data && arg == nullptr) {
        *err = EFAULT;
        return -1;
    }
    configure_decoder(*this);
    switch (req) {
        case SNDRV_COMPRESS_IOCTL_VERSION:
            *static_cast<int*>(arg) = SNDRV_COMPRESS_VERSION;
            return 0;
        case SNDRV_COMPRESS_GET_CAPS: {
            auto* caps = static_cast<snd_compr_caps*>(arg);
            memset(caps, 0, sizeof(*caps));
            caps->num_codecs = 1;
            caps->direction = SND_COMPRESS_PLAYBACK;
            caps->min_fragment_size = min_fragment_size;
            caps->max_fragment_size = max_fragment_size;
            caps->min_fragments = min_fragments;
            caps->max_fragments = max_fragments;
            caps->codecs[0] = SND_AUDIOCODEC_MP3;
            f["min_fragment_size"] = min_fragment_size;
            f["max_fragments"] = max_fragments;
            return 0;
        }
        case SNDRV_COMPRESS_SET_PARAMS: {
            auto* p = static_cast<const snd_compr_params*>(arg);
            f["fragment_size"] = p->buffer.fragment_size;
            f["fragments"] = p->buffer.fragments;
            f["codec_id"] = p->codec.id;
            f["ch_in"] = p->codec.ch_in;
            f["ch_out"] = p->codec.ch_out;
            f["sample_rate"] = p->codec.sample_rate;
            f["reserved1"] = p->codec.reserved[1];
            f["no_wake_mode"] = p->no_wake_mode;
            decoder.set_params(p->codec.ch_in, p->codec.sample_rate);
            params.assign(static_cast<const uint8_t*>(arg), static_cast<const uint8_t*>(arg) + sizeof(*p));
            return 0;
        }
        case SNDRV_COMPRESS_SET_METADATA: {
            auto* m = static_cast<const snd_compr_metadata*>(arg);
            f["key"] = m->key;
            f["value"] = m->value[0];
            metadata[m->key] = m->value[0];
            return 0;
        }
        case SNDRV_COMPRESS_GET_METADATA: {
            auto* m = static_cast<snd_compr_metadata*>(arg);
            f["key"] = m->key;
            if (m->key != SNDRV_COMPRESS_GET_REMAINSIZE) {
                *err = EINVAL;
                return -1;
            }
            const uint64_t r = modelled(*this) ? decoder.remain() : remain;
            m->value[0] = static_cast<uint32_t>(r);
            m->value[1] = static_cast<uint32_t>(r >> 32);
            f["remain"] = static_cast<long long>(r);
            return 0;
        }
        case SNDRV_COMPRESS_TSTAMP:
            fill_tstamp(*this, static_cast<snd_compr_tstamp*>(arg));
            f["copied_total"] = static_cast<snd_compr_tstamp*>(arg)->copied_total;
            return 0;
        case SNDRV_COMPRESS_AVAIL: {
            auto* a = static_cast<snd_compr_avail*>(arg);
            a->avail = modelled(*this) ? decoder.avail() : avail;
            fill_tstamp(*this, &a->tstamp);
            f["avail"] = static_cast<long long>(a->avail);
            return 0;
        }
        case SNDRV_COMPRESS_START:
            running = true;
            starts++;
            decoder.start(detail::clock_now_ns());
            return 0;
        case SNDRV_COMPRESS_STOP:
            running = false;
            stops++;
            decoder.stop();
            return 0;
        default:
            *err = ENOTTY;
            return -1;
    }
}

long ComprModel::write(int, const void* buf, size_t n, Event& ev, int*) {
    // The kernel hands a driver at most MAX_RW_COUNT bytes per write, also on 32-bit
    // systems where a larger count would not fit the result: a short write.
    constexpr size_t kMaxRwCount = 0x7FFFF000;
    n = std::min(n, kMaxRwCount);
    if (modelled(*this)) {
        configure_decoder(*this);
        n = decoder.write(static_cast<const uint8_t*>(buf), n);
        if (n > 0)
            detail::timeline_audio_data(buf, n);
        if (decoder.undecodable_last_write())
            ev.fields["undecodable"] = static_cast<long long>(decoder.undecodable_last_write());
    }
    bytes_written += n;
    // The list of sizes follows the record: it stays flat while recording is off.
    if (detail::core().recording)
        write_sizes.push_back(n);
    if (consume_on_write)
        avail = avail > n ? avail - n : 0;
    return static_cast<long>(n);
}

}  // namespace emutv
