#pragma once
// A byte buffer: request and response bodies, stored data values. An HTTP
// client or key-value store implementation takes and gives these as Bytes,
// so no text encoding is assumed and a zero byte is just a byte.
//
//     const char json[] = R"({"track":"pageview"})";
//     tavrin::Bytes body(json, json + sizeof json - 1);  // a request body, without the closing NUL
//     tavrin::Bytes stored{0x9f, 0x00, 0x41};           // a data value: any bytes, zeros included

#include <cstdint>
#include <vector>

namespace tavrin {

using Bytes = std::vector<std::uint8_t>;

}  // namespace tavrin
