// DataSubmissionModel with its custom properties and enrichments.
#include "tavrin/model/internal/data_submission_model.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRoundTrip<tavrin::DataSubmissionModel>(tavrin::fuzz::asText(data, size));
    return 0;
}
