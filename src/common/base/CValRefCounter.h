// Intrusive reference count for shared heap records.
#pragma once

#include <cstdint>

namespace zelph {

// A heap record of type `T` shared by handles. It starts with one reference;
// the last Release deletes it through T's virtual destructor. The count is a
// plain counter: a record belongs to one thread at a time.
template <class T>
class CValRefCounter : public T {
 public:
  using T::T;

  // Adds a reference for another handle.
  void AddRef() noexcept { ++references_; }
  // Drops a reference; deletes the record when none is left.
  void Release() noexcept {
    if (--references_ <= 0) delete this;
  }
  // Number of handles sharing the record.
  std::int32_t GetReferences() const noexcept { return references_; }

 private:
  std::int32_t references_ = 1;
};

}  // namespace zelph
