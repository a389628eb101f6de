// The DRM descriptor handed out by the board's video HAL, loaded on demand and cached for
// the life of the process. Each test runs in a process of its own, so the cache starts empty.
#include <dlfcn.h>
#include <link.h>
#include <string.h>

#include "spine_fixture.h"
#include "ruvo_internal_video.h"

using emutv::HalMode;
using ruvo_test::vline;
using spine::only;
using spine::SpineTest;
using spine::operator+;

namespace {

class KorbDescriptor : public SpineTest {
  protected:
    void SetUp() override {
        SpineTest::SetUp();
        ShowAllLevels();
    }
    static std::string Trace(int card, int drm_fd, int ret) {
        return vline("get_drm_fd_from_korb", "get cardID:" + std::to_string(card) + ", drm_fd:" +
                                                 std::to_string(drm_fd) + ", ret:" + std::to_string(ret));
    }
};

// True while a stand-in of the HAL library is mapped into the process.
bool HalLibraryLoaded() {
    bool loaded = false;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            if (info->dlpi_name != nullptr && strstr(info->dlpi_name, "korb3") != nullptr)
                *static_cast<bool*>(data) = true;
            return 0;
        },
        &loaded);
    return loaded;
}

TEST_F(KorbDescriptor, absent_hal_library_gives_no_descriptor) {
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(calls(), std::vector<std::string>{"dlopen"});
    EXPECT_EQ(only("dlopen").path, "/mtd_apexe/board/lib/libKORB3.so");
    EXPECT_EQ(only("dlopen").field("mode"), RTLD_LAZY);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("get_drm_fd_from_korb", "handle is NULL"), Trace(0, 0, -1)}));
}

TEST_F(KorbDescriptor, working_hal_is_loaded_asked_and_unloaded_once) {
    tv().set_hal(HalMode::Working);
    int drm_fd = -1;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);

    const int hal_fd = static_cast<int>(only("Hal_Video_Get_DrmDeviceId").result);
    EXPECT_GT(hal_fd, 0);
    EXPECT_EQ(drm_fd, hal_fd);
    EXPECT_EQ(calls(),
              (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}));
    EXPECT_EQ(only("Hal_Video_DrmInit").field("card"), 0);
    EXPECT_EQ(only("Hal_Video_Get_DrmDeviceId").field("card"), 0);
    EXPECT_EQ(lines(), std::vector<std::string>{Trace(0, hal_fd, 0)});
    EXPECT_FALSE(HalLibraryLoaded());
}

TEST_F(KorbDescriptor, second_call_answers_from_the_cache) {
    tv().set_hal(HalMode::Working);
    int first = -1;
    ASSERT_EQ(get_drm_fd_from_korb(0, &first), 0);
    tv().clear_events();
    lines();
    int second = -1;

    EXPECT_EQ(get_drm_fd_from_korb(0, &second), 0);

    EXPECT_EQ(second, first);
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("get_drm_fd_from_korb", "has got drm_fd from korb"),
                                                 Trace(0, first, 0)}));
}

TEST_F(KorbDescriptor, cached_descriptor_is_answered_even_when_the_hal_went_away) {
    tv().set_hal(HalMode::Working);
    int first = -1;
    ASSERT_EQ(get_drm_fd_from_korb(0, &first), 0);
    tv().set_hal(HalMode::Absent);
    int second = -1;

    EXPECT_EQ(get_drm_fd_from_korb(0, &second), 0);

    EXPECT_EQ(second, first);
    EXPECT_EQ(tv().count("dlopen"), 1u);
}

TEST_F(KorbDescriptor, missing_init_symbol_is_reported_with_the_loader_text) {
    tv().set_hal(HalMode::NoInitSymbol);
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(calls(), std::vector<std::string>{"dlopen"});
    auto printed = lines();
    ASSERT_EQ(printed.size(), 3u);
    const std::string prefix = vline("get_drm_fd_from_korb", "dlsym Hal_Video_DrmInit fail stderr:");
    EXPECT_EQ(printed[0].rfind(prefix, 0), 0u) << printed[0];
    EXPECT_NE(printed[0].find("undefined symbol: Hal_Video_DrmInit"), std::string::npos) << printed[0];
    EXPECT_EQ(printed[1], "");
    EXPECT_EQ(printed[2], Trace(0, 0, -1));
    EXPECT_FALSE(HalLibraryLoaded());
}

