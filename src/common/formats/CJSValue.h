// JSON values: a tree of value objects that callers query through one virtual
// interface, without type tests. Absence and failure are both the shared null
// value, so chains of queries need no checks in between.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "common/base/CTString.h"
#include "common/formats/CByteBuffer.h"

namespace zelph {

class CJSValue;
class CJSTreeBuilder;

// An owned value. It may hold the shared null value, which deleting leaves
// alone, so any result of the parser can be held in one.
using CJSValuePtr = std::unique_ptr<CJSValue>;

// The root of the value classes and, as a plain instance, the null value.
// Every query answers with a neutral default here; the subclasses override
// the queries that make sense for them.
//
// Values are ordinary heap objects, or records of a parsed tree: the reader
// takes a tree's values and tables from chunks of one pool, which its root
// owns; deleting the root destroys the tree and frees the pool. Either kind
// is deleted through its owning pointer alike.
class CJSValue {
 public:
  constexpr CJSValue() noexcept = default;
  CJSValue(const CJSValue&) = delete;
  CJSValue& operator=(const CJSValue&) = delete;
  virtual ~CJSValue() = default;

  // Deleting the shared null value does nothing, so that trees and callers
  // may hold it like any other value. Anything else is destroyed with
  // everything it holds, without recursion, so deep trees are safe.
  static void operator delete(CJSValue* value, std::destroying_delete_t) noexcept;

  // The key of an object member; empty for anything else.
  virtual CUTF8String GetKey() const;
  // The text of a string; empty for anything else.
  virtual CUTF8String GetString() const;
  // The value of a boolean; false for anything else.
  virtual bool GetBool() const noexcept;
  // `fallback` when this is the null value, GetBool() otherwise (so a present
  // value that is not a boolean gives false, not `fallback`).
  virtual bool GetBoolOr(bool fallback) const noexcept;
  // The value of an integer; 0 for anything else.
  virtual std::int32_t GetInt() const noexcept;
  // A string read as hexadecimal bytes (see CJSString); empty for anything
  // else.
  virtual CByteBuffer GetBytes() const;
  // The number of items of an array or members of an object; 0 otherwise.
  virtual std::uint64_t GetCount() const noexcept;
  // Item `index` of an array or member `index` of an object; the null value
  // otherwise. An array does not check `index`: it must be below GetCount().
  virtual const CJSValue& GetItem(std::uint64_t index) const noexcept;
  // The first object member whose key equals the UTF-8 text `key` (decoded
  // and compared character by character, case-sensitive); the null value
  // when there is none or this is not an object.
  virtual const CJSValue& Find(const char* key) const noexcept;
  // The first object member whose key, read as hexadecimal bytes, equals
  // `bytes`; the null value when there is none or this is not an object.
  virtual const CJSValue& FindBytes(const CByteBuffer& bytes) const;

  // True when this is the shared null value.
  bool IsNull() const noexcept;

 protected:
  // What a value is, so that the tree's deletion needs no type tests. The
  // classes are final, so the kind names the exact class.
  enum class Kind : std::uint8_t { kPlain, kString, kBoolean, kInteger, kArray, kObject, kMember };

  constexpr explicit CJSValue(Kind kind) noexcept : kind_(kind) {}

 private:
  friend class CJSTreeBuilder;
  friend void DestroyJSValue(CJSValue* value) noexcept;

  // Where the value's memory comes from.
  enum class Storage : std::uint8_t {
    kHeap,      // its own heap block
    kPooled,    // a record of a parsed tree's pool
    kPoolRoot,  // the first record of a pool, which frees the pool with it
  };

  Kind kind_ = Kind::kPlain;
  Storage storage_ = Storage::kHeap;
};

// The shared null value: never freed, returned by every lookup that finds
// nothing and every parse that fails.
CJSValue& GetJSNull() noexcept;

// A JSON string.
class CJSString final : public CJSValue {
 public:
  explicit CJSString(const CUTF8String& value) noexcept : CJSValue(Kind::kString), value_(value) {}

  CUTF8String GetString() const override { return value_; }
  // The text as hexadecimal bytes: white space is skipped between bytes, a
  // byte is one or two hexadecimal digits (a second digit is taken when one
  // follows at once), and the first other character ends the decoding,
  // keeping what was decoded. "0a 0B f" gives 0x0A 0x0B 0x0F.
  CByteBuffer GetBytes() const override;

