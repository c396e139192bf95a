#pragma once
// Command line of tavrin-collector.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tavrin::collector {

struct Options {
    std::string host = "127.0.0.1";
    int port = 8787;  // 0 picks a free port
    std::string dataDir = "tavrin-collector-data";
    // Expected bearer token on POST "/", on /api/ and on /ui/; from --token or
    // the environment variable TAVRIN_COLLECTOR_TOKEN (which keeps it out of
    // the process list).
    std::optional<std::string> token;
    std::optional<std::string> tlsCert, tlsKey;
    std::optional<int> failWith;  // answer every submission with this status
    int delayMs = 0;              // wait before answering a submission
    std::size_t maxBodyBytes = 8 * 1024 * 1024;
    bool help = false;
};

// Throws std::invalid_argument with a message for the user on bad input.
Options parseOptions(const std::vector<std::string>& arguments);

extern const char* const kUsage;

}  // namespace tavrin::collector
