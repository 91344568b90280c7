#include "common/formats/CJSValue.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <utility>
#include <vector>

#include "common/base/CharClasses.h"
#include "common/formats/CJSPool.h"

namespace zelph {

namespace {

// The one null value. Constant-initialised, so it exists before any static
// constructor of the process could parse JSON.
constinit CJSValue gNullValue;

// Frames of the deletion kept on the stack; deeper trees spill to the heap.
constexpr std::size_t kLocalFrames = 32;

}  // namespace

// Destroys `value` (never the null value) and everything it holds without
// recursing: the containers being emptied are kept on a stack of frames, and
// a container is destroyed once its last item is. Each value's memory goes
// back as it came: its own heap block, nothing for a pooled record (its
// pool goes with the tree's root), the whole pool for the root.
void DestroyJSValue(CJSValue* value) noexcept {
  struct CFrame {
    CJSValue* owner;
    CJSValue** items;
    std::uint64_t count;
    std::uint64_t next;
  };
  // The items of `v` when it holds any.
  const auto itemsOf = [](CJSValue* v, CJSValue**& items, std::uint64_t& count) noexcept {
    switch (v->kind_) {
      case CJSValue::Kind::kArray:
        items = static_cast<CJSArray*>(v)->items_.items;
        count = static_cast<CJSArray*>(v)->items_.count;
        return count != 0;
      case CJSValue::Kind::kObject:
        items = static_cast<CJSObject*>(v)->members_.items;
        count = static_cast<CJSObject*>(v)->members_.count;
        return count != 0;
      case CJSValue::Kind::kMember:
        items = &static_cast<CJSKeyedValue*>(v)->value_;
        count = 1;
        return *items != &gNullValue;
      default:
        return false;
    }
  };
  // Destroys `v` and gives its memory back. Its items are gone already when
  // `itemsGone`; otherwise its destructor deletes them.
  const auto destroy = [](CJSValue* v, bool itemsGone = true) noexcept {
    const CJSValue::Storage storage = v->storage_;
    switch (v->kind_) {
      case CJSValue::Kind::kString:
        static_cast<CJSString*>(v)->~CJSString();
        break;
      case CJSValue::Kind::kArray:
        if (itemsGone) static_cast<CJSArray*>(v)->items_.count = 0;
        static_cast<CJSArray*>(v)->~CJSArray();
        break;
      case CJSValue::Kind::kObject:
        if (itemsGone) static_cast<CJSObject*>(v)->members_.count = 0;
        static_cast<CJSObject*>(v)->~CJSObject();
        break;
      case CJSValue::Kind::kMember:
        if (itemsGone) static_cast<CJSKeyedValue*>(v)->value_ = &gNullValue;
        static_cast<CJSKeyedValue*>(v)->~CJSKeyedValue();
        break;
      case CJSValue::Kind::kBoolean:
        static_cast<CJSBoolean*>(v)->~CJSBoolean();
        break;
      case CJSValue::Kind::kInteger:
        static_cast<CJSInteger*>(v)->~CJSInteger();
        break;
      default:
        v->~CJSValue();
        break;
    }
    switch (storage) {
      case CJSValue::Storage::kHeap:
        ::operator delete(v);
        break;
      case CJSValue::Storage::kPooled:
        break;
      case CJSValue::Storage::kPoolRoot:
        CJSPool::Free(v);
        break;
    }
  };

  CFrame local[kLocalFrames];
  std::vector<CFrame> spilled;
  CFrame* frames = local;
  std::size_t depth = 0;
  std::size_t room = kLocalFrames;
  // Destroys `v` at once when it holds nothing, else opens a frame for it.
  const auto take = [&](CJSValue* v) noexcept {
    CJSValue** items = nullptr;
    std::uint64_t count = 0;
    if (!itemsOf(v, items, count)) {
      destroy(v);
      return;
    }
    if (depth == room) {
      try {
        spilled.resize(room * 2);
      } catch (...) {
        // No memory for more frames: the container's own destructor deletes
        // its items, one level of calls deeper.
        destroy(v, false);
        return;
      }
      if (frames == local) std::copy(local, local + depth, spilled.begin());
      frames = spilled.data();
      room = spilled.size();
    }
    frames[depth++] = {v, items, count, 0};
  };
  take(value);
  while (depth != 0) {
    CFrame& top = frames[depth - 1];
    if (top.next == top.count) {
      CJSValue* owner = top.owner;
      --depth;
      destroy(owner);
      continue;
    }
    CJSValue* item = top.items[top.next++];
    if (item != &gNullValue) take(item);
  }
}

// ---------------------------------------------------------------------------
// CJSTable

CJSTable::~CJSTable() {
  for (std::uint64_t i = 0; i < count; ++i) {
    if (items[i] != &gNullValue) DestroyJSValue(items[i]);
  }
  if (owned) ::operator delete(items);
}

void CJSTable::MakeRoom() {
  if (count != capacity) return;
  // Item tables start with room for 2 and double when full.
  const std::uint64_t grown = capacity == 0 ? 2 : 2 * capacity;
  auto** fresh = static_cast<CJSValue**>(::operator new(grown * sizeof(CJSValue*)));
  if (count != 0) std::memcpy(fresh, items, count * sizeof(CJSValue*));
  if (owned) ::operator delete(items);
  items = fresh;
  capacity = grown;
  owned = true;
}

// ---------------------------------------------------------------------------
// CJSValue

void CJSValue::operator delete(CJSValue* value, std::destroying_delete_t) noexcept {
  if (value == &gNullValue) return;
  DestroyJSValue(value);
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

void CJSArray::Append(CJSValuePtr item) {
  items_.MakeRoom();
  items_.items[items_.count++] = item ? item.release() : &gNullValue;
}

// ---------------------------------------------------------------------------
// CJSKeyedValue

CJSKeyedValue::CJSKeyedValue(const CUTF8String& key, CJSValuePtr value) noexcept
    : CJSValue(Kind::kMember), key_(key), value_(value ? value.release() : &gNullValue) {}

CJSKeyedValue::~CJSKeyedValue() {
  if (value_ != &gNullValue) DestroyJSValue(value_);
}

// ---------------------------------------------------------------------------
// CJSObject

void CJSObject::Append(const CUTF8String& key, CJSValuePtr value) {
  members_.MakeRoom();
  auto member = std::make_unique<CJSKeyedValue>(key, std::move(value));
  members_.items[members_.count++] = member.release();
}

const CJSValue& CJSObject::GetItem(std::uint64_t index) const noexcept {
  return index < members_.count ? *members_.items[index] : gNullValue;
}

const CJSValue& CJSObject::Find(const char* key) const noexcept {
  for (std::uint64_t i = 0; i < members_.count; ++i) {
    const auto* member = static_cast<const CJSKeyedValue*>(members_.items[i]);
    if (member->Key().Compare(key) == 0) return *member;
  }
  return gNullValue;
}

const CJSValue& CJSObject::FindBytes(const CByteBuffer& bytes) const {
  for (std::uint64_t i = 0; i < members_.count; ++i) {
    const auto* member = static_cast<const CJSKeyedValue*>(members_.items[i]);
    if (DecodeJSHexBytes(member->Key()) == bytes) return *member;
  }
  return gNullValue;
}

}  // namespace zelph
