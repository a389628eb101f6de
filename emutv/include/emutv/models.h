// Device models of the emulated TV platform. Configuration members are plain data:
// set them after Platform::reset() and before the library runs. Read state members to
// see what the driver was told. All access from tests happens on one thread while the
// library is idle; the models themselves run under the platform lock.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "emutv/audio_decoder.h"
#include "emutv/emutv.h"

namespace emutv {

class DeviceModel {
  public:
    virtual ~DeviceModel() = default;
    virtual Device kind() const = 0;
    virtual void reset() = 0;
    // Name of the request, for the record and for fault matching.
    virtual std::string request_name(unsigned long req, const void* arg) const = 0;
    // The same name as a literal when it is one (nullptr otherwise): no string is built on
    // the way of a frequent request.
    virtual const char* request_literal(unsigned long req, const void* arg) const;
    // Bytes of the record behind `arg` (default: the size field of the request number).
    virtual size_t record_size(unsigned long req, const void* arg) const;
    // Answers a request; returns its result, and sets *err when the result is negative.
    // Fills ev.fields (and ev.args for video-platform commands).
    virtual long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) = 0;
    // Writes a scripted driver status into the record's own result cell.
    virtual void apply_status(unsigned long req, void* arg, int32_t status);
    virtual long write(int fd, const void* buf, size_t n, Event& ev, int* err);
    virtual void on_open(int fd, const std::string& path);
    virtual void on_close(int fd);
};

// ---- DRM device ("/dev/dri/card0", or the HAL's descriptor) -------------------------------

struct DrmConnector {
    uint32_t id = 0;
    uint32_t connection = 1;  // 1 connected, 2 disconnected
    uint32_t mm_width = 0;    // the platform's driver reports the panel size in pixels here
    uint32_t mm_height = 0;
    uint32_t count_modes = 1;
    uint32_t encoder_id = 0;  // current encoder, 0 = none
    std::vector<uint32_t> encoders;
};

struct DrmEncoder {
    uint32_t id = 0;
    uint32_t crtc_id = 0;
    uint32_t possible_crtcs = 0;
};

struct DrmProperty {
    std::string name;
    uint64_t value = 0;
};

struct DrmPlane {
    uint32_t id = 0;
    uint32_t count_formats = 1;
    std::vector<DrmProperty> props;
};

class DrmModel : public DeviceModel {
  public:
    // Topology (defaults after reset: CRTC 42; connector 40 connected with current
    // encoder 41 -> CRTC 42 and no reported size; planes 31 OSDP, 32 GP, 35 DP_MAIN,
    // 36 DP_SUB, each with a "type" and a "plane_type" property).
    std::vector<uint32_t> crtcs;
    std::vector<DrmConnector> connectors;
    std::vector<DrmEncoder> encoders;
    std::vector<DrmPlane> planes;

    // Answers of the hardware GEM create: ret_size = requested + gem_size_delta.
    int64_t gem_size_delta = 0;

    // State the driver was left in.
    struct PlaneState {
        bool set = false;
        uint32_t crtc_id = 0, fb_id = 0;
        int32_t crtc_x = 0, crtc_y = 0;
        uint32_t crtc_w = 0, crtc_h = 0, src_x = 0, src_y = 0, src_w = 0, src_h = 0;
    };
    std::map<uint32_t, PlaneState> plane_state;  // by plane id
    std::map<uint32_t, bool> muted;              // by plane id, from SET_ONOFF mute
    std::map<uint32_t, uint32_t> source_port;    // by plane id, inputport of the last SET_DP_SOURCE
    std::set<uint32_t> dumb_handles;             // live dumb buffers
    std::set<uint32_t> framebuffers;             // live framebuffer ids
    std::set<uint32_t> gem_handles;              // live hardware GEM handles

