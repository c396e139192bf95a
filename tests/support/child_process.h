#pragma once
// Forked children that report back over a pipe: assertions made in a child
// would never reach the parent, so a child returns text and the parent
// checks it.

#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavrin::testing {

namespace detail {
inline std::string readAll(int fd) {
    std::string out;
    char buffer[512];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<std::size_t>(n));
    ::close(fd);
    return out;
}
}  // namespace detail

// Forks `count` children that start `body(i)` at the same moment (once all
// are forked) and gives back what each returned; an exception in a child is
// reported as "exception: <what>", an abnormal end is appended to the text.
inline std::vector<std::string> inChildrenAtOnce(int count, const std::function<std::string(int)>& body) {
    int gate[2];
    if (::pipe(gate) != 0) return {"pipe failed"};
    std::vector<std::pair<pid_t, int>> children;
    for (int i = 0; i < count; ++i) {
        int out[2];
        if (::pipe(out) != 0) break;
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(gate[1]);
            ::close(out[0]);
            char byte;
            (void)!::read(gate[0], &byte, 1);  // returns when the parent closes the gate
            std::string report;
            try {
                report = body(i);
            } catch (const std::exception& e) {
                report = std::string("exception: ") + e.what();
            }
            (void)!::write(out[1], report.data(), report.size());
            ::_exit(0);
        }
        ::close(out[1]);
        children.emplace_back(pid, out[0]);
    }
    ::close(gate[0]);
    ::close(gate[1]);
    std::vector<std::string> reports;
    for (auto [pid, fd] : children) {
        std::string report = detail::readAll(fd);
        int status = 0;
        ::waitpid(pid, &status, 0);
        reports.push_back(WIFEXITED(status) ? report : report + " (child did not exit normally)");
    }
    return reports;
}

// Runs `body` in one forked child and gives back what it returned.
inline std::string inChild(const std::function<std::string()>& body) {
    return inChildrenAtOnce(1, [&](int) { return body(); }).at(0);
}

// The arguments and environment that run this test binary again on the tests
// matching `filter`, with `variables` ("NAME=value") added to the environment;
// for posix_spawn or execve. It points into itself, so it stays where it is made.
struct SelfInvocation {
    SelfInvocation(const std::string& filter, std::vector<std::string> extra)
        : variables(std::move(extra)), filterArgument("--gtest_filter=" + filter) {
        for (char** e = environ; *e; ++e) envp.push_back(*e);
        for (auto& v : variables) envp.push_back(v.data());
        envp.push_back(nullptr);
    }
    SelfInvocation(const SelfInvocation&) = delete;
    SelfInvocation& operator=(const SelfInvocation&) = delete;

    std::vector<std::string> variables;
    std::vector<char*> envp;
    std::string program = "/proc/self/exe", filterArgument;
    char* argv[3] = {program.data(), filterArgument.data(), nullptr};
};

}  // namespace tavrin::testing
