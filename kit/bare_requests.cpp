#include "ruvo_kit/bare_requests.h"

#include <string.h>
#include <sys/ioctl.h>

#include "ruvo/driver/vplt_ioctl.h"

namespace ruvo_kit {

int bare_vplt(int fd, int32_t command, void* arg1, void* arg2, void* arg3, int32_t* ret) {
    ST_VPLT_IOC_CMD cmd;
    memset(&cmd, 0, sizeof(cmd));
    cmd.enCmd = command;
    cmd.arg1 = arg1;
    cmd.arg2 = arg2;
    cmd.arg3 = arg3;
    cmd.ret = ret;
    return ioctl(fd, VPLT_IOC_CMD, &cmd);
}

}  // namespace ruvo_kit
