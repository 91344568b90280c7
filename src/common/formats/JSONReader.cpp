#include "common/formats/JSONReader.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/base/CharClasses.h"

namespace zelph {

namespace {

CJSValuePtr NullValue() noexcept {
  return CJSValuePtr(&GetJSNull());
}

// White space as iswspace judges the byte taken as a signed value, so bytes
// of multi-byte sequences never count. ASCII white space is the same six
// characters in every locale, so only other bytes need the call.
bool IsSpaceByte(char b) noexcept {
  if (IsAsciiSpace(b)) return true;
  if (static_cast<unsigned char>(b) < 0x80) return false;
  return std::iswspace(static_cast<wint_t>(static_cast<int>(static_cast<signed char>(b)))) != 0;
}

// A byte a string takes as it stands: ASCII other than the quote, the
// backslash and the line feed.
bool IsPlainStringByte(char b) noexcept {
  return static_cast<unsigned char>(b) < 0x80 && b != '"' && b != '\\' && b != '\n';
}

void SkipSpace(const char*& p, const char* end) noexcept {
  while (p < end && IsSpaceByte(*p)) ++p;
}

// Reads `count` hexadecimal digits at `p` into `value`. False when fewer
// than `count` bytes are left; otherwise the bytes are consumed and
// `valid` tells whether they were all digits.
bool ReadHexEscape(const char*& p, const char* end, int count, std::uint32_t& value,
                   bool& valid) noexcept {
  if (end - p < count) return false;
  value = 0;
  valid = true;
  for (int k = 0; k < count; ++k) {
    const int digit = HexDigitValue(p[k]);
    if (digit < 0) valid = false;
    value = value * 16 + static_cast<std::uint32_t>(digit < 0 ? 0 : digit);
  }
  p += count;
  return true;
}

// Reads a string whose opening quote has been consumed, up to and including
// its closing quote. False for an unreadable string.
bool ReadString(const char*& p, const char* end, CUTF8String& out) {
  for (;;) {
    // A run of plain ASCII is copied at once; each of its bytes would decode
    // and encode to itself.
    const char* run = p;
    while (p < end && IsPlainStringByte(*p)) ++p;
    if (p != run) out.AppendBytes(run, static_cast<std::uint64_t>(p - run));
    if (p >= end || *p == '\n') return false;
    if (*p == '"') {
      ++p;
      return true;
    }
    if (*p != '\\') {
      const std::int32_t c = DecodeUTF8(p, end);
      if (c < 0) return false;
      out.AppendChar(static_cast<std::uint32_t>(c));
      continue;
    }
    ++p;
    if (p >= end) return false;
    const char escape = *p++;
    switch (escape) {
      case '\n':  // line continuation: LF, LF CR
        if (p < end && *p == '\r') ++p;
        break;
      case '\r':  // line continuation: CR, CR LF
        if (p < end && *p == '\n') ++p;
        break;
      case '"':
      case '\'':
      case '\\':
        out.AppendChar(static_cast<unsigned char>(escape));
        break;
      case 'b':
        out.AppendChar('\b');
        break;
      case 'f':
        out.AppendChar('\f');
        break;
      case 'n':
        out.AppendChar('\n');
        break;
      case 'r':
        out.AppendChar('\r');
        break;
      case 't':
        out.AppendChar('\t');
        break;
      case 'v':
        out.AppendChar('\v');
        break;
      case '0':
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7': {
        std::uint32_t value = static_cast<std::uint32_t>(escape - '0');
        for (int k = 1; k < 3 && p < end && *p >= '0' && *p <= '7'; ++k) {
          value = value * 8 + static_cast<std::uint32_t>(*p++ - '0');
        }
        out.AppendChar(value);
        break;
      }
      case 'x':
      case 'u': {
        std::uint32_t value = 0;
        bool valid = false;
        if (!ReadHexEscape(p, end, escape == 'x' ? 2 : 4, value, valid)) return false;
        if (valid) out.AppendChar(value);
        break;
      }
      default:
        // The backslash goes, and so does the whole character behind it.
        --p;
        DecodeUTF8(p, end);
        break;
    }
  }
}

// A scalar (string, boolean, number) or the null value; `p` is at a
// non-space byte that does not open a container.
CJSValuePtr ReadScalar(const char*& p, const char* end) {
  if (*p == '"') {
    ++p;
    CUTF8String text;
    if (!ReadString(p, end, text)) return NullValue();
    return std::make_unique<CJSString>(text);
  }
  if (end - p >= 4 && std::memcmp(p, "true", 4) == 0) {
    p += 4;
    return std::make_unique<CJSBoolean>(true);
  }
  if (end - p >= 5 && std::memcmp(p, "false", 5) == 0) {
    p += 5;
    return std::make_unique<CJSBoolean>(false);
  }
  if (*p >= '0' && *p <= '9') {
    const char* start = p;
    while (p < end && *p >= '0' && *p <= '9') ++p;
    // strtol needs a terminated copy; overflow saturates as strtol does and
    // the result is then cut to 32 bits.
    const std::string digits(start, p);
    const long number = std::strtol(digits.c_str(), nullptr, 10);
    return std::make_unique<CJSInteger>(static_cast<std::int32_t>(number));
  }
  return NullValue();
}

// An open container on the reader's stack: exactly one of `array` and
// `object` is set; `key` is the member whose value is being read.
struct CContainer {
  std::unique_ptr<CJSArray> array;
  std::unique_ptr<CJSObject> object;
  CUTF8String key;
};

// The keys of one document. Objects of a document mostly repeat the same
// few keys, so a key read before hands out its buffer again instead of a new
// one. Only plain ASCII keys are kept, and only the first few dozen.
class CKeyCache {
 public:
  // Reads a member's key, whose opening quote has been consumed, like
  // ReadString.
  bool ReadKey(const char*& p, const char* end, CUTF8String& out) {
    const char* q = p;
    while (q < end && IsPlainStringByte(*q)) ++q;
    if (q >= end || *q != '"') return ReadString(p, end, out);
    const std::string_view text(p, static_cast<std::size_t>(q - p));
    p = q + 1;
    for (std::size_t i = 0; i < count_; ++i) {
      if (keys_[i].View() == text) {
        out = keys_[i];
        return true;
      }
    }
    out = CUTF8String(text.data(), text.size());
    if (count_ < kMaxKeys) keys_[count_++] = out;
    return true;
  }

