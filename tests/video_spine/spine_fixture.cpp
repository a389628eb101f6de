#include "spine_fixture.h"

#include <string.h>

#include <set>

namespace spine {

namespace {

// Queries libdrm sends twice (once for the counts, once to fill the arrays).
bool IsLibdrmQuery(const std::string& name) {
    static const std::set<std::string> kQueries = {
        "DRM_IOCTL_MODE_GETRESOURCES", "DRM_IOCTL_MODE_GETCONNECTOR",      "DRM_IOCTL_MODE_GETPLANERESOURCES",
        "DRM_IOCTL_MODE_GETPLANE",     "DRM_IOCTL_MODE_OBJ_GETPROPERTIES", "DRM_IOCTL_MODE_GETPROPERTY"};
    return kQueries.count(name) != 0;
}

// The fill request of a libdrm query repeats its count request.
bool RepeatsQuery(const emutv::Event& count, const emutv::Event& fill) {
    return IsLibdrmQuery(fill.name) && count.name == fill.name && count.fd == fill.fd && count.result == 0 &&
           fill.result == 0 && count.fields == fill.fields;
}

std::string Describe(const emutv::Event& e) {
    std::string text = e.name;
    if (e.kind == emutv::Kind::Open || e.kind == emutv::Kind::Close)
        text += " " + e.path;
    if (e.result < 0 && e.err != 0)
        text += std::string(" -> ") + strerrorname_np(e.err);
    return text;
}

}  // namespace

std::vector<std::string> SpineTest::calls() const {
    std::vector<std::string> out;
    auto events = emutv::platform().events();
    bool previous_folded = false;
    for (size_t i = 0; i < events.size(); ++i) {
        const bool fold = i > 0 && !previous_folded && RepeatsQuery(events[i - 1], events[i]);
        previous_folded = fold;
        if (!fold)
            out.push_back(Describe(events[i]));
    }
    return out;
}

std::vector<std::string> SpineTest::DefaultDiscoveryCalls() {
    std::vector<std::string> out = {"DRM_IOCTL_MODE_GETRESOURCES", "DRM_IOCTL_MODE_GETCONNECTOR",
                                    "DRM_IOCTL_MODE_GETENCODER",   "DRM_IOCTL_MODE_CREATE_DUMB",
                                    "DRM_IOCTL_MODE_ADDFB2",       "DRM_IOCTL_MODE_GETPLANERESOURCES"};
    for (int plane = 0; plane < 4; ++plane) {
        out.push_back("DRM_IOCTL_MODE_GETPLANE");
        out.push_back("DRM_IOCTL_MODE_OBJ_GETPROPERTIES");
        out.push_back("DRM_IOCTL_MODE_GETPROPERTY");  // "type"
        out.push_back("DRM_IOCTL_MODE_GETPROPERTY");  // "plane_type"
    }
    return out;
}

std::vector<std::string> SpineTest::DefaultDiscoveryLines(int drm_fd) {
    using ruvo_test::vline;
    return {vline("DRMKMSInit", "in"),
            vline("CreateDRMDummyBuffer", "in"),
            vline("CreateDRMDummyBuffer",
                  "drm_fd(" + std::to_string(drm_fd) + "),fb_id(200),width(3840),height(2160)"),
            "",
            vline("DRMFindPlane", "in"),
            vline("DRMFindPlane", "plane_obj_id[0] = 31"),
            vline("DRMFindPlane", "plane_obj_id[1] = 32"),
            vline("DRMFindPlane", "plane_obj_id[5] = 35"),
            vline("DRMFindPlane", "plane_obj_id[6] = 36")};
}

std::vector<std::string> SpineTest::NoHalLines() {
    using ruvo_test::vline;
    return {vline("get_drm_fd_from_korb", "handle is NULL"),
            vline("get_drm_fd_from_korb", "get cardID:0, drm_fd:0, ret:-1")};
}

std::vector<std::string> SpineTest::DefaultCloseCalls() {
    return {"DRM_IOCTL_MODE_RMFB",  "DRM_IOCTL_MODE_DESTROY_DUMB", "dlopen",
            "close /dev/dri/card0", "close /dev/kdolby",           "close /dev/qvl/qvkvplt"};
}

std::vector<std::string> SpineTest::DefaultCloseLines() {
    using ruvo_test::vline;
    return std::vector<std::string>{vline("quarvel_video_output_close", "in"), vline("CloseDevice", "in")} +
           NoHalLines();
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

emutv::Event only(const std::string& name) {
    auto events = emutv::platform().events(name);
    EXPECT_EQ(events.size(), 1u) << name;
    return events.empty() ? emutv::Event{} : events.front();
}

}  // namespace spine