 private:
  CUTF8String value_;
};

// true or false.
class CJSBoolean final : public CJSValue {
 public:
  explicit CJSBoolean(bool value) noexcept : CJSValue(Kind::kBoolean), value_(value ? 1 : 0) {}

  bool GetBool() const noexcept override { return value_ != 0; }

 private:
  std::uint8_t value_;
};

// A non-negative whole number, kept in 32 bits.
class CJSInteger final : public CJSValue {
 public:
  explicit CJSInteger(std::int32_t value) noexcept : CJSValue(Kind::kInteger), value_(value) {}

  std::int32_t GetInt() const noexcept override { return value_; }

 private:
  std::int32_t value_;
};

// The owned items of an array or the members of an object: a table that
// starts with room for 2 and doubles when full. Its storage is a heap block
// of its own, or lies in the pool of a parsed tree.
struct CJSTable {
  CJSValue** items = nullptr;
  std::uint64_t count = 0;
  std::uint64_t capacity = 0;
  bool owned = false;  // the storage is a heap block of the table's

  CJSTable() noexcept = default;
  CJSTable(const CJSTable&) = delete;
  CJSTable& operator=(const CJSTable&) = delete;
  // Deletes the items (each with everything it holds) and frees the storage.
  ~CJSTable();

  // Makes room for one more item when the table is full, moving it into
  // heap storage of its own.
  void MakeRoom();
};

// An array; owns its items, which may include the null value.
class CJSArray final : public CJSValue {
 public:
  CJSArray() noexcept : CJSValue(Kind::kArray) {}

  // Appends `item` (taking ownership).
  void Append(CJSValuePtr item);

  std::uint64_t GetCount() const noexcept override { return items_.count; }
  const CJSValue& GetItem(std::uint64_t index) const noexcept override {
    return *items_.items[index];
  }

 private:
  friend class CJSTreeBuilder;
  friend void DestroyJSValue(CJSValue* value) noexcept;

  CJSTable items_;
};

// One member of an object: a key and its owned value. Queries other than
// GetKey, GetBoolOr and FindBytes are answered by the value, so a member can
// be used as if it were its value.
class CJSKeyedValue final : public CJSValue {
 public:
  CJSKeyedValue(const CUTF8String& key, CJSValuePtr value) noexcept;
  ~CJSKeyedValue() override;

  // The member's value itself.
  const CJSValue& GetValue() const noexcept { return *value_; }
  // The member's key itself.
  const CUTF8String& Key() const noexcept { return key_; }

  CUTF8String GetKey() const override { return key_; }
  CUTF8String GetString() const override { return value_->GetString(); }
  bool GetBool() const noexcept override { return value_->GetBool(); }
  std::int32_t GetInt() const noexcept override { return value_->GetInt(); }
  CByteBuffer GetBytes() const override { return value_->GetBytes(); }
  std::uint64_t GetCount() const noexcept override { return value_->GetCount(); }
  const CJSValue& GetItem(std::uint64_t index) const noexcept override {
    return value_->GetItem(index);
  }
  const CJSValue& Find(const char* key) const noexcept override { return value_->Find(key); }

 private:
  friend class CJSTreeBuilder;
  friend void DestroyJSValue(CJSValue* value) noexcept;

  // For the reader: takes over `key` and the value `value` (never null).
  CJSKeyedValue(CUTF8String&& key, CJSValue* value) noexcept
      : CJSValue(Kind::kMember), key_(std::move(key)), value_(value) {}

  CUTF8String key_;
  CJSValue* value_;  // owned; the null value when there is none
};

// An object: its members in document order (keys need not be unique).
class CJSObject final : public CJSValue {
 public:
  CJSObject() noexcept : CJSValue(Kind::kObject) {}

  // Appends the member `key` with `value` (taking ownership).
  void Append(const CUTF8String& key, CJSValuePtr value);

  std::uint64_t GetCount() const noexcept override { return members_.count; }
  // Member `index`, or the null value when `index` is not below the count.
  const CJSValue& GetItem(std::uint64_t index) const noexcept override;
  const CJSValue& Find(const char* key) const noexcept override;
  const CJSValue& FindBytes(const CByteBuffer& bytes) const override;

 private:
  friend class CJSTreeBuilder;
  friend void DestroyJSValue(CJSValue* value) noexcept;

  CJSTable members_;  // each a CJSKeyedValue
};

// Reads `text` as hexadecimal bytes by the rule of CJSString::GetBytes.
CByteBuffer DecodeJSHexBytes(const CUTF8String& text);

}  // namespace zelph
