#include "common/formats/JSONReader.h"

#include <array>
#include <climits>
#include <cstring>
#include <cwctype>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/base/CharClasses.h"
#include "common/formats/CJSPool.h"
#include "common/formats/CSharedTexts.h"

namespace zelph {

namespace {

CJSValuePtr NullValue() noexcept {
  return CJSValuePtr(&GetJSNull());
}

// Byte classes: ASCII white space, and the bytes a string takes as they
// stand (ASCII other than the quote, the backslash and the line feed).
constexpr unsigned char kSpaceByte = 1;
constexpr unsigned char kPlainStringByte = 2;

constexpr std::array<unsigned char, 256> MakeByteClasses() {
  std::array<unsigned char, 256> classes{};
  for (int c = 0; c < 128; ++c) {
    unsigned char bits = 0;
    if (IsAsciiSpace(c)) bits |= kSpaceByte;
    if (c != '"' && c != '\\' && c != '\n') bits |= kPlainStringByte;
    classes[static_cast<std::size_t>(c)] = bits;
  }
  return classes;
}
constexpr std::array<unsigned char, 256> kByteClasses = MakeByteClasses();

bool IsPlainStringByte(char b) noexcept {
  return (kByteClasses[static_cast<unsigned char>(b)] & kPlainStringByte) != 0;
}

// White space as iswspace judges the byte taken as a signed value, so bytes
// of multi-byte sequences never count. ASCII white space is the same six
// characters in every locale, so only other bytes need the call.
bool IsSpaceByte(char b) noexcept {
  const auto u = static_cast<unsigned char>(b);
  if (u < 0x80) return (kByteClasses[u] & kSpaceByte) != 0;
  return std::iswspace(static_cast<wint_t>(static_cast<int>(static_cast<signed char>(b)))) != 0;
}

void SkipSpace(const char*& p, const char* end) noexcept {
  while (p < end && IsSpaceByte(*p)) ++p;
}

// Appends the character `c` as a string stores it (UTF-8, "?" for a
// surrogate or U+FFFE).
void AppendUTF8(std::string& out, std::uint32_t c) {
  char bytes[4];
  out.append(bytes, EncodeUTF8(c, bytes));
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

// The run of decimal digits from `digits` to `end` as strtol reads it in
// base 10: saturated at LONG_MAX when too large.
long DecimalValue(const char* digits, const char* end) noexcept {
  unsigned long value = 0;
  for (; digits < end; ++digits) {
    const auto digit = static_cast<unsigned long>(*digits - '0');
    if (value > (static_cast<unsigned long>(LONG_MAX) - digit) / 10) return LONG_MAX;
    value = value * 10 + digit;
  }
  return static_cast<long>(value);
}

}  // namespace

// Reads a document into a tree whose values and small tables lie in one
// pool, owned by the tree's root (the pool's first record). Strings are
// assembled in a scratch buffer that the whole parse reuses, and short ones
// that come again share one buffer, as the keys do.
class CJSTreeBuilder {
 public:
  explicit CJSTreeBuilder(std::size_t textSize) noexcept
      // The values and tables take about three times the bytes of their text.
      : pool_(textSize < (std::size_t{1} << 40) ? 3 * textSize : 0) {}
  CJSTreeBuilder(const CJSTreeBuilder&) = delete;
  CJSTreeBuilder& operator=(const CJSTreeBuilder&) = delete;

  CJSValuePtr Parse(const char*& position, const char* end) {
    std::vector<CFrame> open;
    try {
      return Parse(position, end, open);
    } catch (...) {
      // Inner containers lie in the root's pool: they go first.
      while (!open.empty()) open.pop_back();
      throw;
    }
  }

 private:
  // An open container: an array or an object; `key` is the member whose
  // value is being read.
  struct CFrame {
    CJSValuePtr container;
    CUTF8String key;
  };

