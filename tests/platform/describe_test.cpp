// The trace's one-line decoding of a recorded request: formats, fixed-point sizes, object
// types and signed indices decoded; addresses as tokens stable within the process; the
// requests of other threads marked.
#include <gtest/gtest.h>

#include <string>

#include "emutv/emutv.h"

namespace {

emutv::Event request(const char* name) {
    emutv::Event e;
    e.device = emutv::Device::Drm;
    e.path = "/dev/dri/card0";
    e.name = name;
    e.fd = 5;
    return e;
}

bool shows(const std::string& line, const std::string& part) {
    return line.find(part) != std::string::npos;
}

TEST(Describe, APixelFormatIsShownAsItsFourCharacters) {
    emutv::Event e = request("DRM_IOCTL_MODE_ADDFB2");
    e.fields["pixel_format"] = 0x34325258;  // 'X' 'R' '2' '4'
    const std::string line = emutv::describe(e);
    EXPECT_TRUE(shows(line, " pixel_format=XR24")) << line;
    e.fields["pixel_format"] = 7;  // not printable: the number
    EXPECT_TRUE(shows(emutv::describe(e), " pixel_format=7"));
}

TEST(Describe, SourceSizesAreShownInSixteenDotSixteen) {
    emutv::Event e = request("DRM_IOCTL_MODE_SETPLANE");
    e.fields["src_w"] = 1920LL << 16;
    e.fields["src_h"] = (540LL << 16) | 0x8000;
    e.fields["crtc_w"] = 1920;
    const std::string line = emutv::describe(e);
    EXPECT_TRUE(shows(line, " src_w=1920.0")) << line;
    EXPECT_TRUE(shows(line, " src_h=540.5")) << line;
    EXPECT_TRUE(shows(line, " crtc_w=1920")) << line;
}

TEST(Describe, ObjectTypesAreNamed) {
    emutv::Event e = request("DRM_IOCTL_MODE_OBJ_GETPROPERTIES");
    e.fields["obj_type"] = 0xeeeeeeee;
    EXPECT_TRUE(shows(emutv::describe(e), " obj_type=plane"));
    e.fields["obj_type"] = 0xc0c0c0c0;
    EXPECT_TRUE(shows(emutv::describe(e), " obj_type=connector"));
}

TEST(Describe, ADisplayIndexIsSigned) {
    emutv::Event e = request("FR2IP_SetPTS");
    e.fields["display_index"] = 0xffffffffLL;
    EXPECT_TRUE(shows(emutv::describe(e), " display_index=-1")) << emutv::describe(e);
}

TEST(Describe, AddressesAreTokensThatStayTheSameWithinTheProcess) {
    emutv::Event e = request("FR2IP_SetPTS");
    e.fields["decoder_info"] = 0x7ffd1000;
    const std::string first = emutv::describe(e);
    e.fields["decoder_info"] = 0x7ffd2000;
    const std::string second = emutv::describe(e);
    e.fields["decoder_info"] = 0x7ffd1000;
    EXPECT_EQ(emutv::describe(e), first);
    EXPECT_NE(first, second);
    EXPECT_FALSE(shows(first, "7ffd")) << first;
    EXPECT_FALSE(shows(first, std::to_string(0x7ffd1000))) << first;
    EXPECT_TRUE(shows(first, " decoder_info=@")) << first;
    e.fields["decoder_info"] = 0;
    EXPECT_TRUE(shows(emutv::describe(e), " decoder_info=null"));
}

TEST(Describe, AnotherThreadsRequestIsMarkedUnordered) {
    emutv::Event e = request("SNDRV_CTL_IOCTL_ELEM_WRITE");
    e.device = emutv::Device::SoundCtl;
    e.path = "/dev/snd/controlC0";
    EXPECT_FALSE(shows(emutv::describe(e), "unordered"));
    e.thread = 2;
    const std::string line = emutv::describe(e);
    EXPECT_EQ(line.substr(line.size() - std::string(" [thread 2, unordered]").size()),
              " [thread 2, unordered]");
}

TEST(Describe, AFailedRequestShowsTheSystemsReason) {
    emutv::Event e = request("DRM_IOCTL_MODE_RMFB");
    e.result = -1;
    e.err = ENOENT;
    const std::string line = emutv::describe(e);
    EXPECT_EQ(line.substr(0, 45), "drm /dev/dri/card0 DRM_IOCTL_MODE_RMFB fd=5 -");
    EXPECT_TRUE(shows(line, "-> -1 (No such file or directory)")) << line;
}

}  // namespace
