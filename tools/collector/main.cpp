// tavrin-collector: a local tracking server with a live debug view, for
// developers who want to see exactly what their application sends.

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <pthread.h>
#include <thread>

#include "options.h"
#include "request_store.h"
#include "server.h"

int main(int argc, char** argv) {
    using namespace tavrin::collector;
    Options options;
    try {
        options = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        std::cerr << "tavrin-collector: " << e.what() << "\n" << kUsage;
        return 2;
    }
    if (options.help) {
        std::cout << kUsage;
        return 0;
    }

    // Signals are taken by one thread with sigwait, which may stop the server
    // safely; every other thread inherits the blocked mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        RequestStore store(options.dataDir);
        CollectorServer server(options, store);
        const int port = server.bind();
        if (port <= 0) {
            std::cerr << "tavrin-collector: cannot listen on " << options.host << ":" << options.port << "\n";
            return 1;
        }
        const std::string base =
            std::string(options.tlsCert ? "https" : "http") + "://" + options.host + ":" + std::to_string(port);
        std::cout << "listening on " << base << "\n"
                  << "debug view: " << base << "/ui/\n"
                  << std::flush;

        std::thread signals([&] {
            int received = 0;
            sigwait(&stopSignals, &received);
            server.stop();
        });
        const bool served = server.run();
        // run() also returns when listening fails: wake the signal thread ourselves.
        pthread_kill(signals.native_handle(), SIGTERM);
        signals.join();
        return served ? 0 : 1;
    } catch (const std::exception& e) {
        std::cerr << "tavrin-collector: " << e.what() << "\n";
        return 1;
    }
}
