// The library's one string type: a handle to a shared, reference-counted,
// copy-on-write, zero-terminated byte buffer, parameterised by the encoding
// of its bytes. Input text is always UTF-8.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

namespace zelph {

// Encoding tag: the bytes hold UTF-8.
struct CUTF8Encoding {};
// Encoding tag: the bytes hold ISO-8859-1, one byte per character.
struct CISOEncoding {};

// Value the decoders return for an invalid sequence. U+FFFE doubles as the
// marker, so it is never stored as a character.
inline constexpr std::int32_t kInvalidChar = 0xFFFE;

// True for the values that are stored as "?": surrogates and U+FFFE.
constexpr bool IsInvalidChar(std::int64_t c) noexcept {
  return (c >= 0xD800 && c <= 0xDFFF) || c == kInvalidChar;
}

// Decodes one character of zero-terminated UTF-8 text at `p` and moves `p`
// past it. Returns -1 at the end of the text; a sequence cut off by the
// terminator also ends the text (nothing is produced and `p` is left on the
// terminator). An out-of-range continuation byte or an invalid lead byte
// gives kInvalidChar; a bad sequence is consumed with all the continuation
// bytes its lead byte announced. Overlong forms and values up to 0x1FFFFF
// are accepted; surrogates and U+FFFE are returned as they are (callers
// test them with IsInvalidChar).
std::int32_t DecodeUTF8(const char*& p) noexcept;

// Classifies a UTF-8 lead byte: the number of continuation bytes it
// announces and its payload bits. False for a byte that cannot start a
// sequence (0x80-0xBF, 0xF8-0xFF); bytes below 0x80 are not lead bytes.
inline bool ReadUTF8Lead(unsigned lead, int& extra, std::uint32_t& value) noexcept {
  if (lead >= 0xC0 && lead <= 0xDF) {
    extra = 1;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    extra = 2;
    value = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF7) {
    extra = 3;
    value = lead & 0x07;
  } else {
    return false;
  }
  return true;
}

// Decodes one character of the UTF-8 bytes from `p` up to `end` and moves `p`
// past it, as a string cursor reads: -1 at the end, also for a sequence that
// `end` cuts off (`p` is then left where the end was met); kInvalidChar for a
// bad sequence, which is consumed with all the continuation bytes its lead
// byte announced, or for an invalid lead byte, which is consumed alone.
// Overlong forms and values up to 0x1FFFFF are accepted, as above.
inline std::int32_t DecodeUTF8(const char*& p, const char* end) noexcept {
  if (p >= end) return -1;
  const unsigned lead = static_cast<unsigned char>(*p++);
  if (lead < 0x80) return static_cast<std::int32_t>(lead);
  int extra = 0;
  std::uint32_t value = 0;
  if (!ReadUTF8Lead(lead, extra, value)) return kInvalidChar;
  bool bad = false;
  for (int k = 0; k < extra; ++k) {
    if (p >= end) return -1;
    const unsigned c = static_cast<unsigned char>(*p++);
    if ((c & 0xC0) != 0x80) bad = true;
    value = (value << 6) | (c & 0x3F);
  }
  return bad ? kInvalidChar : static_cast<std::int32_t>(value);
}

// Decodes the character at byte `i` of the text `d`, which ends at byte
// `end`, and moves `i` past it, as DecodeUTF8 above; -1 for no text.
inline std::int32_t DecodeUTF8At(const unsigned char* d, std::uint64_t end, std::uint64_t& i) noexcept {
  if (d == nullptr) return -1;
  const char* text = reinterpret_cast<const char*>(d);
  const char* p = text + i;
  const std::int32_t c = DecodeUTF8(p, text + end);
  i = static_cast<std::uint64_t>(p - text);
  return c;
}

// Encodes `codepoint` as UTF-8 into `out` and returns the byte count (1-4).
// A surrogate or U+FFFE is encoded as "?". Values above 0x1FFFFF keep only
// their low 21 bits.
unsigned EncodeUTF8(std::uint32_t codepoint, char (&out)[4]) noexcept;

// The shared heap record behind a string. Fields are public so that tests can
// observe the growth rule and sharing; only CTString changes them.
struct CTStringBuffer {
  char* data = nullptr;         // null only while nothing was ever stored
  std::uint64_t length = 0;     // bytes in use, including the terminator
  std::uint64_t capacity = 0;   // bytes allocated for data
  std::int32_t references = 0;  // handles sharing this record