TEST_F(KorbDescriptor, failing_hal_init_gives_no_descriptor) {
    tv().set_hal(HalMode::InitFails);
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("get_drm_fd_from_korb", "Hal_Video_DrmInit failn"),
                                                 Trace(0, 0, -1)}));
    EXPECT_FALSE(HalLibraryLoaded());
}

TEST_F(KorbDescriptor, missing_descriptor_symbol_is_reported_with_the_loader_text) {
    tv().set_hal(HalMode::NoGetSymbol);
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(calls(), (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit"}));
    auto printed = lines();
    ASSERT_EQ(printed.size(), 3u);
    const std::string prefix = vline("get_drm_fd_from_korb", "dlsym Hal_Video_Get_DrmDeviceId fail stderr:");
    EXPECT_EQ(printed[0].rfind(prefix, 0), 0u) << printed[0];
    EXPECT_NE(printed[0].find("undefined symbol: Hal_Video_Get_DrmDeviceId"), std::string::npos)
        << printed[0];
    EXPECT_EQ(printed[1], "");
    EXPECT_EQ(printed[2], Trace(0, 0, -1));
    EXPECT_FALSE(HalLibraryLoaded());
}

TEST_F(KorbDescriptor, hal_without_descriptor_leaves_the_cache_empty) {
    tv().set_hal(HalMode::GetFails);
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(calls(),
              (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("get_drm_fd_from_korb", "Hal_Video_Get_DrmDeviceId failn"),
                                        Trace(0, 0, -1)}));
    tv().clear_events();

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);
    EXPECT_EQ(calls(),
              (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}));
}

TEST_F(KorbDescriptor, failure_is_retried_and_a_later_success_is_cached) {
    int drm_fd = 77;
    ASSERT_EQ(get_drm_fd_from_korb(0, &drm_fd), -1);
    tv().set_hal(HalMode::Working);
    tv().clear_events();
    lines();

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);

    EXPECT_EQ(drm_fd, static_cast<int>(only("Hal_Video_Get_DrmDeviceId").result));
    EXPECT_EQ(calls(),
              (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}));
}

TEST_F(KorbDescriptor, descriptor_zero_is_returned_but_not_remembered) {
    tv().set_hal(HalMode::GetsZero);
    int drm_fd = 77;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);

    EXPECT_EQ(drm_fd, 0);
    EXPECT_EQ(lines(), std::vector<std::string>{Trace(0, 0, 0)});
    tv().clear_events();

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);

    EXPECT_EQ(calls(),
              (std::vector<std::string>{"dlopen", "Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}));
    EXPECT_EQ(lines(), std::vector<std::string>{Trace(0, 0, 0)});
}

TEST_F(KorbDescriptor, card_id_is_passed_to_the_hal_and_printed) {
    tv().set_hal(HalMode::Working);
    int drm_fd = -1;

    EXPECT_EQ(get_drm_fd_from_korb(3, &drm_fd), 0);

    EXPECT_EQ(only("Hal_Video_DrmInit").field("card"), 3);
    EXPECT_EQ(only("Hal_Video_Get_DrmDeviceId").field("card"), 3);
    EXPECT_EQ(lines(), std::vector<std::string>{Trace(3, drm_fd, 0)});
}

TEST_F(KorbDescriptor, messages_follow_the_mask_levels) {
    tv().set_hal(HalMode::Working);
    int drm_fd = -1;
    ASSERT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);
    lines();
    g_ruvo_logmask = 0;

    EXPECT_EQ(get_drm_fd_from_korb(0, &drm_fd), 0);

    EXPECT_EQ(lines(), std::vector<std::string>{vline("get_drm_fd_from_korb", "has got drm_fd from korb")});
}

}  // namespace
