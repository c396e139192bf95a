// The SDK stopped and started again from where a host may call it: inside a
// completion on the SDK's own HTTP thread, then a new configuration.

#include "tavrin/transport/internal/service.h"
#include "tests/end_to_end/end_to_end_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using ShutdownTest = EndToEndTest;

TEST_F(ShutdownTest, ShutdownFromACompletionThenConfigureSubmitsAgain) {
    start();
    auto inside = std::make_shared<std::promise<bool>>();
    Service::shared()->sendDataSubmission(
        sampleSubmission("first"), [inside](std::exception_ptr) { inside->set_value(TavrinService::shutdown(2s)); });
    auto finished = inside->get_future();
    ASSERT_EQ(finished.wait_for(20s), std::future_status::ready) << "shutdown from the HTTP thread did not return";
    EXPECT_TRUE(finished.get());

    auto tracking = start();
    tracking->push({{"track", "pageview"}, {"after", "restart"}});
    auto sent = tracking->submit();
    ASSERT_EQ(sent.wait_for(20s), std::future_status::ready);
    EXPECT_NO_THROW(sent.get()) << "a stopped client stayed installed";
    const auto bodies = submissions();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[1]["data"]["variables"]["after"], "restart");
}

TEST_F(ShutdownTest, ATokenOverPlainHttpIsWarnedAbout) {
    struct Case {
        std::optional<std::string> scheme;
        std::string token;
        bool warned;
    };
    for (const auto& c : {Case{"http", "tok", true}, Case{"HTTP", "tok", true}, Case{"http", "", false},
                          Case{std::nullopt, "tok", false}, Case{"https", "tok", false}}) {
        logs.sink->clear();
        TavrinService::configure(trackConfig(hostPort(server.port()), c.scheme, false, c.token));
        const auto warnings = logs.sink->messages(platform::LogType::error);
        const bool warned = std::any_of(warnings.begin(), warnings.end(), [](const std::string& line) {
            return line.find("token is sent in plain text") != std::string::npos;
        });
        EXPECT_EQ(warned, c.warned) << c.scheme.value_or("(none)") << " token '" << c.token << "'";
    }
}

}  // namespace
}  // namespace tavrin::testing