  CTStringBuffer() noexcept = default;
  CTStringBuffer(const CTStringBuffer&) = delete;
  CTStringBuffer& operator=(const CTStringBuffer&) = delete;
  ~CTStringBuffer() { delete[] data; }

  // Sets length to `n`, growing the allocation to n + (capacity + 1) / 2 when
  // it is too small (exactly n for the first allocation). Never shrinks.
  void SetLength(std::uint64_t n);
  // Returns a new record (references 0) holding a copy of `source`'s bytes,
  // with capacity exactly the copied length.
  static CTStringBuffer* Copy(const CTStringBuffer& source);
  // Sets length `n` and copies `n` bytes from `bytes`; a null `bytes` frees
  // the array and zeroes data, length and capacity.
  void StoreBytes(const char* bytes, std::uint64_t n);
  // Inserts `n` bytes at character index `index` (at most length - 1). An
  // unallocated buffer becomes the `n` bytes plus a terminator. `bytes` must
  // not point into this buffer.
  void InsertBytes(std::uint64_t index, const char* bytes, std::uint64_t n);
  // Inserts one byte at `index`.
  void InsertByte(std::uint64_t index, char byte) { InsertBytes(index, &byte, 1); }
  // Removes `n` bytes at `index`; the allocation stays.
  void EraseBytes(std::uint64_t index, std::uint64_t n) noexcept;
};

template <class E>
class CTStringCursor;

// String of encoding `E`. A null handle is the empty string. Copies share the
// buffer; the first change to a shared buffer makes a private copy. A string
// and its copies belong to one thread at a time.
template <class E>
class CTString {
 public:
  // Count meaning "up to the first zero byte" for the raw constructor.
  static constexpr std::uint64_t kUntilZero = ~std::uint64_t{0};

  // The empty string (null handle).
  CTString() noexcept = default;
  // Decodes zero-terminated UTF-8 text character by character and stores
  // each character in this encoding; invalid sequences, surrogates, U+FFFE
  // and (for ISO) characters of 256 and above become "?". Null or "" give
  // the empty string. Implicit so that literals can be passed as strings.
  CTString(const char* utf8);  // NOLINT(google-explicit-constructor)
  // Copies `count` bytes as they are (zero bytes included), or up to the
  // first zero byte for kUntilZero. A null `bytes` gives the empty string.
  CTString(const char* bytes, std::uint64_t count);
  // Copies share the buffer: one counter increment. These and the accessors
  // below are inline, as the readers call them in their loops.
  CTString(const CTString& other) noexcept : buffer_(other.buffer_) {
    if (buffer_ != nullptr) ++buffer_->references;
  }
  CTString(CTString&& other) noexcept : buffer_(other.buffer_) { other.buffer_ = nullptr; }
  CTString& operator=(const CTString& other) noexcept {
    if (buffer_ == other.buffer_) return *this;
    if (other.buffer_ != nullptr) ++other.buffer_->references;
    Release();
    buffer_ = other.buffer_;
    return *this;
  }
  CTString& operator=(CTString&& other) noexcept {
    if (this != &other) {
      Release();
      buffer_ = other.buffer_;
      other.buffer_ = nullptr;
    }
    return *this;
  }
  ~CTString() { Release(); }

  // True when the string holds no character bytes.
  bool IsEmpty() const noexcept { return Size() == 0; }
  // Number of character bytes (without the terminator); 0 for the null string.
  std::uint64_t Size() const noexcept {
    return buffer_ != nullptr && buffer_->length > 0 ? buffer_->length - 1 : 0;
  }
  // The zero-terminated bytes; "" for the null string, never null. Valid until
  // the next change to this string.
  const char* c_str() const noexcept {
    return buffer_ != nullptr && buffer_->data != nullptr ? buffer_->data : "";
  }
  // The character bytes as a view (embedded zero bytes included).
  std::string_view View() const noexcept { return {c_str(), Size()}; }

  // Makes the buffer private to this handle and returns its bytes for
  // writing in place; null for the null string.
  char* GetWritable();
  // Makes the string the null string.
  void Clear() noexcept { Release(); }

