// Fuzzes the string type: UTF-8 and ISO-8859-1 construction from arbitrary
// bytes, cursor reading, tails, insertion and comparison. The zero-terminated
// decoder and the cursor decoder must follow the same rules, so each is
// checked against the other.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "common/base/CTString.h"

using namespace zelph;

namespace {

// The bytes a decoded character is stored as in each encoding.
void AppendAsUTF8(std::string& out, std::int32_t c) {
  char bytes[4];
  const unsigned count = EncodeUTF8(static_cast<std::uint32_t>(c), bytes);
  out.append(bytes, count);
}

void AppendAsISO(std::string& out, std::int32_t c) {
  out += (c < 256 && !IsInvalidChar(c)) ? static_cast<char>(c) : '?';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::uint16_t position = input.ConsumeIntegral<std::uint16_t>();
  const std::uint32_t codepoint = input.ConsumeIntegralInRange<std::uint32_t>(0, 0x1FFFFF);
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  const char* text = bytes.c_str();  // ends at the first zero byte

  const CUTF8String utf8(text);
  const CISOString iso(text);

  // The cursor over the same bytes, taken raw, must decode what the
  // construction decoded.
  CUTF8String raw(text, CUTF8String::kUntilZero);
  Require(raw.View() == std::string_view(text), "raw construction keeps the bytes");
  std::string expectUTF8;
  std::string expectISO;
  CTStringCursor<CUTF8Encoding> cursor(raw);
  for (;;) {
    const std::uint64_t before = cursor.GetIndex();
    const std::int32_t peeked = cursor.Peek();
    Require(cursor.GetIndex() == before, "Peek does not move the cursor");
    const std::int32_t c = cursor.Next();
    Require(c == peeked, "Peek and Next agree");
    if (c < 0) break;
    Require(cursor.GetIndex() > before && cursor.GetIndex() <= raw.Size(),
            "Next moves forward and stays inside the text");
    Require(c <= 0x1FFFFF, "decoded values have at most 21 bits");
    AppendAsUTF8(expectUTF8, c);
    AppendAsISO(expectISO, c);
  }
  Require(cursor.Next() == -1, "the end stays the end");
  Require(utf8.View() == expectUTF8, "UTF-8 construction matches the cursor decoding");
  Require(iso.View() == expectISO, "ISO construction matches the cursor decoding");

  // Construction is idempotent on its own output (a decoded zero character
  // ends the text when handed over as a C string).
  if (utf8.View().find('\0') == std::string_view::npos) {
    Require(CUTF8String(utf8.c_str()) == utf8, "UTF-8 output decodes to itself");
    Require(CISOString(utf8.c_str()) == iso, "ISO of the UTF-8 output is the same ISO text");
  }
  // (An empty string is smaller than any non-empty text, even one that
  // decodes to nothing, such as a lone lead byte.)
  Require(utf8.IsEmpty() || utf8.Compare(text) == 0, "a string equals the text it was made from");
  if (iso.View().find('\0') == std::string_view::npos) {
    const CUTF8String back = ToUTF8(iso);
    Require(iso.Compare(back.c_str()) == 0, "an ISO string equals its own UTF-8 form");
    Require(CISOString(back.c_str()) == iso, "ISO survives the way through UTF-8");
  }

  // ISO cursors hand out bytes.
  CISOString isoCopy = iso;
  CTStringCursor<CISOEncoding> isoCursor(isoCopy);
  for (const char b : iso.View()) {
    Require(isoCursor.Next() == static_cast<unsigned char>(b), "ISO cursor reads bytes");
  }
  Require(isoCursor.Next() == -1, "ISO cursor ends");

  // Tails: a shared copy at 0, the rest of the bytes elsewhere.
  const std::uint64_t index = raw.Size() == 0 ? 0 : position % (raw.Size() + 1);
  const CUTF8String tail = raw.Tail(CTStringCursor<CUTF8Encoding>(raw, index));
  Require(tail.View() == raw.View().substr(index), "tail holds the bytes from the cursor on");
  if (index == 0 && !raw.IsEmpty())
    Require(tail.GetBuffer() == raw.GetBuffer(), "tail at 0 shares");
  CUTF8String other;
  Require(raw.Tail(CTStringCursor<CUTF8Encoding>(other, 0)).IsEmpty(),
          "a cursor on another string gives an empty tail");

  // Insertion into a copy leaves the original alone.
  CUTF8String copy = utf8;
  const std::uint64_t at = utf8.Size() == 0 ? 0 : position % (utf8.Size() + 1);
  CTStringCursor<CUTF8Encoding> inserter(copy, at);
  inserter.Insert(codepoint);
  std::string encoded;
  AppendAsUTF8(encoded, static_cast<std::int32_t>(codepoint));
  Require(inserter.GetIndex() == at + encoded.size(), "the cursor moves past the insertion");
  std::string expectInserted(utf8.View());
  expectInserted.insert(at, encoded);
  Require(copy.View() == expectInserted, "insertion puts the encoded bytes at the cursor");
  Require(utf8.View() == expectUTF8, "the shared original is unchanged");

  // Concatenation decodes its right side like construction.
  const CISOString joined = iso + text;
  Require(joined.View() == std::string(iso.View()) + std::string(iso.View()),
          "ISO concatenation decodes like construction");
  return 0;
}
