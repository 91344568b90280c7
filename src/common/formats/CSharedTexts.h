// A small table of texts a reader has made strings of, so that a text that
// comes again gets a copy of the same string (one counter increment) instead
// of a buffer of its own: the names of an XML document repeat, and so do
// many short values of XML and JSON documents.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/base/CTString.h"

namespace zelph {

// A text goes into one of a few slots picked by its hash, and is not kept
// when they are taken. The strings handed out are ordinary strings: a change
// to one of them copies its bytes first.
class CSharedTexts {
 public:
  // `text` as a string: a copy of the one kept for it, or a new one.
  CUTF8String Get(std::string_view text) {
    if (text.empty()) return {};
    const std::uint32_t hash = Hash(text);
    for (std::uint32_t probe = 0; probe < kProbes; ++probe) {
      CSlot& slot = slots_[(hash + probe) % kSlots];
      if (slot.text.IsEmpty()) {
        slot.text = CUTF8String(text.data(), text.size());
        slot.hash = hash;
        return slot.text;
      }
      if (slot.hash == hash && slot.text.View() == text) return slot.text;
    }
    return CUTF8String(text.data(), text.size());
  }

 private:
  static constexpr std::uint32_t kSlots = 128;
  static constexpr std::uint32_t kProbes = 4;

  // Mixes the text eight bytes at a time: short texts cost a multiply or two.
  static std::uint32_t Hash(std::string_view text) noexcept {
    constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15ULL;
    std::uint64_t hash = text.size();
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
      std::uint64_t word;
      std::memcpy(&word, text.data() + i, sizeof word);
      hash = (hash ^ word) * kMix;
    }
    std::uint64_t tail = 0;
    for (int shift = 0; i < text.size(); ++i, shift += 8) {
      tail |= std::uint64_t{static_cast<unsigned char>(text[i])} << shift;
    }
    hash = (hash ^ tail) * kMix;
    return static_cast<std::uint32_t>(hash >> 32);
  }

  // A place in the table, free while its text is empty.
  struct CSlot {
    CUTF8String text;
    std::uint32_t hash = 0;
  };
  std::array<CSlot, kSlots> slots_{};
};

}  // namespace zelph
