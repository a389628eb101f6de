// The renderer against the real weston compositor (headless back end) on a private socket.
// That back end renders nothing and offers no linux-dmabuf global, so init must end the
// process with the missing-global message.
#include <signal.h>
#include <spawn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "wayland_fixture.h"

extern char** environ;

namespace ruvo_test {
namespace {

using ::testing::ExitedWithCode;

const char kSocket[] = "ruvo-weston";

std::string find_program(const std::string& name) {
    const char* path = getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty())
            continue;
        std::string candidate = dir + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::string();
}

bool can_connect(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class WestonSmokeTest : public RendererDeathTest {
  protected:
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status;
            waitpid(pid_, &status, 0);
        }
        RendererDeathTest::TearDown();
    }

    // Starts weston on `kSocket` in the private runtime directory and waits for its socket.
    ::testing::AssertionResult start_weston(const std::string& weston) {
        std::string out = base_ + "/weston.out";
        std::string log = "--log=" + base_ + "/weston.log";
        std::vector<std::string> args = {weston,
                                         "--backend=headless-backend.so",
                                         std::string("--socket=") + kSocket,
                                         "--idle-time=0",
                                         "--no-config",
                                         log};
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);

        std::vector<std::string> env_storage;
        for (char** e = environ; *e; e++) {
            if (strncmp(*e, "XDG_RUNTIME_DIR=", 16) == 0 || strncmp(*e, "WAYLAND_DISPLAY=", 16) == 0 ||
                strncmp(*e, "WAYLAND_SOCKET=", 15) == 0)
                continue;
            env_storage.push_back(*e);
        }
        env_storage.push_back("XDG_RUNTIME_DIR=" + base_);
        std::vector<char*> envp;
        for (auto& e : env_storage)
            envp.push_back(&e[0]);
        envp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        int rc = posix_spawn(&pid_, weston.c_str(), &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            pid_ = -1;
            return ::testing::AssertionFailure() << "cannot start " << weston << ": " << strerror(rc);
        }

        std::string socket_path = base_ + "/" + kSocket;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < deadline) {
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return ::testing::AssertionFailure() << "weston ended before it listened:\n"
                                                     << read_file(out) << read_file(base_ + "/weston.log");
            }
            if (can_connect(socket_path))
                return ::testing::AssertionSuccess();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return ::testing::AssertionFailure() << "weston did not listen on " << socket_path << ":\n"
                                             << read_file(base_ + "/weston.log");
    }

    pid_t pid_ = -1;
};

TEST_F(WestonSmokeTest, HeadlessWestonHasNoDmabufGlobalSoInitEndsTheProcess) {
    std::string weston = find_program("weston");
    if (weston.empty())
        GTEST_SKIP() << "weston is not installed (scripts/setup.sh installs it)";
    ASSERT_TRUE(start_weston(weston));

    std::string dir = base_;
    EXPECT_EXIT(
        {
            stdout_into_stderr();
            setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
            setenv("WAYLAND_DISPLAY", kSocket, 1);
            unsetenv("WAYLAND_SOCKET");
            wayland_render_init(&config_);
        },
        ExitedWithCode(1),
        "^" + vline_re("wayland_render_init", "in") + escape_re("No zwp_linux_dmabuf global\n") + "$");
}

}  // namespace
}  // namespace ruvo_test
