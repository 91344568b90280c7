// Text put together for one write to the trace log.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace zelph {

// A growing text that lives on the stack while it is short and moves to the
// heap beyond, so that composing a trace line rarely allocates.
class CLineBuffer {
 public:
  CLineBuffer() noexcept = default;
  CLineBuffer(const CLineBuffer&) = delete;
  CLineBuffer& operator=(const CLineBuffer&) = delete;

  // Appends `text` as it stands.
  void Append(std::string_view text) {
    if (text.empty()) return;  // an empty view may have no data to copy from
    if (!onHeap_ && size_ + text.size() < sizeof local_) {
      std::memcpy(local_ + size_, text.data(), text.size());
      size_ += text.size();
      return;
    }
    if (!onHeap_) {
      heap_.assign(local_, size_);
      onHeap_ = true;
    }
    heap_.append(text);
  }
  void Append(char c) { Append(std::string_view(&c, 1)); }

  // Empties the text.
  void Clear() noexcept {
    size_ = 0;
    onHeap_ = false;
    heap_.clear();
  }

  // The text so far.
  std::string_view View() const noexcept {
    return onHeap_ ? std::string_view(heap_) : std::string_view(local_, size_);
  }
  // The text so far, zero-terminated; valid until the next Append.
  const char* c_str() noexcept {
    if (onHeap_) return heap_.c_str();
    local_[size_] = '\0';
    return local_;
  }

 private:
  char local_[1024];
  std::size_t size_ = 0;
  bool onHeap_ = false;
  std::string heap_;
};

}  // namespace zelph
