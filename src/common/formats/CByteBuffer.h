// A plain byte buffer, the form in which decoded binary values (hexadecimal
// JSON strings, ASN.1 bit strings) are handed to callers.
#pragma once

#include <cstdint>
#include <vector>

namespace zelph {

// Owned, growable bytes.
using CByteBuffer = std::vector<std::uint8_t>;

}  // namespace zelph
