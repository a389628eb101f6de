// A program that knows nothing of the emulated TV: it is linked with the shipped library
// only, and run with the emulator in LD_PRELOAD by preload_test.
//
//   preload_app play        video open, first frame, 100 frames, close; audio push loop
//   preload_app fork        video open, then a forked child opens and closes the audio
//                           output; the parent closes the video after the child ended
//   preload_app exec        video open, then a forked child execs "preload_app child"
//   preload_app child       audio open and close
//   preload_app wait        video open, then waits for a signal
//
// Every library call and its result is printed, one line each.
#include <linux/videodev2.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "ruvo/driver/v4l2_drm.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo/quarvel_video_output.h"

namespace {

const char kComprNode[] = "/dev/snd/comprC0D0";
constexpr int kFrames = 100;
constexpr int kBlocks = 40;
constexpr unsigned kBlockSize = 4096;

v4l2_drm frame(uint32_t index) {
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    d.inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    d.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    d.u.dec_info.hres = 1920;
    d.u.dec_info.vres = 1080;
    d.u.dec_info.effective_hres = 1920;
    d.u.dec_info.effective_vres = 1080;
    d.u.dec_info.framerate = 50000;
    d.u.dec_info.pFrame[0].width = 1920;
    d.u.dec_info.pFrame[0].height = 1080;
    d.u.dec_info.pFrame[0].display_index = index;
    return d;
}

int push(quarvel_video_output_s* out, uint32_t index, bool first) {
    v4l2_drm d = frame(index);
    quarvel_video_output_frame_s f{};
    f.v4l2_frame = &d;
    f.dv_profile = -1;
    return first ? quarvel_video_output_init_with_first_frame(out, &f)
                 : quarvel_video_output_push_frame_to_display(out, &f);
}

void play_video() {
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    printf("app: video open -> %s\n", out ? "handle" : "null");
    if (!out)
        return;
    printf("app: first frame -> %d\n", push(out, 1, true));
    int failed = 0;
    for (int i = 0; i < kFrames; ++i)
        failed += push(out, static_cast<uint32_t>(i + 2), false) != 0;
    printf("app: %d frames, %d failed\n", kFrames, failed);
    quarvel_video_output_close(out);
    printf("app: video close\n");
}

void play_audio() {
    quarvel_audio_output_s* out = quarvel_audio_output_open(kComprNode);
    printf("app: audio open -> %s\n", out ? "handle" : "null");
    if (!out)
        return;
    quarvel_audio_output_setup_params_s params{};
    params.channels = 2;
    params.sample_rate = 48000;
    printf("app: audio setup -> %d\n", quarvel_audio_output_setup(out, &params));
    printf("app: audio start -> %d\n", quarvel_audio_output_start(out));
    static unsigned char block[kBlockSize];
    int failed = 0;
    for (int i = 0; i < kBlocks; ++i)
        failed += quarvel_audio_output_push_data(out, block, kBlockSize, 0) != 0;
    printf("app: %d blocks of %u bytes, %d failed\n", kBlocks, kBlockSize, failed);
    printf("app: audio stop -> %d\n", quarvel_audio_output_stop(out));
    quarvel_audio_output_close(out);
    printf("app: audio close\n");
}

void open_and_close_audio() {
    quarvel_audio_output_s* out = quarvel_audio_output_open(kComprNode);
    printf("app: child audio open -> %s\n", out ? "handle" : "null");
    if (out)
        quarvel_audio_output_close(out);
    fflush(stdout);
}

int wait_child(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int with_child(const char* argv0, bool exec_it) {
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    printf("app: video open -> %s\n", out ? "handle" : "null");
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        if (exec_it) {
            execl(argv0, argv0, "child", static_cast<char*>(nullptr));
            _exit(127);
        }
        open_and_close_audio();
        _exit(0);
    }
    printf("app: child exit %d\n", wait_child(pid));
    quarvel_video_output_close(out);
    printf("app: video close\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "play";
    printf("app: main %s\n", mode.c_str());
    if (mode == "play") {
        play_video();
        play_audio();
    } else if (mode == "fork" || mode == "exec") {
        with_child(argv[0], mode == "exec");
    } else if (mode == "child") {
        open_and_close_audio();
    } else if (mode == "wait") {
        quarvel_video_output_open(false);
        printf("app: waiting\n");
        fflush(stdout);
        pause();
    }
    return 0;
}
