#include "common/formats/CJSValue.h"

#include <algorithm>
#include <cwctype>
#include <utility>

#include "common/base/CharClasses.h"

namespace zelph {

namespace {

// The one null value. Constant-initialised, so it exists before any static
// constructor of the process could parse JSON.
constinit CJSValue gNullValue;

// Item tables start with room for 2 and double when full.
void MakeRoom(std::vector<CJSValuePtr>& table) {
  if (table.size() == table.capacity()) table.reserve(table.capacity() * 2);
}

}  // namespace

// Deletes the values in `items` without recursing into nested containers:
// the children of every container are moved here before it is deleted, so a
// deeply nested tree cannot exhaust the stack. If there is no memory for
// that, the container's own destructor deletes them instead.
void DeleteJSItems(std::vector<CJSValuePtr>& items) noexcept {
  std::vector<CJSValuePtr> pending = std::move(items);
  while (!pending.empty()) {
    CJSValuePtr item = std::move(pending.back());
    pending.pop_back();
    // Scalars, empty containers and members holding either are deleted as
    // they are: that nests no deeper than a member's value.
    if (item->GetCount() == 0) continue;
    std::vector<CJSValuePtr>* children = nullptr;
    if (auto* array = dynamic_cast<CJSArray*>(item.get())) {
      children = &array->items_;
    } else if (auto* object = dynamic_cast<CJSObject*>(item.get())) {
      children = &object->members_;
    } else if (auto* member = dynamic_cast<CJSKeyedValue*>(item.get())) {
      try {
        pending.push_back(std::move(member->value_));
      } catch (...) {
      }
      continue;
    }
    if (children == nullptr || children->empty()) continue;
    // Grown by doubling: reserving exactly what each container needs would
    // copy the whole list again for every container.
    const std::size_t needed = pending.size() + children->size();
    if (needed > pending.capacity()) {
      try {
        pending.reserve(std::max(needed, 2 * pending.capacity()));
      } catch (...) {
        continue;
      }
    }
    for (auto& child : *children) pending.push_back(std::move(child));
    children->clear();
  }
}

// ---------------------------------------------------------------------------
// CJSValue

void CJSValue::operator delete(CJSValue* value, std::destroying_delete_t) noexcept {
  if (value == &gNullValue) return;
  value->~CJSValue();
  ::operator delete(value);
}

CJSValue& GetJSNull() noexcept {
  return gNullValue;
}

bool CJSValue::IsNull() const noexcept {
  return this == &gNullValue;
}

CUTF8String CJSValue::GetKey() const {
  return {};
}

CUTF8String CJSValue::GetString() const {
  return {};
}

bool CJSValue::GetBool() const noexcept {
  return false;
}

bool CJSValue::GetBoolOr(bool fallback) const noexcept {
  return IsNull() ? fallback : GetBool();
}

std::int32_t CJSValue::GetInt() const noexcept {
  return 0;
}

CByteBuffer CJSValue::GetBytes() const {
  return {};
}

std::uint64_t CJSValue::GetCount() const noexcept {
  return 0;
}

const CJSValue& CJSValue::GetItem(std::uint64_t /*index*/) const noexcept {
  return gNullValue;
}

const CJSValue& CJSValue::Find(const char* /*key*/) const noexcept {
  return gNullValue;
}

const CJSValue& CJSValue::FindBytes(const CByteBuffer& /*bytes*/) const {
  return gNullValue;
}

// ---------------------------------------------------------------------------
// Hexadecimal bytes

CByteBuffer DecodeJSHexBytes(const CUTF8String& text) {
  CByteBuffer bytes;
  CUTF8String walked(text);
  CTStringCursor<CUTF8Encoding> cursor(walked);
  for (std::int32_t c = cursor.Next(); c >= 0; c = cursor.Next()) {
    if (std::iswspace(static_cast<wint_t>(c))) continue;
    const int high = HexDigitValue(c);
    if (high < 0) break;
    const int low = HexDigitValue(cursor.Peek());
    if (low < 0) {
      bytes.push_back(static_cast<std::uint8_t>(high));
    } else {
      cursor.Next();
      bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
  }
  return bytes;
}

CByteBuffer CJSString::GetBytes() const {
  return DecodeJSHexBytes(value_);
}

// ---------------------------------------------------------------------------
// CJSArray

CJSArray::CJSArray() {
  items_.reserve(2);
}

CJSArray::~CJSArray() {
  DeleteJSItems(items_);
}

void CJSArray::Append(CJSValuePtr item) {
  MakeRoom(items_);
  items_.push_back(std::move(item));
}

const CJSValue& CJSArray::GetItem(std::uint64_t index) const noexcept {
  return *items_[index];
}

// ---------------------------------------------------------------------------
// CJSKeyedValue

CJSKeyedValue::CJSKeyedValue(const CUTF8String& key, CJSValuePtr value) noexcept
    : key_(key), value_(value ? std::move(value) : CJSValuePtr(&gNullValue)) {}

CJSKeyedValue::~CJSKeyedValue() = default;

// ---------------------------------------------------------------------------
// CJSObject

CJSObject::CJSObject() {
  members_.reserve(2);
}

CJSObject::~CJSObject() {
  DeleteJSItems(members_);
}

void CJSObject::Append(const CUTF8String& key, CJSValuePtr value) {
  MakeRoom(members_);
  members_.push_back(std::make_unique<CJSKeyedValue>(key, std::move(value)));
}

const CJSValue& CJSObject::GetItem(std::uint64_t index) const noexcept {
  return index < members_.size() ? *members_[index] : gNullValue;
}

const CJSValue& CJSObject::Find(const char* key) const noexcept {
  for (const auto& member : members_) {
    if (member->GetKey().Compare(key) == 0) return *member;
  }
  return gNullValue;
}

const CJSValue& CJSObject::FindBytes(const CByteBuffer& bytes) const {
  for (const auto& member : members_) {
    if (DecodeJSHexBytes(member->GetKey()) == bytes) return *member;
  }
  return gNullValue;
}

}  // namespace zelph
