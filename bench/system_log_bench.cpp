// Cost of one log line written to the system log socket, with and without a
// log daemon listening.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "tavrin/platform/system_log.h"

namespace {

using tavrin::platform::LogPrivacy;
using tavrin::platform::LogRecord;
using tavrin::platform::LogType;
using tavrin::platform::SyslogSink;

const LogRecord kLine{LogType::info, "com.example.bench", "default", "Tracking service initialized with 10 properties",
                      LogPrivacy::publicText};

// No log socket at all (a container, a system without a syslog daemon): the
// line is dropped, and reconnecting waits for its pause instead of every line.
void BM_SyslogLineWithoutLogSocket(benchmark::State& state) {
    SyslogSink sink("/nonexistent/tavrin-bench/log");
    for (auto _ : state) sink.write(kLine);
}
BENCHMARK(BM_SyslogLineWithoutLogSocket);

// A daemon that reads every datagram (a thread draining a socket of our own).
void BM_SyslogLineToLogSocket(benchmark::State& state) {
    char dir[] = "/tmp/tavrin-bench-XXXXXX";
    if (!mkdtemp(dir)) return state.SkipWithError("mkdtemp failed");
    const std::string path = std::string(dir) + "/log";
    const int daemon = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return state.SkipWithError("bind failed");
    std::atomic<bool> done{false};
    std::thread reader([&] {
        timeval tv{0, 100000};
        ::setsockopt(daemon, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char buffer[1024];
        while (!done) (void)::recv(daemon, buffer, sizeof buffer, 0);
    });
    {
        SyslogSink sink(path);
        for (auto _ : state) sink.write(kLine);
    }
    done = true;
    reader.join();
    ::close(daemon);
    ::unlink(path.c_str());
    ::rmdir(dir);
}
BENCHMARK(BM_SyslogLineToLogSocket);

}  // namespace
