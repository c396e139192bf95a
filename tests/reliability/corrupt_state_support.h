#pragma once
// Helpers of the corrupt-state scenarios: a launch's log kept in a file the
// parent reads after the child has gone (crashed or not), and a child launch
// whose data directory is read-only even for root.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/system_log.h"
#include "tests/support/child_process.h"

extern char** environ;

namespace tavrin::testing {

// Appends every record to a file at once, one line each (long messages cut),
// so the parent sees what a child logged up to the moment it died.
class FileLogSink final : public platform::LogSink {
public:
    explicit FileLogSink(const std::string& path) : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)) {}
    ~FileLogSink() override {
        if (fd_ >= 0) ::close(fd_);
    }
    bool isEnabled(platform::LogType) const override { return true; }
    void write(const platform::LogRecord& record) override {
        std::string line = std::string(platform::logTypeName(record.type)) + ": " + record.message.substr(0, 2000);
        for (char& c : line)
            if (c == '\n') c = ' ';
        line += '\n';
        std::lock_guard lock(mutex_);
        if (record.message.rfind("Cached requests successfully resent", 0) == 0 ||
            record.message.rfind("Failed to resend cached requests", 0) == 0)
            walkFinished = true;
        if (fd_ >= 0) (void)!::write(fd_, line.data(), line.size());
    }

    std::atomic<bool> walkFinished{false};

private:
    int fd_;
    std::mutex mutex_;
};

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Exit status of a child that could not make its private read-only mount.
constexpr int kCannotMountReadOnly = 77;

// Runs this test binary again like runChild, but in a private mount namespace
// in which `directory` is bind-mounted read-only: root ignores file modes, a
// read-only mount it cannot. The namespace is made between fork and exec, in
// the single-threaded child (unshare refuses a process whose threads share
// its file system view). Returns the exit status, 128 + signal, -1 after
// `limit`, or kCannotMountReadOnly.
inline int runChildWithReadOnlyDirectory(const std::string& filter, std::vector<std::string> variables,
                                         const std::filesystem::path& directory,
                                         std::chrono::milliseconds limit = std::chrono::seconds(60)) {
    SelfInvocation self(filter, std::move(variables));
    const std::string target = directory.string();
    const pid_t child = ::fork();
    if (child < 0) return -2;
    if (child == 0) {
        // Only system calls from here to exec.
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount(target.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            ::_exit(kCannotMountReadOnly);
        ::execve(self.program.c_str(), self.argv, self.envp.data());
        ::_exit(127);
    }
    const auto start = std::chrono::steady_clock::now();
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() - start > limit) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tavrin::testing
