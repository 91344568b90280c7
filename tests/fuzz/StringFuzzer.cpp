// Fuzzes the string type: construction from arbitrary bytes, in UTF-8 and in
// ISO-8859-1, must decode exactly as the cursor does; tails and insertion
// must keep the bytes around them.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "FuzzSupport.h"
#include "common/base/CTString.h"

using namespace zelph;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::uint16_t position = input.ConsumeIntegral<std::uint16_t>();
  const std::uint32_t codepoint = input.ConsumeIntegralInRange<std::uint32_t>(0, 0x1FFFFF);
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  const char* text = bytes.c_str();  // ends at the first zero byte

  CUTF8String raw(text, CUTF8String::kUntilZero);
  std::string utf8, iso;
  char encoded[4];
  CTStringCursor<CUTF8Encoding> cursor(raw);
  for (std::int32_t c; (c = cursor.Peek()) >= 0;) {
    const std::uint64_t before = cursor.GetIndex();
    Require(cursor.Next() == c && cursor.GetIndex() > before && cursor.GetIndex() <= raw.Size(),
            "Next gives what Peek saw and moves forward inside the text");
    utf8.append(encoded, EncodeUTF8(static_cast<std::uint32_t>(c), encoded));
    iso += c < 256 && !IsInvalidChar(c) ? static_cast<char>(c) : '?';
  }
  Require(cursor.Next() == -1, "the end stays the end");
  Require(CUTF8String(text).View() == utf8, "UTF-8 construction decodes like the cursor");
  Require(CISOString(text).View() == iso, "ISO construction decodes like the cursor");

  const std::uint64_t at = position % (raw.Size() + 1);
  CUTF8String copy = raw;
  CTStringCursor<CUTF8Encoding> inserter(copy, at);
  inserter.Insert(codepoint);
  const unsigned count = EncodeUTF8(codepoint, encoded);
  Require(inserter.GetIndex() == at + count, "the cursor moves past the insertion");
  Require(
      copy.View() == std::string(bytes.c_str()).insert(at, encoded, count) && raw.View() == text,
      "insertion puts the encoded character into the copy only");
  return 0;
}