 private:
  static constexpr std::size_t kMaxKeys = 32;
  std::array<CUTF8String, kMaxKeys> keys_;
  std::size_t count_ = 0;
};

}  // namespace

CJSValuePtr ParseJSON(const char*& position, const char* end) {
  const char* p = position;
  CKeyCache keys;
  std::vector<CContainer> open;
  bool expectMember = false;  // else a value is expected
  for (;;) {
    CJSValuePtr value;
    if (expectMember) {
      // Inside an object, before a member or its closing brace.
      CContainer& top = open.back();
      SkipSpace(p, end);
      if (p < end && *p == '}') {
        ++p;
        value = std::move(top.object);
      } else if (p < end && *p == '"') {
        ++p;
        CUTF8String key;
        if (keys.ReadKey(p, end, key)) {
          SkipSpace(p, end);
          if (p < end && *p == ':') {
            ++p;
            top.key = key;
            expectMember = false;
            continue;
          }
        }
        value = NullValue();
      } else {
        value = NullValue();
      }
      open.pop_back();
    } else {
      SkipSpace(p, end);
      if (p >= end) {
        value = NullValue();
      } else if (*p == '{') {
        ++p;
        open.push_back({nullptr, std::make_unique<CJSObject>(), {}});
        expectMember = true;
        continue;
      } else if (*p == '[') {
        ++p;
        open.push_back({std::make_unique<CJSArray>(), nullptr, {}});
        continue;
      } else {
        value = ReadScalar(p, end);
      }
    }

    // Hand the finished value to the containers it completes.
    for (;;) {
      if (open.empty()) {
        position = p;
        return value;
      }
      CContainer& top = open.back();
      if (top.array) {
        top.array->Append(std::move(value));
        SkipSpace(p, end);
        // Whatever byte follows is consumed as the separator; only "," goes
        // on. The end of the text ends the array as well.
        if (p < end && *p++ == ',') {
          expectMember = false;
          break;
        }
        value = std::move(top.array);
      } else {
        top.object->Append(top.key, std::move(value));
        SkipSpace(p, end);
        const char separator = p < end ? *p++ : '\0';
        if (separator == ',') {
          expectMember = true;
          break;
        }
        if (separator == '}') {
          value = std::move(top.object);
        } else {
          value = NullValue();  // the partial object goes with its entry
        }
      }
      open.pop_back();
    }
  }
}

}  // namespace zelph
