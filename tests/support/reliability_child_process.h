#pragma once
// A copy of this test binary run as a child process that reports lines on a
// pipe: what the end-to-end tests and the fault scenarios run across launches
// (a host that exits, a launch killed with SIGKILL, a launch on a broken
// store), where an assertion in the child would never reach the parent.

#if defined(_WIN32)
#include "tests/support/windows/reliability_child_process.h"
#else

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"

namespace tavrin::testing {

using namespace std::chrono_literals;

// Exit status of a child that could not make its private read-only mount.
constexpr int kCannotMountReadOnly = 77;

// This test binary run again on the tests of `filter`, with extra environment
// and a pipe it reports lines on (its write end is TAVRIN_REPORT_FD). With
// `readOnly` the child runs in a private mount namespace in which that
// directory is bind-mounted read-only: root ignores file modes, not a
// read-only mount.
class ChildProcess {
public:
    ChildProcess(const std::string& filter, std::vector<std::string> variables,
                 const std::optional<std::filesystem::path>& readOnly = std::nullopt) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        readFd_ = fds[0];
        const int childEnd = ::dup(fds[1]);  // without CLOEXEC: survives exec
        ::close(fds[1]);
        variables.push_back("TAVRIN_REPORT_FD=" + std::to_string(childEnd));
        SelfInvocation self(filter, std::move(variables));
        const std::string target = readOnly.value_or("").string();
        if ((pid_ = ::fork()) == 0) {
            // Only system calls from here to exec; unshare needs the single-threaded child.
            if (!target.empty() &&
                (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                 ::mount(target.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
                 ::mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0))
                ::_exit(kCannotMountReadOnly);
            ::execve(self.program.c_str(), self.argv, self.envp.data());
            ::_exit(127);
        }
        ::close(childEnd);
    }
    ~ChildProcess() {
        wait(0ms);
        if (readFd_ >= 0) ::close(readFd_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void killNow() {
        if (pid_ > 0 && !reaped_) ::kill(pid_, SIGKILL);
    }

    // The next line the child wrote; nothing once it closed the pipe (exited
    // or killed) or after `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (auto end = buffer_.find('\n'); end == std::string::npos; end = buffer_.find('\n')) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd ready{readFd_, POLLIN, 0};
            if (left.count() <= 0 || readFd_ < 0) return std::nullopt;
            if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            const ssize_t n = ::read(readFd_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        const auto end = buffer_.find('\n');
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
    }

    // The exit code, or 128 + the signal that ended it; -1 when it was still
    // running after `limit` (it is killed then).
    int wait(std::chrono::milliseconds limit) {
        if (pid_ <= 0) return -2;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (pid_ > 0 && !reaped_ && ::waitpid(pid_, &status_, WNOHANG) != pid_) {
            if (std::chrono::steady_clock::now() >= deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status_, 0);
                reaped_ = true;
                return -1;
            }
            std::this_thread::sleep_for(5ms);
        }
        reaped_ = true;
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
    }

private:
    pid_t pid_ = -1;
    int readFd_ = -1, status_ = 0;
    bool reaped_ = false;
    std::string buffer_;
};

inline int runChild(const std::string& filter, std::vector<std::string> variables,
                    std::chrono::milliseconds limit = 30s) {
    ChildProcess child(filter, std::move(variables));
    return child.wait(limit);
}

// The child's side of the pipe: one write per line, so lines never
// interleave. False when the line could not be written (not started as a
// child, or the parent has gone).
inline bool report(const std::string& line) {
    static const int fd = [] {
        const char* text = std::getenv("TAVRIN_REPORT_FD");
        return text ? std::atoi(text) : -1;
    }();
    const std::string text = line + "\n";
    return fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

inline std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

}  // namespace tavrin::testing

#endif
