#pragma once
// A copy of this test binary run as a child process that reports lines on a
// pipe, on Windows: the same calls as the POSIX helper, so a test that runs
// a role of its own binary in a child (a launch that is killed, a host that
// exits) reads the same on both. Windows has no fork, so only whole test
// binaries run as children: a role is a test of a suite named *Child that
// skips itself unless its environment names it.
//
//     ChildProcess child("StoreChild.Writes", {"TAVRIN_STORE_DIR=" + dir.string()});
//     ASSERT_EQ(child.readLine(30s), "written");
//     child.killNow();
//     EXPECT_EQ(child.wait(10s), kKilledExitCode);
//
// Handles are kept opaque here so that tests need not see <windows.h>.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tavrin::testing {

using namespace std::chrono_literals;

// The exit status killNow() gives a child: what the POSIX helper reports for
// a child ended by SIGKILL (128 + 9), so tests compare one value on both.
constexpr int kKilledExitCode = 128 + 9;

class ChildProcess {
public:
    // This test binary run again on the tests of `filter` ("--gtest_filter="),
    // with this process's environment plus `variables` ("NAME=value", UTF-8;
    // a name already set is replaced) and the write end of a pipe it reports
    // lines on. Its standard output and error are this process's. Throws
    // std::runtime_error when it cannot be started.
    ChildProcess(const std::string& filter, std::vector<std::string> variables);
    ~ChildProcess();  // kills the child if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void killNow();

    // The next line the child wrote; nothing once it closed the pipe (exited
    // or killed) or after `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);

    // The exit code (kKilledExitCode after killNow()); -1 when it was still
    // running after `limit` (it is killed then).
    int wait(std::chrono::milliseconds limit);

private:
    void* process_ = nullptr;  // HANDLE
    void* readEnd_ = nullptr;  // HANDLE of the report pipe
    bool ended_ = false;
    int exitCode_ = 0;
    std::string buffer_;
};

inline int runChild(const std::string& filter, std::vector<std::string> variables,
                    std::chrono::milliseconds limit = 30s) {
    ChildProcess child(filter, std::move(variables));
    return child.wait(limit);
}

// The child's side of the pipe: one write per line, so lines never
// interleave. False when the line could not be written: the process was not
// started as a child, or the parent has gone.
bool report(const std::string& line);

// An environment variable as UTF-8; "" when it is not set.
std::string env(const char* name);

}  // namespace tavrin::testing
