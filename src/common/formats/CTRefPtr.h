// Intrusive reference counting for records shared by handles, such as the
// nodes and attributes of an XML tree.
#pragma once

#include <cstdint>
#include <utility>

namespace zelph {

// Base of a record that counts the handles naming it. The count is a plain
// counter: a record and its handles belong to one thread at a time.
class CRefCounted {
 public:
  CRefCounted(const CRefCounted&) = delete;
  CRefCounted& operator=(const CRefCounted&) = delete;

  // Number of handles naming the record.
  std::uint32_t GetReferences() const noexcept { return references_; }

 protected:
  CRefCounted() noexcept = default;
  ~CRefCounted() = default;

 private:
  template <class T>
  friend class CTRefPtr;

  std::uint32_t references_ = 0;
};

// A handle to a record of type `T` (derived from CRefCounted) that holds one
// count; the record is deleted when its last handle goes. May be null.
template <class T>
class CTRefPtr {
 public:
  CTRefPtr() noexcept = default;
  // Takes `record` (new or already shared) and counts this handle.
  explicit CTRefPtr(T* record) noexcept : record_(record) {
    if (record_ != nullptr) ++record_->references_;
  }
  CTRefPtr(const CTRefPtr& other) noexcept : CTRefPtr(other.record_) {}
  CTRefPtr(CTRefPtr&& other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
  CTRefPtr& operator=(CTRefPtr other) noexcept {
    std::swap(record_, other.record_);
    return *this;
  }
  ~CTRefPtr() { Reset(); }

  // Drops this handle's count and makes it null.
  void Reset() noexcept {
    T* record = std::exchange(record_, nullptr);
    if (record != nullptr && --record->references_ == 0) delete record;
  }

  T* Get() const noexcept { return record_; }
  T& operator*() const noexcept { return *record_; }
  T* operator->() const noexcept { return record_; }
  explicit operator bool() const noexcept { return record_ != nullptr; }

 private:
  T* record_ = nullptr;
};

// A new record of type `T` built from `args`, held by its first handle.
template <class T, class... Args>
CTRefPtr<T> MakeRef(Args&&... args) {
  return CTRefPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace zelph
