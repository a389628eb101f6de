// Frame converter device ("/dev/qvkconverter"): decompresses decoder frames into
// hardware frame buffers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "v4l2_drm.h"

enum {
    IOWR_NUM_CONVERTER_OPEN = 0,
    IOWR_NUM_CONVERTER_CLOSE,
    IOWR_NUM_CONVERTER_INIT,
    IOWR_NUM_CONVERTER_DECOMPRESS,
    IOWR_NUM_CONVERTER_DECOMPRESS_ONEFD,
    IOWR_NUM_CONVERTER_SET,
    IOWR_NUM_CONVERTER_DECOMPRESS_v2,
    IOWR_NUM_CONVERTER_GET_INFO,
    IOWR_NUM_CONVERTER_MAX_NUM,
};

// The driver declares every request with a 4-byte size field, whatever record follows.
#define CONVERTER_IOC_TYPE 0xDDu
#define CONVERTER_IOWR(nr) (0xC0000000u | (4u << 16) | (CONVERTER_IOC_TYPE << 8) | (unsigned)(nr))
#define CONVERTER_IOCTL_CLOSE CONVERTER_IOWR(IOWR_NUM_CONVERTER_CLOSE)
#define CONVERTER_IOCTL_INIT CONVERTER_IOWR(IOWR_NUM_CONVERTER_INIT)
#define CONVERTER_IOCTL_DECOMPRESS CONVERTER_IOWR(IOWR_NUM_CONVERTER_DECOMPRESS)

struct converter_retval {
    uint32_t u32Retval;
};

struct converter_decompress {
    uint32_t u32Retval;
    int32_t outDrmFd[2];
    struct v4l2_drm stFbInfo;
};

#ifdef __cplusplus
static_assert(CONVERTER_IOCTL_CLOSE == 0xC004DD01u, "converter close request");
static_assert(CONVERTER_IOCTL_INIT == 0xC004DD02u, "converter init request");
static_assert(CONVERTER_IOCTL_DECOMPRESS == 0xC004DD03u, "converter decompress request");
static_assert(sizeof(converter_retval) == 4, "converter status record");
static_assert(sizeof(converter_decompress) == 592, "decompress record is 592 bytes");
static_assert(offsetof(converter_decompress, outDrmFd) == 4, "decompress layout");
static_assert(offsetof(converter_decompress, stFbInfo) == 16, "stFbInfo at 16");
#endif
