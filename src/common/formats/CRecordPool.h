// Records of a parsed tree (XML nodes and attributes, JSON values) taken from
// large chunks instead of one heap block each: a parse then costs a few
// allocations instead of one or more per record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace zelph {

// A chunk of records. It counts the records that live in it, plus one while
// a pool is still filling it, and frees itself when the count reaches zero:
// so a record, and whatever lies beside it in the chunk, stays valid as long
// as it lives, whatever happened to the pool or to the other records. The
// count is a plain counter: the records of a chunk, like the trees they
// form, belong to one thread at a time.
class CPoolChunk {
 public:
  CPoolChunk(const CPoolChunk&) = delete;
  CPoolChunk& operator=(const CPoolChunk&) = delete;

  // Counts `records` more records living in the chunk.
  void AddRecords(std::uint64_t records) noexcept { live_ += records; }
  // One of them has gone (its destructor has run); the last one frees the
  // chunk.
  void ReleaseRecord() noexcept {
    if (--live_ == 0) ::operator delete(this);
  }

 private:
  friend class CRecordPool;
  CPoolChunk() noexcept = default;

  std::uint64_t live_ = 1;  // the filling pool's count
  std::uint64_t reserved_ = 0;  // keeps the records behind it 16-aligned
};

// Hands out memory for records from chunks it fills one after the other.
// Memory is never reused: a record's memory goes back with its whole chunk.
// The pool itself is a local of the parser; the chunks outlive it as long as
// records in them live.
class CRecordPool {
 public:
  // Records are aligned to this; every record type of the trees needs less.
  static constexpr std::size_t kAlign = 8;

  // `firstChunk` bytes for the first chunk (an estimate of what the parse
  // needs); later chunks double up to kMaxChunk.
  explicit CRecordPool(std::size_t firstChunk) noexcept
      : nextSize_(firstChunk < kMinChunk ? kMinChunk : firstChunk > kMaxChunk ? kMaxChunk : firstChunk) {}
  CRecordPool(const CRecordPool&) = delete;
  CRecordPool& operator=(const CRecordPool&) = delete;
  ~CRecordPool() {
    if (chunk_ != nullptr) chunk_->ReleaseRecord();
  }

  // `bytes` of memory for `records` records, which `chunk` gets and which
  // each tell it when they go (CPoolChunk::ReleaseRecord). Throws
  // std::bad_alloc.
  void* Allocate(std::size_t bytes, std::uint64_t records, CPoolChunk*& chunk) {
    bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
    if (bytes > static_cast<std::size_t>(end_ - next_)) NewChunk(bytes);
    void* memory = next_;
    next_ += bytes;
    chunk_->AddRecords(records);
    chunk = chunk_;
    return memory;
  }

 private:
  static constexpr std::size_t kMinChunk = 512;
  static constexpr std::size_t kMaxChunk = 64 << 10;

  // Starts a chunk with room for at least `bytes`; the one being filled is
  // left to its records.
  void NewChunk(std::size_t bytes) {
    std::size_t size = nextSize_;
    if (size < bytes) size = bytes;
    void* memory = ::operator new(sizeof(CPoolChunk) + size);
    if (chunk_ != nullptr) chunk_->ReleaseRecord();
    chunk_ = new (memory) CPoolChunk();
    next_ = static_cast<char*>(memory) + sizeof(CPoolChunk);
    end_ = next_ + size;
    if (nextSize_ < kMaxChunk) nextSize_ *= 2;
    if (nextSize_ > kMaxChunk) nextSize_ = kMaxChunk;
  }

  CPoolChunk* chunk_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::size_t nextSize_;
};

}  // namespace zelph
