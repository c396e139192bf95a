#pragma once
// How the rest of the SDK reaches the transport: the three sends to the
// tracking endpoint. The tracking service, the offline cache manager and the
// monitor send through it, and a test stands in for the network by
// implementing it.
//
//     std::shared_ptr<tavrin::ServiceProtocol> service = tavrin::Service::shared();  // after configure
//     tavrin::Bytes payload{'{', '}'};  // a JSON body cached earlier
//     service->resendCachedDataSubmission(payload, [](std::exception_ptr error) {
//         if (error) { /* keep the request for the next resend */ }
//     });
//     std::future<void> again = service->resendCachedDataSubmission(payload);  // get() rethrows the error
//
// Each send reports through a completion instead of holding a thread while
// the network answers, so a slow or silent server never starves other work.

#include <exception>
#include <functional>
#include <future>

#include "tavrin/platform/bytes.h"

namespace tavrin {

struct ConsentModel;
struct DataSubmissionModel;

class ServiceProtocol {
public:
    // Runs exactly once: with a null error when the request was delivered (or,
    // offline, durably cached), otherwise with the error the send failed with.
    // It may run on any thread, before the send returns included, and must
    // not block.
    using Completion = std::function<void(std::exception_ptr error)>;

    virtual ~ServiceProtocol() = default;

    virtual void sendConsentSubmission(ConsentModel consent, Completion completion) = 0;
    virtual void sendDataSubmission(DataSubmissionModel data, Completion completion) = 0;
    // payload: the JSON body that was cached earlier.
    virtual void resendCachedDataSubmission(Bytes payload, Completion completion) = 0;
    // A cached consent report sent again: a failure goes back to the caller
    // (the resend walk counts it) instead of being cached once more. By
    // default the same as sendConsentSubmission.
    virtual void resendCachedConsentSubmission(ConsentModel consent, Completion completion);

    // The same sends as futures whose get() rethrows the error.
    std::future<void> sendConsentSubmission(ConsentModel consent);
    std::future<void> sendDataSubmission(DataSubmissionModel data);
    std::future<void> resendCachedDataSubmission(Bytes payload);

    // A completion that fulfils the promise.
    static Completion completing(std::shared_ptr<std::promise<void>> promise);
};

}  // namespace tavrin
