// The pool of a parsed JSON tree: its values and small tables lie in chunks
// that the tree's root owns (the root is the pool's first record), so that a
// parse costs a few allocations instead of several per value, and deleting
// the tree frees them at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace zelph {

class CJSPool {
 public:
  // Records are aligned to this; every record type of the tree needs less.
  static constexpr std::size_t kAlign = 8;

  // `firstChunk` bytes for the first chunk (an estimate of what the parse
  // needs); later chunks double up to kMaxChunk.
  explicit CJSPool(std::size_t firstChunk) noexcept
      : nextSize_(firstChunk < kMinChunk ? kMinChunk : firstChunk > kMaxChunk ? kMaxChunk : firstChunk) {}
  CJSPool(const CJSPool&) = delete;
  CJSPool& operator=(const CJSPool&) = delete;
  // The chunks are not freed here: they belong to the first record.
  ~CJSPool() = default;

  // True before the first allocation, whose record becomes the owner of the
  // pool.
  bool IsEmpty() const noexcept { return first_ == nullptr; }

  // `bytes` of memory. Throws std::bad_alloc.
  void* Allocate(std::size_t bytes) {
    bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
    if (bytes > static_cast<std::size_t>(end_ - next_)) NewChunk(bytes);
    void* memory = next_;
    next_ += bytes;
    return memory;
  }

  // Frees every chunk of the pool whose first record is `first`.
  static void Free(void* first) noexcept {
    auto* chunk = reinterpret_cast<CChunk*>(static_cast<char*>(first) - sizeof(CChunk));
    while (chunk != nullptr) {
      CChunk* next = chunk->next;
      ::operator delete(chunk);
      chunk = next;
    }
  }

 private:
  struct CChunk {
    CChunk* next;
    std::uint64_t reserved;  // keeps the records behind it 16-aligned
  };

  static constexpr std::size_t kMinChunk = 256;
  static constexpr std::size_t kMaxChunk = 64 << 10;

  void NewChunk(std::size_t bytes) {
    std::size_t size = nextSize_;
    if (size < bytes) size = bytes;
    auto* chunk = static_cast<CChunk*>(::operator new(sizeof(CChunk) + size));
    chunk->next = nullptr;
    chunk->reserved = 0;
    if (last_ != nullptr) {
      last_->next = chunk;
    } else {
      first_ = chunk;
    }
    last_ = chunk;
    next_ = reinterpret_cast<char*>(chunk + 1);
    end_ = next_ + size;
    if (nextSize_ < kMaxChunk) nextSize_ *= 2;
    if (nextSize_ > kMaxChunk) nextSize_ = kMaxChunk;
  }

  CChunk* first_ = nullptr;
  CChunk* last_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::size_t nextSize_;
};

}  // namespace zelph
