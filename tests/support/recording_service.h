#pragma once
// A transport that records what it is asked to send and completes each send
// at once, with success or with the error a test sets.

#include <exception>
#include <mutex>
#include <vector>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/model/internal/data_submission_model.h"
#include "tavrin/transport/internal/service_protocol.h"

namespace tavrin::testing {

class RecordingService final : public ServiceProtocol {
public:
    using ServiceProtocol::resendCachedDataSubmission;
    using ServiceProtocol::sendConsentSubmission;
    using ServiceProtocol::sendDataSubmission;

    void sendConsentSubmission(ConsentModel consent, Completion completion) override {
        complete(consents_, std::move(consent), completion);
    }
    void sendDataSubmission(DataSubmissionModel data, Completion completion) override {
        complete(submissions_, std::move(data), completion);
    }
    void resendCachedDataSubmission(Bytes payload, Completion completion) override {
        complete(resends_, std::move(payload), completion);
    }

    // Later sends fail with this error (null: they succeed again).
    void failWith(std::exception_ptr error) {
        std::lock_guard lock(mutex_);
        error_ = std::move(error);
    }

    std::vector<ConsentModel> consents() const { return read(consents_); }
    std::vector<DataSubmissionModel> submissions() const { return read(submissions_); }
    std::vector<Bytes> resends() const { return read(resends_); }

private:
    template <class T>
    void complete(std::vector<T>& sent, T value, const Completion& completion) {
        std::exception_ptr error;
        {
            std::lock_guard lock(mutex_);
            sent.push_back(std::move(value));
            error = error_;
        }
        completion(error);
    }
    template <class T>
    std::vector<T> read(const std::vector<T>& sent) const {
        std::lock_guard lock(mutex_);
        return sent;
    }

    mutable std::mutex mutex_;
    std::exception_ptr error_;
    std::vector<ConsentModel> consents_;
    std::vector<DataSubmissionModel> submissions_;
    std::vector<Bytes> resends_;
};

}  // namespace tavrin::testing
