// A redirect is never followed: the body (and its credential) goes nowhere
// the configuration did not name, and a 3xx is a failed send, cached like a
// server failure when offline tracking is on.

#include <gtest/gtest.h>

#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

class RedirectTest : public TransportTest {};

TEST_F(RedirectTest, ARedirectedSubmissionReachesNoOtherServerAndIsKept) {
    monitorPath(platform::PathStatus::satisfied);
    LoopbackServer elsewhere;
    LoopbackServer redirecting;
    const std::string target = elsewhere.baseUrl() + "/collect";
    for (int status : {301, 302, 303, 307, 308}) {
        redirecting.respondWith({status, {{"Location", target}}, ""});
        configure(trackConfig(hostPort(redirecting.port()), "http", false));
        try {
            Service::shared()->sendDataSubmission(sampleSubmission()).get();
            ADD_FAILURE() << status << " counted as delivered";
        } catch (const Service::ServiceError& error) {
            EXPECT_EQ(error.code(), Service::ServiceError::Code::invalidResponse);
            EXPECT_EQ(error.statusCode(), status);
        }
        // Offline tracking on: kept for a retry, data and consent alike.
        configure(trackConfig(hostPort(redirecting.port())));
        EXPECT_NO_THROW(Service::shared()->sendDataSubmission(sampleSubmission()).get()) << status;
        EXPECT_NO_THROW(Service::shared()->sendConsentSubmission(sampleConsent()).get()) << status;
    }
    // A walk meeting a redirect keeps the request too.
    OfflineCacheManager::shared()->resendCachedRequests().get();
    OfflineCacheManager::shared()->offlineCache().drain();
    EXPECT_EQ(cached().size(), 10u);
    EXPECT_GE(redirecting.requests().size(), 16u);
    EXPECT_TRUE(elsewhere.requests().empty());
}

}  // namespace
}  // namespace tavrin::testing
