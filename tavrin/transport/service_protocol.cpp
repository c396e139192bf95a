#include "tavrin/transport/internal/service_protocol.h"

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/model/internal/data_submission_model.h"

namespace tavrin {

ServiceProtocol::Completion ServiceProtocol::completing(std::shared_ptr<std::promise<void>> promise) {
    return [promise = std::move(promise)](std::exception_ptr error) {
        if (error) {
            promise->set_exception(std::move(error));
        } else {
            promise->set_value();
        }
    };
}

void ServiceProtocol::resendCachedConsentSubmission(ConsentModel consent, Completion completion) {
    sendConsentSubmission(std::move(consent), std::move(completion));
}

std::future<void> ServiceProtocol::sendConsentSubmission(ConsentModel consent) {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    sendConsentSubmission(std::move(consent), completing(std::move(promise)));
    return future;
}

std::future<void> ServiceProtocol::sendDataSubmission(DataSubmissionModel data) {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    sendDataSubmission(std::move(data), completing(std::move(promise)));
    return future;
}

std::future<void> ServiceProtocol::resendCachedDataSubmission(Bytes payload) {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    resendCachedDataSubmission(std::move(payload), completing(std::move(promise)));
    return future;
}

}  // namespace tavrin
