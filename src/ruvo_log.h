// Logging macros of the library. Both test the mask before any formatting, so a
// message that is off costs one load and one branch.
#pragma once

#include <stdio.h>

#include "ruvo/ruvo_debug.h"

#define RUVO_LOG_ERR 0x1
#define RUVO_LOG_INFO 0x4
#define RUVO_LOG_TRACE 0x8
#define RUVO_LOG_ALL (-3)

extern int g_ruvo_logmask __attribute__((visibility("hidden")));

// All mode formats every message a second time into a line buffer (tag-less).
__attribute__((visibility("hidden"), format(printf, 1, 2))) void ruvo_format_line_buffer(const char* fmt,
                                                                                         ...);

static inline bool ruvo_log_enabled(int level, int mask) {
    if (mask == 0)
        return level != RUVO_LOG_TRACE;
    if (mask == RUVO_LOG_ALL)
        return true;
    return (mask & level) != 0;
}

// Video and on-screen-display style: "[qvl_disp_corvi] Function(line) text".
#define QVL_LOG(level, fmt, ...)                                                             \
    do {                                                                                     \
        const int ruvo_mask_ = g_ruvo_logmask;                                               \
        if (__builtin_expect(ruvo_log_enabled((level), ruvo_mask_), 0)) {                    \
            if (ruvo_mask_ == RUVO_LOG_ALL)                                                  \
                ruvo_format_line_buffer("%s(%d) " fmt, __func__, __LINE__, ##__VA_ARGS__);   \
            printf("%s %s(%d) " fmt, "[qvl_disp_corvi]", __func__, __LINE__, ##__VA_ARGS__); \
        }                                                                                    \
    } while (0)

#define QVL_ERR(fmt, ...) QVL_LOG(RUVO_LOG_ERR, fmt, ##__VA_ARGS__)
#define QVL_INFO(fmt, ...) QVL_LOG(RUVO_LOG_INFO, fmt, ##__VA_ARGS__)
#define QVL_TRACE(fmt, ...) QVL_LOG(RUVO_LOG_TRACE, fmt, ##__VA_ARGS__)

// Audio style: "[Function(): line]text", printed whenever DBG_ChkPrtLevel() has bit 0x1.
#define QVL_ALOG(fmt, ...)                                               \
    do {                                                                 \
        if (DBG_ChkPrtLevel() & 0x1)                                     \
            printf("[%s(): %d]" fmt, __func__, __LINE__, ##__VA_ARGS__); \
    } while (0)
