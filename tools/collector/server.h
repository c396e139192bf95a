#pragma once
// The collector's HTTP(S) server: the two tracking endpoints, the JSON API,
// the live event stream and the debug view.

#include <memory>

#include "options.h"
#include "request_store.h"

namespace tavrin::collector {

class CollectorServer {
public:
    // Throws std::runtime_error when the TLS files cannot be loaded.
    CollectorServer(const Options& options, RequestStore& store);
    ~CollectorServer();
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    // Binds the listening socket; returns the port (the chosen one for port 0), or -1.
    int bind();
    // Serves until stop(); call after a successful bind().
    bool run();
    // From any thread: ends open event streams and makes run() return.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrin::collector
