/**
 * \file quarvel_audio_output.h
 * \brief Audio output of the AV sink: compressed audio to the chip's decoder, and the
 * mixer's gain and playback rate.
 *
 * An audio output lives from quarvel_audio_output_open() to quarvel_audio_output_close():
 * quarvel_audio_output_setup(), then quarvel_audio_output_push_data() and
 * quarvel_audio_output_get_info() repeatedly (the first push starts the stream),
 * quarvel_audio_output_stop(); volume and speed may be set at any time.
 *
 * \par Result codes
 * 0 is success; -9 a null handle or null argument; -1 a failed driver request; other
 * small negative numbers name the failing step, as each function lists. Every message is
 * printed on standard output whatever the debug mask ("[function(): line]text").
 *
 * \par Threads
 * Every call runs on the caller's thread; calls on one handle are not synchronised and
 * must not overlap. The mixer calls open the sound card for each write and may run on
 * any thread, beside the video output's audio-mute thread.
 *
 * \par Ownership
 * The caller owns a handle from its open to its close; close frees it.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifndef RUVO_EXPORT
/// Marks a function of the library's exported interface.
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

/// The stream's format (quarvel_audio_output_setup()).
typedef struct quarvel_audio_output_setup_params_s {
    uint32_t channels;     ///< channel count; the frame accounting takes 2 bytes per channel
    uint32_t sample_rate;  ///< sample rate in hertz
    uint32_t reserved[6];  ///< copied with the rest, not read
} quarvel_audio_output_setup_params_t;

/// How the decoder paces the audio (quarvel_audio_output_set_sync_mode()).
typedef enum quarvel_audio_output_sync_mode_t : uint32_t {
    quarvel_audio_output_sync_mode__free_run = 0,                ///< sent as the driver's force-none mode
    quarvel_audio_output_sync_mode__sync_to_video = 1,           ///< sent as the driver's none mode
    quarvel_audio_output_sync_mode__sync_to_external_video = 2,  ///< sent as the driver's slave mode
} quarvel_audio_output_sync_mode_t;

/// Playback position (quarvel_audio_output_get_info()).
typedef struct quarvel_audio_output_info_s {
    int64_t wallclock_us;  ///< CLOCK_MONOTONIC_RAW at the reading, in microseconds
    /// Frames pushed but not yet played: the decoder's remaining bytes plus the bytes it
    /// has not taken yet, divided by 2 x channels.
    uint32_t frames_delay;
    uint32_t bytes_free;  ///< free bytes of the driver's buffer less a 140-byte reserve (0 below it)
    /// Bytes the decoder holds but has not played, rescaled from the driver's 48 kHz
    /// basis to the stream's sample rate.
    int64_t remain_size;
    uint32_t reserved[6];  ///< not written
} quarvel_audio_output_info_t;

/// The audio handle: a plain record, created by open and freed by close; written by the
/// library only.
typedef struct quarvel_audio_output_s {
    int m_fd;  ///< compressed-offload device descriptor, -1 when not open
    quarvel_audio_output_setup_params_t m_setup_params;  ///< the last setup's parameters
    uint64_t m_pushed_frames;                            ///< frames pushed since open or the last stop
    uint64_t m_pushed_extra_bytes;                       ///< header bytes pushed since open or the last stop
    bool m_is_driver_started;                            ///< the stream was started and not stopped since
    float m_default_volume;                              ///< volume close puts back (1.0)
    float m_default_speed;                               ///< speed close puts back (1.0)
} quarvel_audio_output_t;

/**
 * Opens an audio output on a compressed-offload device, write-only.
 *
 * \param device path of the device node (e.g. "/dev/snd/comprC0D0").
 * \return the new handle, owned by the caller until quarvel_audio_output_close(); null
 *         when the device cannot be opened (the reason and the release line "output: %p",
 *         without a line end, are printed).
 */
RUVO_EXPORT quarvel_audio_output_s* quarvel_audio_output_open(const char* device);
/**
 * Configures the stream: keeps the parameters, reads the device's capabilities, sets the
 * codec, channels, rate and the device's smallest fragment size and largest fragment
 * count, and sends the S/PDIF rate and CD-DTS metadata. May be repeated; the frame counts
 * stay.
 *
 * \param output an open handle.
 * \param params the format, copied.
 * \retval 0 configured
 * \retval -9 output or params is null
 * \retval -1 reading the capabilities failed
 * \retval -2 setting the parameters failed
 * \retval -3 the S/PDIF metadata failed
 * \retval -4 the CD-DTS metadata failed
 */
