// An HTTP connection whose peer is a block of memory, for the fuzz targets
// of the readers that take their bytes from a connection.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/system/CHttpConnection.h"

namespace zelph {

// Hands out `bytes` at most `chunk` bytes per receive (so that the readers
// meet every split of their input across receives), then reports the end of
// the stream. Whatever is sent is dropped. The bytes must outlive it.
class CMemoryConnection final : public CHttpConnection {
 public:
  CMemoryConnection(std::string_view bytes, std::size_t chunk) noexcept
      : bytes_(bytes), chunk_(std::max<std::size_t>(chunk, 1)) {}

  std::int32_t RawSend(const void*, std::int32_t length) override { return length; }

  std::int32_t RawReceive(void* buffer, std::int32_t capacity) override {
    const std::size_t count =
        std::min({bytes_.size(), chunk_, static_cast<std::size_t>(std::max(capacity, 0))});
    std::memcpy(buffer, bytes_.data(), count);
    bytes_.remove_prefix(count);
    return static_cast<std::int32_t>(count);
  }

 private:
  std::string_view bytes_;
  std::size_t chunk_;
};

}  // namespace zelph