  CJSValuePtr Parse(const char*& position, const char* end, std::vector<CFrame>& open) {
    const char* p = position;
    bool expectMember = false;  // else a value is expected
    for (;;) {
      CJSValuePtr value;
      if (expectMember) {
        // Inside an object, before a member or its closing brace.
        CFrame& top = open.back();
        SkipSpace(p, end);
        if (p < end && *p == '}') {
          ++p;
          value = std::move(top.container);
        } else if (p < end && *p == '"') {
          ++p;
          if (ReadKey(p, end, top.key)) {
            SkipSpace(p, end);
            if (p < end && *p == ':') {
              ++p;
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
          if (open.capacity() == 0) open.reserve(16);
          open.push_back({CJSValuePtr(Make<CJSObject>()), {}});
          expectMember = true;
          continue;
        } else if (*p == '[') {
          ++p;
          if (open.capacity() == 0) open.reserve(16);
          open.push_back({CJSValuePtr(Make<CJSArray>()), {}});
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
        CFrame& top = open.back();
        if (top.container->kind_ == CJSValue::Kind::kArray) {
          CJSTable& items = static_cast<CJSArray*>(top.container.get())->items_;
          MakeRoom(items);
          items.items[items.count++] = value.release();
          SkipSpace(p, end);
          // Whatever byte follows is consumed as the separator; only "," goes
          // on. The end of the text ends the array as well.
          if (p < end && *p++ == ',') {
            expectMember = false;
            break;
          }
          value = std::move(top.container);
        } else {
          CJSTable& members = static_cast<CJSObject*>(top.container.get())->members_;
          MakeRoom(members);
          CJSKeyedValue* member = Make<CJSKeyedValue>(std::move(top.key), value.get());
          (void)value.release();
          members.items[members.count++] = member;
          SkipSpace(p, end);
          const char separator = p < end ? *p++ : '\0';
          if (separator == ',') {
            expectMember = true;
            break;
          }
          if (separator == '}') {
            value = std::move(top.container);
          } else {
            value = NullValue();  // the partial object goes with its entry
          }
        }
        open.pop_back();
      }
    }
  }

  // A new value of the pool; the first one owns the pool.
  template <class T, class... Args>
  T* Make(Args&&... args) {
    const bool first = pool_.IsEmpty();
    T* value = new (pool_.Allocate(sizeof(T))) T(std::forward<Args>(args)...);
    value->storage_ = first ? CJSValue::Storage::kPoolRoot : CJSValue::Storage::kPooled;
    return value;
  }

  // Makes room for one more item: small tables grow in the pool (room for
  // 2, then doubling), larger ones move to heap storage of their own, whose
  // old blocks are freed as it grows.
  void MakeRoom(CJSTable& table) {
    if (table.count != table.capacity) return;
    const std::uint64_t grown = table.capacity == 0 ? 2 : 2 * table.capacity;
    if (table.owned || grown > kPooledTableItems) {
      table.MakeRoom();
      return;
    }
    auto** fresh = static_cast<CJSValue**>(pool_.Allocate(grown * sizeof(CJSValue*)));
    if (table.count != 0) std::memcpy(fresh, table.items, table.count * sizeof(CJSValue*));
    table.items = fresh;
    table.capacity = grown;
  }

  // A string whose opening quote has been consumed, up to and including its
  // closing quote. False for an unreadable string.
  bool ReadString(const char*& p, const char* end, CUTF8String& out) {
    // The usual string: plain ASCII up to its closing quote.
    const char* run = p;
    while (p < end && IsPlainStringByte(*p)) ++p;
    if (p < end && *p == '"') {
      out = MakeText({run, static_cast<std::size_t>(p - run)});
      ++p;
      return true;
    }
    scratch_.assign(run, static_cast<std::size_t>(p - run));
    for (;;) {
      // A run of plain ASCII is copied at once; each of its bytes would
      // decode and encode to itself.
      run = p;
      while (p < end && IsPlainStringByte(*p)) ++p;
      if (p != run) scratch_.append(run, static_cast<std::size_t>(p - run));
      if (p >= end || *p == '\n') return false;
      if (*p == '"') {
        ++p;
        out = MakeText(scratch_);
        return true;
      }
      if (*p != '\\') {
        const std::int32_t c = DecodeUTF8(p, end);
        if (c < 0) return false;
        AppendUTF8(scratch_, static_cast<std::uint32_t>(c));
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
          scratch_ += escape;
          break;
        case 'b':
          scratch_ += '\b';
          break;
        case 'f':
          scratch_ += '\f';
          break;
        case 'n':
          scratch_ += '\n';
          break;
        case 'r':
          scratch_ += '\r';
          break;
        case 't':
          scratch_ += '\t';
          break;
        case 'v':
          scratch_ += '\v';
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
          AppendUTF8(scratch_, value);
          break;
        }
        case 'x':
        case 'u': {
          std::uint32_t value = 0;
          bool valid = false;
          if (!ReadHexEscape(p, end, escape == 'x' ? 2 : 4, value, valid)) return false;
          if (valid) AppendUTF8(scratch_, value);
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

  // Reads a member's key, whose opening quote has been consumed, like
  // ReadString. Objects of a document mostly repeat the same few keys, so a
  // key read before hands out its buffer again instead of a new one. Only
  // plain ASCII keys are kept, and only the first few dozen; as the keys
  // of a document's objects mostly come in the same order, the key after
  // the one found last is tried first.
  bool ReadKey(const char*& p, const char* end, CUTF8String& out) {
    const char* q = p;
    while (q < end && IsPlainStringByte(*q)) ++q;
    if (q >= end || *q != '"') return ReadString(p, end, out);
    const std::string_view text(p, static_cast<std::size_t>(q - p));
    p = q + 1;
    for (std::size_t n = 0, i = nextKey_; n < keyCount_; ++n, i = i + 1 == keyCount_ ? 0 : i + 1) {
      if (keys_[i].View() == text) {
        out = keys_[i];
        nextKey_ = i + 1 == keyCount_ ? 0 : i + 1;
        return true;
      }
    }
    out = CUTF8String(text.data(), text.size());
    if (keyCount_ < kMaxKeys) keys_[keyCount_++] = out;
    return true;
  }

  // A scalar (string, boolean, number) or the null value; `p` is at a
  // non-space byte that does not open a container.
  CJSValuePtr ReadScalar(const char*& p, const char* end) {
    if (*p == '"') {
      ++p;
      CUTF8String text;
      if (!ReadString(p, end, text)) return NullValue();
      return CJSValuePtr(Make<CJSString>(text));
    }
    if (end - p >= 4 && std::memcmp(p, "true", 4) == 0) {
      p += 4;
      return CJSValuePtr(Make<CJSBoolean>(true));
    }
    if (end - p >= 5 && std::memcmp(p, "false", 5) == 0) {
      p += 5;
      return CJSValuePtr(Make<CJSBoolean>(false));
    }
    if (*p >= '0' && *p <= '9') {
      const char* start = p;
      while (p < end && *p >= '0' && *p <= '9') ++p;
      // Overflow saturates as strtol does and the result is then cut to 32
      // bits.
      return CJSValuePtr(Make<CJSInteger>(static_cast<std::int32_t>(DecimalValue(start, p))));
    }
    return NullValue();
  }

  // `text` as a string; short ones are shared.
  CUTF8String MakeText(std::string_view text) {
    return text.size() <= kSharedLength ? values_.Get(text) : CUTF8String(text.data(), text.size());
  }

  // Tables up to this many items lie in the pool.
  static constexpr std::uint64_t kPooledTableItems = 64;
  // Strings up to this length are shared: longer ones seldom repeat.
  static constexpr std::size_t kSharedLength = 16;
  static constexpr std::size_t kMaxKeys = 32;

  CJSPool pool_;
  std::string scratch_;
  std::array<CUTF8String, kMaxKeys> keys_;
  std::size_t keyCount_ = 0;
  std::size_t nextKey_ = 0;
  CSharedTexts values_;
};

CJSValuePtr ParseJSON(const char*& position, const char* end) {
  CJSTreeBuilder builder(end > position ? static_cast<std::size_t>(end - position) : 0);
  return builder.Parse(position, end);
}

}  // namespace zelph
