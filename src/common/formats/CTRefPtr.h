// Intrusive reference counting for records shared by handles, such as the
// nodes and attributes of an XML tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
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

  // Drops one count without deleting the record at zero, and returns what is
  // left: for records that release their own kind without recursion.
  std::uint32_t DropReference() noexcept { return --references_; }

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

  // Gives up the record without dropping its count, which the caller takes
  // over; the handle is null afterwards.
  T* Detach() noexcept { return std::exchange(record_, nullptr); }

  T* Get() const noexcept { return record_; }
  T& operator*() const noexcept { return *record_; }
  T* operator->() const noexcept { return record_; }
  explicit operator bool() const noexcept { return record_ != nullptr; }

 private:
  T* record_ = nullptr;
};

// A growable array of handles, read like a vector (size, indexing, range
// for). Its storage is either its own (growing to 4, then doubling) or lent
// to it by whoever built it, such as an exact table that a parser placed
// beside the record that holds the array; appending to lent storage moves
// the handles into storage of its own first.
template <class T>
class CTRefArray {
 public:
  using value_type = CTRefPtr<T>;
  using const_iterator = const CTRefPtr<T>*;
  using iterator = const_iterator;

  CTRefArray() noexcept = default;
  CTRefArray(const CTRefArray&) = delete;
  CTRefArray& operator=(const CTRefArray&) = delete;
  ~CTRefArray() { Clear(); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const CTRefPtr<T>* data() const noexcept { return items_; }
  const CTRefPtr<T>* begin() const noexcept { return items_; }
  const CTRefPtr<T>* end() const noexcept { return items_ + size_; }
  const CTRefPtr<T>& operator[](std::size_t index) const noexcept { return items_[index]; }
  const CTRefPtr<T>& front() const noexcept { return items_[0]; }
  const CTRefPtr<T>& back() const noexcept { return items_[size_ - 1]; }

  // The handles, for the owner of the array to change in place.
  CTRefPtr<T>* MutableData() noexcept { return items_; }

  // Appends `item`.
  void PushBack(CTRefPtr<T> item) {
    if (size_ == capacity_) Grow();
    new (items_ + size_) CTRefPtr<T>(std::move(item));
    ++size_;
  }

  // Takes the `count` handles built at `storage`, which stays the lender's
  // (it must outlive the array). The array must be empty.
  void Lend(CTRefPtr<T>* storage, std::size_t count) noexcept {
    items_ = storage;
    size_ = count;
    capacity_ = 0;
  }

  // Drops every handle (and frees the storage if it is the array's own).
  void Clear() noexcept {
    for (std::size_t i = 0; i < size_; ++i) items_[i].~CTRefPtr<T>();
    if (capacity_ != 0) ::operator delete(items_);
    items_ = nullptr;
    size_ = 0;
    capacity_ = 0;
  }

 private:
  void Grow() {
    const std::size_t capacity = size_ < 4 ? 4 : 2 * size_;
    auto* items = static_cast<CTRefPtr<T>*>(::operator new(capacity * sizeof(CTRefPtr<T>)));
    for (std::size_t i = 0; i < size_; ++i) {
      new (items + i) CTRefPtr<T>(std::move(items_[i]));
      items_[i].~CTRefPtr<T>();
    }
    if (capacity_ != 0) ::operator delete(items_);
    items_ = items;
    capacity_ = capacity;
  }

  CTRefPtr<T>* items_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;  // 0: the storage is lent (or there is none)
};

// A new record of type `T` built from `args`, held by its first handle.
template <class T, class... Args>
CTRefPtr<T> MakeRef(Args&&... args) {
  return CTRefPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace zelph
