// The emulator's lock across fork(): the forking thread holds it from the emulator's prepare
// handler until its child handler. A child handler registered before the emulator's runs
// first, still under that lock, and may call into the emulator (a sanitizer's runtime
// starts its background thread there); the child must not wait for itself.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "test_support.h"

using ruvo_test::PlatformTest;

namespace {

// A child handler registered before the emulator's: from the program's preinit array, which
// the loader runs ahead of every library's constructors (as a sanitizer's runtime starts).
void (*g_in_child)() = nullptr;

void run_in_child() {
    if (g_in_child != nullptr)
        g_in_child();
}

void register_early_fork_handler() {
    pthread_atfork(nullptr, nullptr, run_in_child);
}

__attribute__((section(".preinit_array"),
               used)) void (*const g_early_fork_handler)() = register_early_fork_handler;

// Exit statuses of the child.
constexpr int kChildDone = 0;
constexpr int kLockNotHeld = 1;
constexpr int kThreadFailed = 2;
constexpr int kOpenFailed = 3;
constexpr int kNoHandlerRun = 4;

int g_child_outcome = kNoHandlerRun;

void* nothing(void*) {
    return nullptr;
}

bool start_and_join_a_thread() {
    pthread_t t;
    return pthread_create(&t, nullptr, nothing, nullptr) == 0 && pthread_join(t, nullptr) == 0;
}

bool open_and_close_an_emulated_node() {
    const int fd = open("/dev/dri/card0", O_RDWR);
    return fd >= 0 && close(fd) == 0;
}

void use_the_emulator_before_its_child_handler() {
    if (!emutv::platform().mutex().held_by_this_thread())
        g_child_outcome = kLockNotHeld;
    else if (!start_and_join_a_thread())
        g_child_outcome = kThreadFailed;
    else if (!open_and_close_an_emulated_node())
        g_child_outcome = kOpenFailed;
    else
        g_child_outcome = kChildDone;
}

// The child's exit status, or -1 when it has not ended within `seconds` (it is killed).
int wait_for_child(pid_t pid, int seconds) {
    const struct timespec tick = {0, 10 * 1000 * 1000};
    for (int i = 0; i < seconds * 100; ++i) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        nanosleep(&tick, nullptr);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
}

class ForkHandlers : public PlatformTest {
  protected:
    void TearDown() override {
        g_in_child = nullptr;
        PlatformTest::TearDown();
    }
};

TEST_F(ForkHandlers, an_earlier_child_handler_starts_a_thread_and_opens_a_node_under_the_held_lock) {
    g_in_child = use_the_emulator_before_its_child_handler;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The emulator's child handler has released the lock by now.
        const bool free_again = !emutv::platform().mutex().held_by_this_thread();
        _exit(g_child_outcome != kChildDone                     ? g_child_outcome
              : free_again && open_and_close_an_emulated_node() ? 0
                                                                : 5);
    }
    // Generous: the child does a few requests; only a child waiting for itself takes long.
    EXPECT_EQ(wait_for_child(pid, 60), kChildDone);

    // The parent's lock was released by the emulator's parent handler.
    EXPECT_FALSE(emutv::platform().mutex().held_by_this_thread());
    EXPECT_TRUE(open_and_close_an_emulated_node());
    EXPECT_EQ(tv().events("open").size(), 1u);
}

TEST_F(ForkHandlers, a_fork_from_the_listener_leaves_the_child_one_level_of_the_lock_to_release) {
    pid_t pid = -1;
    tv().set_listener([&pid](const emutv::Event& e) {
        if (e.name == "open" && pid < 0)
            pid = fork();
    });
    const int fd = open("/dev/dri/card0", O_RDWR);
    if (pid == 0) {
        // Out of the listener: the lock is free, and another thread can take it.
        tv().set_listener(nullptr);
        const bool free_again = !emutv::platform().mutex().held_by_this_thread();
        _exit(free_again && fd >= 0 && start_and_join_a_thread() && open_and_close_an_emulated_node() ? 0
                                                                                                      : 1);
    }
    tv().set_listener(nullptr);
    ASSERT_GE(pid, 0);
    EXPECT_EQ(wait_for_child(pid, 60), 0);
    EXPECT_EQ(close(fd), 0);
}

// describe() numbers the addresses it shows in a table of the process; another thread may
// be in the middle of it when a program forks. The child must find it usable.
TEST_F(ForkHandlers, a_child_forked_while_another_thread_describes_requests_can_describe_them) {
    emutv::Event e;
    e.name = "FR2IP_SetPTS";
    e.fields["decoder_info"] = 0x1000;
    std::atomic<bool> stop{false};
    std::thread describer([&] {
        for (long long a = 0x2000; !stop; a += 8) {
            e.fields["decoder_info"] = a;
            emutv::describe(e);
        }
    });
    emutv::Event mine;
    mine.name = "FR2IP_SetPTS";
    mine.fields["decoder_info"] = 0x1000;
    int stuck = 0;
    for (int i = 0; i < 100; ++i) {
        const pid_t pid = fork();
        if (pid == 0)
            _exit(emutv::describe(mine).empty() ? 1 : 0);
        ASSERT_GE(pid, 0);
        if (wait_for_child(pid, 10) != 0)
            stuck++;
    }
    stop = true;
    describer.join();
    EXPECT_EQ(stuck, 0);
}

}  // namespace