    Device kind() const override { return Device::Drm; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    const char* request_literal(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
    // DRM_IOCTL_PRIME_HANDLE_TO_FD: the status replaces the exported descriptor in the
    // answer (the descriptor the driver made stays open; its number is in the event's "fd").
    void apply_status(unsigned long req, void* arg, int32_t status) override;

    uint32_t next_handle = 100;
    uint32_t next_fb = 200;
    std::map<int, uint32_t> dmabuf_handle;  // exported dmabuf descriptor -> GEM handle
    std::map<uint32_t, uint64_t> gem_size;
};

// ---- Video-platform device ("/dev/qvl/qvkvplt") -------------------------------------------

class VpltModel : public DeviceModel {
  public:
    // Answers (defaults after reset: 59940 mHz, offset 0 s 1000000 ns, frames 2 and 1).
    // `vsync_hz` is also the panel refresh: in Real clock mode vsync ticks at it, the
    // offset answer is the time since the last vsync, and the frames in use are the
    // frames announced (source requests with a picture) and not yet latched by a vsync
    // on decoder 0, none on decoder 1; the offset and frames fields are not used then.
    int32_t vsync_hz = 59940;
    int32_t vsync_hz_ret = 0;
    int32_t offset_sec = 0;
    int32_t offset_nsec = 1000000;
    int32_t offset_ret = 0;
    int32_t frames[2] = {2, 1};

    // State: the last queue size set, and the last timestamp.
    int32_t queue_size = 3;
    int64_t last_pts = 0;

    Device kind() const override { return Device::Vplt; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    const char* request_literal(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
    void apply_status(unsigned long req, void* arg, int32_t status) override;
};

// ---- Dolby device ("/dev/kdolby") ---------------------------------------------------------

class DolbyModel : public DeviceModel {
  public:
    // When set, the driver rewrites the profile cell with this value.
    bool rewrite = false;
    int32_t rewrite_to = 0;
    int32_t profile = -1;  // last profile accepted

    Device kind() const override { return Device::Dolby; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    size_t record_size(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
};

// ---- Frame converter ("/dev/qvkconverter") ------------------------------------------------

class ConverterModel : public DeviceModel {
  public:
    bool initialised = false;
    uint32_t conversions = 0;
    Device kind() const override { return Device::Converter; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    size_t record_size(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
    void apply_status(unsigned long req, void* arg, int32_t status) override;
};

// ---- Broadcast decoder node ("/dev/video10") ----------------------------------------------

class DecoderModel : public DeviceModel {
  public:
    // The broadcast frame handed out for V4L2_CID_GET_DISPLAY_FRAME_INFO (576 bytes).
    std::array<uint8_t, 576> display_frame{};
    // Replaces it with a decoded YUV 4:2:0 frame of display index 1 (`platform broadcast`).
    void set_display_frame(uint32_t w, uint32_t h, uint32_t aspect, uint32_t framerate, uint32_t port);
    Device kind() const override { return Device::Decoder; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
};

// ---- Sound card control device ("/dev/snd/controlC0") -------------------------------------

struct MixerControl {
    std::string name;
    uint32_t numid = 0;
    long value = 0;
    long min = -2147483647L, max = 2147483647L;
};

class SoundCardModel : public DeviceModel {
  public:
    // Defaults after reset: "qvl speaker main gain", "qvl hp main gain",
    // "audio dec0 playback rate", "main out mute" (integer, one value each).
    std::vector<MixerControl> controls;
    struct Write {
        std::string name;
        long value;
    };
    std::vector<Write> writes;                     // every element write, in order
    long value(const std::string& name) const;     // -1 when absent
    bool remove_control(const std::string& name);  // a card without this control

    Device kind() const override { return Device::SoundCtl; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
};

// ---- Compressed-offload device (path chosen by the test) ----------------------------------

class ComprModel : public DeviceModel {
  public:
    // Capabilities answered by SNDRV_COMPRESS_GET_CAPS.
    uint32_t min_fragment_size = 4096;
    uint32_t max_fragment_size = 65536;
    uint32_t min_fragments = 2;
    uint32_t max_fragments = 8;
    // Scripted answers.
    uint64_t avail = 65536;          // snd_compr_avail.avail
    uint32_t copied_total = 0;       // snd_compr_tstamp.copied_total
    uint32_t sampling_rate = 48000;  // snd_compr_tstamp.sampling_rate
    uint64_t remain = 0;             // GET_METADATA(GET_REMAINSIZE) value[0..1]
    bool consume_on_write = false;   // each write lowers `avail` by its size

    // Who answers AVAIL, TSTAMP and the remain size: the scripted values above (the
    // default in Virtual clock mode) or the decoder model (emutv/audio_decoder.h; the
    // default in Real mode). The model's ring is `ring_bytes` (0: min_fragment_size x
    // max_fragments) and its own buffer `dsp_bytes` (-1: two min_fragment_size), both
    // read at every request.
    enum class Answers { Scripted, Modelled };
    Answers answers = Answers::Scripted;
    AudioDecoder::Pacing pacing = AudioDecoder::Pacing::Parsed;
    uint64_t ring_bytes = 0;
    int64_t dsp_bytes = -1;
    AudioDecoder decoder;

    // State.
    bool running = false;
    std::map<uint32_t, uint32_t> metadata;  // key -> value[0] of the last SET_METADATA
    std::vector<uint8_t> params;            // last snd_compr_params as sent
    uint64_t bytes_written = 0;
    std::vector<size_t> write_sizes;  // every write while recording is on
    uint32_t starts = 0;              // SNDRV_COMPRESS_START accepted
    uint32_t stops = 0;               // SNDRV_COMPRESS_STOP accepted

    Device kind() const override { return Device::Compr; }
    void reset() override;
    std::string request_name(unsigned long req, const void* arg) const override;
    const char* request_literal(unsigned long req, const void* arg) const override;
    long ioctl(int fd, unsigned long req, void* arg, Event& ev, int* err) override;
    long write(int fd, const void* buf, size_t n, Event& ev, int* err) override;
};

}  // namespace emutv
