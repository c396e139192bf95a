// Cost of writing one data submission as the request body.
#include <benchmark/benchmark.h>

#include <string>

#include "tavrin/model/internal/data_submission_model.h"

namespace {

using tavrin::CodableValue;

// A submission as a checkout sends it: 50 custom properties of mixed kinds,
// two vendors, one enrichment.
tavrin::DataSubmissionModel submission(int properties) {
    tavrin::DataSubmissionModel model;
    model.version = "3";
    model.system = {"sdk-ios", 1700000000123, "iOS; iPhone OS 12_5; x86_64 [TavrinSDK/v.1.0.18]", "tvr_push_submit"};
    model.consent = {{"vendorA", {CodableValue::boolean(true)}}, {"vendorB", {CodableValue::string("ncm")}}};
    model.configuration = {"shop-app", "live", "3", std::nullopt};
    model.data.identifier = {{"4821700000000123451234", "update"}, {"8F0C2D4E-1A2B-4C3D-9E8F-0123456789AB", "update"}};
    model.data.variables.documentLocationHref = "https://shop.example.com/?";
    model.data.variables.fbBrowserId = "fb.1.1711009849625.5246926883";
    model.data.variables.tvrpushedcommands = {"pageview", "product", "addtocart", "submit"};
    for (int i = 0; i < properties; ++i) {
        const std::string name = "property_" + std::to_string(i);
        switch (i % 5) {
            case 0: model.data.variables.customProperties.emplace(name, CodableValue::string("value " + name)); break;
            case 1: model.data.variables.customProperties.emplace(name, CodableValue::integer(i * 1000)); break;
            case 2: model.data.variables.customProperties.emplace(name, CodableValue::decimalNumber(i * 1.25)); break;
            case 3: model.data.variables.customProperties.emplace(name, CodableValue::boolean(i % 2 == 0)); break;
            default:
                model.data.variables.customProperties.emplace(
                    name, CodableValue::array({CodableValue::string("a"), CodableValue::string("b")}));
        }
    }
    model.data.enrichment = std::map<std::string, tavrin::Enrichment>{
        {"geo", tavrin::Enrichment{{{"city", CodableValue::string("Vienna")}}, {"region"}}}};
    return model;
}

void BM_EncodeDataSubmission(benchmark::State& state) {
    const auto model = submission(static_cast<int>(state.range(0)));
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto text = tavrin::encodeJsonText(model);
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.counters["body_bytes"] = static_cast<double>(bytes);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_EncodeDataSubmission)->Arg(50)->Unit(benchmark::kMicrosecond);

void BM_DecodeDataSubmission(benchmark::State& state) {
    const auto text = tavrin::encodeJsonText(submission(static_cast<int>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::decodeJson<tavrin::DataSubmissionModel>(text));
}
BENCHMARK(BM_DecodeDataSubmission)->Arg(50)->Unit(benchmark::kMicrosecond);

}  // namespace
