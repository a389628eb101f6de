// A program that knows nothing of the emulator: it opens the video-platform node and asks
// for the vsync rate and offset a few times, 30 ms apart. Run under LD_PRELOAD by the
// preload tests; prints what it was answered.
#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "ruvo/driver/vplt_ioctl.h"

namespace {

int ask(int fd, int32_t cmd, void* answer) {
    uint8_t plane = 0;
    int32_t ret = 0;
    ST_VPLT_IOC_CMD c = {cmd, &plane, answer, nullptr, nullptr, nullptr, nullptr, nullptr, &ret};
    return ioctl(fd, VPLT_IOC_CMD, &c) < 0 ? -1 : ret;
}

}  // namespace

int main(int argc, char** argv) {
    int fd = open("/dev/qvl/qvkvplt", O_RDWR);
    if (fd < 0) {
        perror("/dev/qvl/qvkvplt");
        return 1;
    }
    for (int i = 0; i < 5; ++i) {
        int32_t hz = 0;
        vplt_vsync_offset offset = {0, 0};
        if (ask(fd, EN_VPLT_IOC_FR2IP_GetVsyncHZ, &hz) != 0 ||
            ask(fd, EN_VPLT_IOC_FR2IP_GetOffsetFromVsync, &offset) != 0)
            return 1;
        printf("hz=%d offset=%d.%09d\n", hz, offset.tv_sec, offset.tv_nsec);
        struct timespec ts = {0, 30000000};
        nanosleep(&ts, nullptr);
    }
    close(fd);
    // "exec-child": the same program once more in a child process, as a browser starts
    // its helpers; the child inherits the environment.
    if (argc > 1 && std::string(argv[1]) == "exec-child") {
        pid_t pid = fork();
        if (pid == 0) {
            execl(argv[0], argv[0], "child", static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return 3;
    }
    return 0;
}
