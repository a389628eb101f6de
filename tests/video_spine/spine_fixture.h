// Fixture of the video output spine suites: the handle's lifecycle, display discovery,
// the board HAL's DRM descriptor, hardware frame buffers and the converter.
#pragma once

#include <string>
#include <vector>

#include "ruvo_log.h"
#include "test_support.h"

namespace spine {

constexpr int kAllLevels = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;

// Sizes of the hardware frame buffers of one Y/C pair.
constexpr int kLumaSize = 2211840;
constexpr int kChromaSize = 1105920;

class SpineTest : public ruvo_test::PlatformTest {
  protected:
    // Error, info and trace lines all print (the mask open keeps when no marker exists).
    void ShowAllLevels() { g_ruvo_logmask = kAllLevels; }

    // The recorded requests in order, one entry per request the library made: libdrm's
    // count-then-fill pairs of identical queries are folded into one entry. Opens and
    // closes carry their path ("open /dev/kdolby", "close /dev/kdolby"); requests that
    // failed end in " -> <errno name>".
    std::vector<std::string> calls() const;

    // The DRM queries of a discovery on the default topology, after the open of the
    // DRM device: resources, connector 40, encoder 41, dumb buffer, framebuffer, planes.
    static std::vector<std::string> DefaultDiscoveryCalls();
    // Lines (mask 13) printed by a default open from the DRM device on.
    static std::vector<std::string> DefaultDiscoveryLines(int drm_fd);
    // Lines (mask 13) of the HAL lookup when there is no HAL library.
    static std::vector<std::string> NoHalLines();
    // The requests and lines of closing a default handle (HAL absent).
    static std::vector<std::string> DefaultCloseCalls();
    static std::vector<std::string> DefaultCloseLines();
};

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b);

// The one recorded event of `name` (fails the test when there is not exactly one).
emutv::Event only(const std::string& name);

// Bytes of a record, for comparison with Event::in / Event::out.
template <typename T>
std::vector<uint8_t> bytes_of(const T& record) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

}  // namespace spine
