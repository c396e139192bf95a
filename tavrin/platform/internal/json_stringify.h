#pragma once
// JSON text of any encodable record, for log lines. Never fails: failures
// become the returned text.

#include <string>

#include "tavrin/platform/internal/coding.h"

namespace tavrin {

namespace detail {
std::string stringifyEncoded(const Json& json);
std::string stringifyFailure(const std::exception& error);
}  // namespace detail

template <class T>
std::string jsonString(const T& value) {
    Json encoded;
    try {
        encoded = encodeJson(value);
    } catch (const std::exception& error) {
        return detail::stringifyFailure(error);
    }
    return detail::stringifyEncoded(encoded);
}

}  // namespace tavrin
