#include "ruvo_kit/threads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

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

}  // namespace ruvo_kit