RUVO_EXPORT int quarvel_audio_output_setup(quarvel_audio_output_s* output,
                                           const quarvel_audio_output_setup_params_s* params);
/**
 * Does nothing: the first quarvel_audio_output_push_data() starts the stream.
 *
 * \param output an open handle.
 * \retval 0 always for a handle
 * \retval -9 output is null
 */
RUVO_EXPORT int quarvel_audio_output_start(quarvel_audio_output_s* output);
/**
 * Clears the frame counts and stops the stream if it was started; the next push starts
 * it again.
 *
 * \param output an open handle.
 * \retval 0 stopped, or not started
 * \retval -9 output is null
 * \retval -1 the stop request failed (the counts are cleared, the stream counts as
 *         started: the next stop tries again)
 */
RUVO_EXPORT int quarvel_audio_output_stop(quarvel_audio_output_s* output);
/**
 * Sends the decoder's sync mode (see quarvel_audio_output_sync_mode_t for the mapping).
 *
 * \param output an open handle.
 * \param mode one of the three modes.
 * \retval 0 sent
 * \retval -9 output is null, or mode is not one of the three
 * \retval -1 the request failed
 */
RUVO_EXPORT int quarvel_audio_output_set_sync_mode(quarvel_audio_output_s* output,
                                                   quarvel_audio_output_sync_mode_t mode);
/**
 * Closes an audio output and frees the handle: writes volume and speed back to 1.0 (they
 * are system-wide), closes the device (which ends a running stream in the driver without a
 * stop request) and prints "output: %p" without a line end.
 *
 * \param output the handle; null is printed and ignored. Not valid after the call.
 */
RUVO_EXPORT void quarvel_audio_output_close(quarvel_audio_output_s* output);
/**
 * Writes one block of compressed audio to the decoder when its buffer has room, counts
 * its frames (size / 2 / channels) and header bytes, and starts the stream when no frame
 * was counted before the block.
 *
 * \param output an open, set-up handle.
 * \param data size + extra bytes, written in one piece; read during the call only.
 * \param size payload bytes.
 * \param extra header bytes beside the payload.
 * \retval 0 written (and started)
 * \retval -9 output or data is null
 * \retval -1 reading the free room failed; nothing written
 * \retval -2 no room (back-pressure): nothing written, a "no space" line printed; push the
 *         same block again later
 * \retval -3 the write failed; nothing counted
 * \retval -4 the start request failed; the block is written and counted, so later pushes
 *         do not start the stream until a stop or a reopen (docs/behaviours.md, A2)
 */
RUVO_EXPORT int quarvel_audio_output_push_data(quarvel_audio_output_s* output, const unsigned char* data,
                                               unsigned int size, unsigned int extra);
/**
 * Reads the playback position: the decoder's timestamp, its remaining bytes and the free
 * room of its buffer; see quarvel_audio_output_info_s for the units.
 *
 * \param output an open, set-up handle.
 * \param info_out receives the position; written only when 0 is returned.
 * \retval 0 read
 * \retval -9 output or info_out is null
 * \retval -1 the timestamp request failed
 * \retval -2 the remaining-size request failed
 * \retval -3 the free-room request failed
 */
RUVO_EXPORT int quarvel_audio_output_get_info(quarvel_audio_output_s* output,
                                              quarvel_audio_output_info_s* info_out);
/**
 * Sets the output gain of the speaker and the headphones (mixer controls "qvl speaker
 * main gain" and "qvl hp main gain" of the card "default"). System-wide.
 *
 * \param output not used; may be null.
 * \param volume linear gain, 1.0 for unity; written as fixed point with 15 fraction bits
 *        (1.0 is 32768), truncated and saturated to 32 bits.
 * \retval 0 both gains written
 * \retval -1 either gain failed (the other is still written)
 */
RUVO_EXPORT int quarvel_audio_output_volume_control(quarvel_audio_output_s* output, float volume);
/**
 * Sets the decoder's playback rate (mixer control "audio dec0 playback rate" of the card
 * "default"). System-wide.
 *
 * \param output not used; may be null.
 * \param speed rate factor, 1.0 for normal speed; written in percent (1.0 is 100),
 *        truncated and saturated to 32 bits.
 * \retval 0 written
 * \retval -1 the write failed
 */
RUVO_EXPORT int quarvel_audio_output_speed_control(quarvel_audio_output_s* output, float speed);
