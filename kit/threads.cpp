#include "ruvo_kit/threads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

namespace ruvo_kit {

int thread_count() {
    const int fd = open("/proc/self/task", O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return -1;
    alignas(struct dirent64) char buf[4096];
    int n = 0;
    for (long got; (got = syscall(SYS_getdents64, fd, buf, sizeof(buf))) > 0;) {
        for (long off = 0; off < got;) {
            const auto* d = reinterpret_cast<const struct dirent64*>(buf + off);
            if (d->d_name[0] != '.')
                n++;
            off += d->d_reclen;
        }
    }
    close(fd);
    return n;
}

bool wait_for_threads_to_end(int baseline, std::chrono::milliseconds limit) {
    if (baseline < 0)
        return false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (thread_count() > baseline) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace ruvo_kit
