// Fuzzes the JSON reader: values are read one after another from arbitrary
// bytes, and every value of every tree is queried the way callers do.
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/formats/JSONReader.h"

using namespace zelph;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(AsText(data, size));  // callers hand over terminated text
  const char* position = text.data();
  for (int round = 0; round < 8 && position < text.data() + size; ++round) {
    const char* before = position;
    const CJSValuePtr root = ParseJSON(position, text.data() + size);
    Require(position >= before && position <= text.data() + size, "the reader stays in the text");
    for (std::vector<const CJSValue*> pending{root.get()}; !pending.empty();) {
      const CJSValue& value = *pending.back();
      pending.pop_back();
      (void)value.GetString(), (void)value.GetBytes(), (void)value.GetInt();
      Require(value.GetBoolOr(true) == (value.IsNull() || value.GetBool()),
              "GetBoolOr gives its default for the null value only");
      // A member answers for its value, except for FindBytes.
      const auto* member = dynamic_cast<const CJSKeyedValue*>(&value);
      const auto* object = dynamic_cast<const CJSObject*>(member ? &member->GetValue() : &value);
      for (std::uint64_t i = 0; i < value.GetCount(); ++i) {
        pending.push_back(&value.GetItem(i));
        if (object == nullptr) continue;
        const CUTF8String key = value.GetItem(i).GetKey();
        Require(key.View().find('\0') != std::string_view::npos ||
                    value.Find(key.c_str()).GetKey() == key,
                "Find finds a member by its key");
        Require(!object->FindBytes(DecodeJSHexBytes(key)).IsNull(), "FindBytes finds a member");
      }
      Require(!object || object->GetItem(value.GetCount()).IsNull(), "no member past the end");
    }
    if (position == before) break;
  }
  return 0;
}
