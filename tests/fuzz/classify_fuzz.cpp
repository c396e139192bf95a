// The collector's request classifier: any body on any path gets a kind and
// never an exception; a request is invalid exactly when the body is not a
// JSON object or the endpoint is unknown, and then says why; every problem
// names the JSON pointer it concerns.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "classify.h"

using namespace tavrin::collector;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The first byte picks the endpoint, the rest is the body.
    static constexpr std::string_view kPaths[] = {"/", "/monitor", "/other"};
    if (size == 0) return 0;
    const std::string_view path = kPaths[data[0] % 3];
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Classification result = classify(path, body);
    const auto check = [&](bool holds, const char* what) {
        if (holds) return;
        std::fprintf(stderr, "classify check failed: %s\npath %.*s, kind %.*s\n", what, static_cast<int>(path.size()),
                     path.data(), static_cast<int>(kindName(result.kind).size()), kindName(result.kind).data());
        std::abort();
    };
    check(result.kind != RequestKind::invalid || !result.problems.empty(), "invalid without a reason");
    check(path != "/other" || result.kind == RequestKind::invalid, "unknown endpoint accepted");
    check(path != "/monitor" || result.kind == RequestKind::invalid || result.kind == RequestKind::monitorReport,
          "monitor endpoint classified as a submission");
    for (const auto& problem : result.problems)
        check(!problem.empty() && problem.front() == '/', "problem without a pointer");
    return 0;
}
