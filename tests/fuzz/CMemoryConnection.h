// An HTTP connection whose peer is a block of memory (which must outlive it):
// it hands out at most `chunk` bytes per receive, so that the readers meet
// every split of their input, then the end of the stream, and drops whatever
// is sent.
#pragma once

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/system/CHttpConnection.h"

namespace zelph {

class CMemoryConnection final : public CHttpConnection {
 public:
  CMemoryConnection(std::string_view bytes, std::size_t chunk) : bytes_(bytes), chunk_(chunk) {}
  std::int32_t RawSend(const void*, std::int32_t length) override { return length; }
  std::int32_t RawReceive(void* buffer, std::int32_t capacity) override {
    const auto count = std::min({bytes_.size(), chunk_, static_cast<std::size_t>(capacity)});
    std::memcpy(buffer, bytes_.data(), count);
    bytes_.remove_prefix(count);
    return static_cast<std::int32_t>(count);
  }

 private:
  std::string_view bytes_;
  std::size_t chunk_;
};

}  // namespace zelph
