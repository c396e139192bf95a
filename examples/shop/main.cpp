// A small shop as a host application would integrate the SDK: configure once,
// push what the user does, submit at the natural points, report consent, and
// shut down cleanly. Only the public API is used.
//
//   tavrin-shop-example --domain 127.0.0.1:8443 [--protocol http] [--ca-file cert.pem]
//                       [--token TOKEN] [--debug-code CODE] [--data-dir DIR]
//   The token may come from the environment instead (TAVRIN_TOKEN), out of
//   sight of other users.

#include <chrono>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tavrin/tavrin.h"

namespace {

struct Options {
    std::string domain;
    std::optional<std::string> protocol;
    std::optional<std::string> caFile;
    std::string token = "demo-token";
    std::optional<std::string> debugCode = "shop-debug";
    std::optional<std::string> dataDir;
};

[[noreturn]] void usage(const char* why) {
    std::cerr << "tavrin-shop-example: " << why << "\n"
              << "usage: tavrin-shop-example --domain HOST[:PORT] [--protocol http] [--ca-file PEM]\n"
                 "                            [--token TOKEN] [--debug-code CODE|--no-debug] [--data-dir DIR]\n";
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    if (const char* token = std::getenv("TAVRIN_TOKEN"); token && *token) options.token = token;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage("missing value");
            return argv[++i];
        };
        if (arg == "--domain")
            options.domain = value();
        else if (arg == "--protocol")
            options.protocol = value();
        else if (arg == "--ca-file")
            options.caFile = value();
        else if (arg == "--token")
            options.token = value();
        else if (arg == "--debug-code")
            options.debugCode = value();
        else if (arg == "--no-debug")
            options.debugCode.reset();
        else if (arg == "--data-dir")
            options.dataDir = value();
        else
            usage("unknown option");
    }
    if (options.domain.empty()) usage("--domain is required");
    return options;
}

// Waits for a submission and says how it went; the shop carries on either way.
bool report(const char* what, std::future<void> sent) {
    try {
        sent.get();
        std::cout << "  sent: " << what << "\n";
        return true;
    } catch (const std::exception& error) {
        std::cout << "  FAILED: " << what << ": " << error.what() << "\n";
        return false;
    }
}

bool report(const char* what, std::future<bool> sent) {
    try {
        const bool accepted = sent.get();
        std::cout << "  sent: " << what << (accepted ? "" : " (not accepted)") << "\n";
        return accepted;
    } catch (const std::exception& error) {
        std::cout << "  FAILED: " << what << ": " << error.what() << "\n";
        return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    using tavrin::AnyValue;
    using tavrin::ConsentStatus;

    // Host facts and platform choices come before configure.
    tavrin::platform::SystemLog::setSink(std::make_shared<tavrin::platform::StderrSink>());
    tavrin::TavrinService::setLogLevel(tavrin::LogLevel::warning);
    tavrin::platform::DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                                       .infoDictionary = {{"CFBundleDisplayName", "Example Shop"},
                                                                          {"CFBundleShortVersionString", "2.3"},
                                                                          {"CFBundleVersion", "41"}}});
    tavrin::platform::DeviceFacts::setScreenBounds(tavrin::platform::ScreenBounds{1280, 800});
    if (options.dataDir) tavrin::platform::KeyValueStore::setDataDirectory(*options.dataDir);
    if (options.caFile) {
        tavrin::platform::HttpClient::setShared(std::make_shared<tavrin::platform::SystemHttpClient>(
            tavrin::platform::HttpClientOptions{.caFile = options.caFile}));
    }

    std::cout << "configure: tracking domain " << options.domain << "\n";
    tavrin::TavrinService::configure(tavrin::TrackConfig{.trackDomain = options.domain,
                                                         .container = "shop-app",
                                                         .environment = tavrin::TrackConfig::Environment::stage,
                                                         .version = "3",
                                                         .debugCode = options.debugCode,
                                                         .sessionTimeoutInSeconds = 1800,
                                                         .authorizationToken = options.token,
                                                         .customProtocol = options.protocol,
                                                         .enableOfflineTracking = true,
                                                         .offlineTrackingTimeout = 86400});
    auto tracking = tavrin::TrackingService::shared();
    int failures = 0;

    std::cout << "consent: the visitor allows analytics, denies ads, has not decided on chat\n";
    if (!report("consent decision",
                tracking->setConsents(
                    {{"analytics", ConsentStatus::allow}, {"ads", ConsentStatus::deny}, {"chat", ConsentStatus::ncm}})))
        ++failures;

    std::cout << "browse: home page, then a category\n";
    tracking->push({{"track", "pageview"}, {"page", "home"}, {"referrer", "newsletter"}});
    tracking->push({{"track", "pageview"}, {"page", "category/shoes"}, {"results", 42}});
    if (!report("browsing submission", tracking->submit("browse"))) ++failures;

    std::cout << "product views: two shoes\n";
    tracking->push({{"track", "product_view"},
                    {"sku", "SHOE-RED-42"},
                    {"price", 89.9},
                    {"tags", AnyValue::Array{"running", "red"}}});
    tracking->push({{"track", "product_view"}, {"sku", "SHOE-BLUE-42"}, {"price", 94.5}, {"in_stock", true}});
    // The plug-in receives the latest pushed "sku" and a literal store name.
    tracking->addEnrichment("recommendations", {{"product", "sku"}, {"store", "Lisbon"}, {"limit", 3}},
                            {"recommended_skus"});
    if (!report("product views with an enrichment", tracking->submit("product_detail"))) ++failures;

    std::cout << "add to cart: the blue shoe\n";
    if (!report("add to cart", tracking->addToCart({{"sku", "SHOE-BLUE-42"}, {"price", 94.5}, {"quantity", 1}})))
        ++failures;

    std::cout << "consent: the visitor now allows ads as well\n";
    if (!report("changed consent decision", tracking->setConsents({{"analytics", ConsentStatus::allow},
                                                                   {"ads", ConsentStatus::allow},
                                                                   {"chat", ConsentStatus::ncm}})))
        ++failures;

    std::cout << "checkout\n";
    tracking->push({{"track", "checkout"}, {"order_total", 94.5}, {"currency", "EUR"}});
    if (!report("checkout submission", tracking->submit("checkout"))) ++failures;

    const bool flushed = tavrin::TavrinService::flush(std::chrono::seconds(5));
    tavrin::TavrinService::shutdown(std::chrono::seconds(2));
    std::cout << "shutdown: " << (flushed ? "nothing left in flight" : "flush timed out") << "\n";
    std::cout << (failures == 0 ? "done: all submissions sent\n" : "done: some submissions failed\n");
    return failures == 0 ? 0 : 1;
}