  // A copy of this string (sharing its buffer) followed by the decoded
  // characters of `utf8`.
  CTString operator+(const char* utf8) const;
  // A copy of this string followed by the bytes of `other`.
  CTString operator+(const CTString& other) const;
  // Appends the decoded characters of zero-terminated UTF-8 text.
  CTString& operator+=(const char* utf8);
  // Appends the bytes of `other` as they are (sharing them when this string
  // is empty).
  CTString& operator+=(const CTString& other);
  // Appends one character: UTF-8 encodes it ("?" for a surrogate or U+FFFE);
  // ISO stores the byte, or "?" for values of 256 and above.
  void AppendChar(std::uint32_t codepoint);
  // Appends `count` raw bytes. `bytes` must not point into this string.
  void AppendBytes(const char* bytes, std::uint64_t count);

  // Three-way comparison with zero-terminated UTF-8 text: -1, 0 or +1.
  // Null/empty against null/empty is 0, empty against non-empty text -1,
  // non-empty against null text +1; otherwise character by character
  // (ISO: each byte against the next decoded character; UTF-8: both sides
  // decoded, invalid characters of either side counting as "?"), the shorter
  // side being smaller. Exact, case-sensitive.
  int Compare(const char* utf8) const noexcept;

  // The text from `cursor` to the end: empty when the cursor names another
  // string or stands at or past the end; a shared copy when it is at 0.
  CTString Tail(const CTStringCursor<E>& cursor) const;

  // Test-only: the shared record, null for the null string, so that tests
  // can see sharing and the growth rule. Nothing in the library calls it.
  const CTStringBuffer* GetBuffer() const noexcept { return buffer_; }

  // True when both strings hold the same bytes (null equals "").
  friend bool operator==(const CTString& a, const CTString& b) noexcept {
    return a.View() == b.View();
  }
  // Byte-wise order, so that strings can key ordered containers.
  friend std::strong_ordering operator<=>(const CTString& a, const CTString& b) noexcept {
    return a.View() <=> b.View();
  }

 private:
  friend class CTStringCursor<E>;

  // Ensures this handle owns a buffer no other handle shares (creating an
  // empty one for the null string) and returns it.
  CTStringBuffer& MakeOwnBuffer();
  // Inserts raw bytes at `index` into the string.
  void InsertBytes(std::uint64_t index, const char* bytes, std::uint64_t count);
  // Drops this handle's reference.
  void Release() noexcept {
    if (buffer_ != nullptr && --buffer_->references <= 0) delete buffer_;
    buffer_ = nullptr;
  }

  CTStringBuffer* buffer_ = nullptr;
};

// Reads a string character by character and inserts characters into it. A
// plain value naming one string; it stays valid while that string lives.
template <class E>
class CTStringCursor {
 public:
  // A cursor on `s` at byte index `index`.
  explicit CTStringCursor(CTString<E>& s, std::uint64_t index = 0) noexcept
      : string_(&s), index_(index) {}

  // Returns the character at the cursor and moves past it; -1 at the end.
  // UTF-8: kInvalidChar (65534) for an invalid sequence, which is skipped
  // with all its expected continuation bytes; a sequence cut off by the end
  // of the text reads as the end. ISO: the byte 0-255.
  std::int32_t Next() noexcept;
  // Like Next without moving the cursor.
  std::int32_t Peek() const noexcept;
  // Inserts `codepoint` (encoded as by CTString::AppendChar) at the cursor
  // into its string and moves the cursor past it. An index past the end
  // inserts at the end.
  void Insert(std::uint32_t codepoint);

  // Byte index into the string's data.
  std::uint64_t GetIndex() const noexcept { return index_; }
  void SetIndex(std::uint64_t index) noexcept { index_ = index; }
  // The string this cursor walks.
  const CTString<E>* GetString() const noexcept { return string_; }

 private:
  CTString<E>* string_;
  std::uint64_t index_;
};

using CUTF8String = CTString<CUTF8Encoding>;
using CISOString = CTString<CISOEncoding>;

// The ISO-8859-1 text `iso` as UTF-8 (each byte becomes one character).
CUTF8String ToUTF8(const CISOString& iso);

extern template class CTString<CUTF8Encoding>;
extern template class CTString<CISOEncoding>;
extern template class CTStringCursor<CUTF8Encoding>;
extern template class CTStringCursor<CISOEncoding>;

}  // namespace zelph
