#pragma once
// A byte buffer: request bodies, stored data values.

#include <cstdint>
#include <vector>

namespace tavrin {

using Bytes = std::vector<std::uint8_t>;

}  // namespace tavrin
