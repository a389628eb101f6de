// Dolby Vision device ("/dev/kdolby").
#pragma once

// Read-write, type 0x60, number 0x10, size field 0x101B as the driver declares it;
// the argument is one signed 32-bit profile.
#define DOLBY_IOC_SET_DV_PROFILE 0xD01B6010u
