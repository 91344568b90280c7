// Fuzzes the JSON reader: values are read one after another from arbitrary
// bytes, and every value of every tree is queried the way callers do.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/formats/JSONReader.h"

using namespace zelph;

namespace {

// Queries one value; items of containers go on `pending`.
void Query(const CJSValue& value, std::vector<const CJSValue*>& pending) {
  (void)value.GetKey();
  (void)value.GetString();
  (void)value.GetBytes();
  (void)value.GetInt();
  Require(value.GetBoolOr(true) == (value.IsNull() ? true : value.GetBool()),
          "GetBoolOr gives its default for the null value only");
  // A member answers for its value, except for FindBytes.
  const CJSValue* target = &value;
  if (const auto* member = dynamic_cast<const CJSKeyedValue*>(target)) target = &member->GetValue();
  const auto* object = dynamic_cast<const CJSObject*>(target);
  const std::uint64_t count = value.GetCount();
  Require(count == target->GetCount(), "a member counts the items of its value");
  for (std::uint64_t i = 0; i < count; ++i) {
    const CJSValue& item = value.GetItem(i);
    pending.push_back(&item);
    if (object == nullptr) continue;
    const CUTF8String key = item.GetKey();
    if (key.View().find('\0') == std::string_view::npos) {
      const CJSValue& found = value.Find(key.c_str());
      Require(!found.IsNull() && found.GetKey() == key, "Find finds a member by its key");
    }
    const CJSValue& byBytes = object->FindBytes(DecodeJSHexBytes(key));
    Require(!byBytes.IsNull(), "FindBytes finds a member by its key's bytes");
  }
  if (object != nullptr) Require(object->GetItem(count).IsNull(), "members past the end are null");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The reader is always handed zero-terminated text.
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* position = text.data();
  const char* const end = text.data() + text.size();
  for (int round = 0; round < 8 && position < end; ++round) {
    const char* before = position;
    const CJSValuePtr root = ParseJSON(position, end);
    Require(position >= before && position <= end, "the position stays inside the text");
    std::vector<const CJSValue*> pending{root.get()};
    while (!pending.empty()) {
      const CJSValue* value = pending.back();
      pending.pop_back();
      Query(*value, pending);
    }
    if (position == before) break;
  }
  return 0;
}
