// Driver requests issued by hand, without the library: the "bare" side the benchmarks
// measure the library's calls against.
#pragma once

#include <stdint.h>

namespace ruvo_kit {

// One video-platform command (VPLT_IOC_CMD) with its arguments by address; the ioctl's
// result.
int bare_vplt(int fd, int32_t command, void* arg1, void* arg2, void* arg3, int32_t* ret);

}  // namespace ruvo_kit
