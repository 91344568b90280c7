#include "common/base/CTString.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>

namespace zelph {

namespace {

template <class E>
constexpr bool kIsUTF8 = std::is_same_v<E, CUTF8Encoding>;

// The character as it is stored in a UTF-8 string: invalid values read as "?".
std::int32_t AsStored(std::int32_t c) noexcept {
  return IsInvalidChar(c) ? '?' : c;
}

}  // namespace

std::int32_t DecodeUTF8(const char*& p) noexcept {
  const auto* s = reinterpret_cast<const unsigned char*>(p);
  if (s == nullptr || *s == 0) return -1;
  const unsigned lead = *s++;
  if (lead < 0x80) {
    p = reinterpret_cast<const char*>(s);
    return static_cast<std::int32_t>(lead);
  }
  int extra = 0;
  std::uint32_t value = 0;
  if (!ReadUTF8Lead(lead, extra, value)) {
    p = reinterpret_cast<const char*>(s);
    return kInvalidChar;
  }
  bool bad = false;
  for (int k = 0; k < extra; ++k) {
    const unsigned c = *s;
    if (c == 0) {
      // A sequence cut off by the terminator ends the whole input.
      p = reinterpret_cast<const char*>(s);
      return -1;
    }
    ++s;
    if ((c & 0xC0) != 0x80) bad = true;
    value = (value << 6) | (c & 0x3F);
  }
  p = reinterpret_cast<const char*>(s);
  return bad ? kInvalidChar : static_cast<std::int32_t>(value);
}

unsigned EncodeUTF8(std::uint32_t codepoint, char (&out)[4]) noexcept {
  const std::uint32_t c = codepoint;
  if (IsInvalidChar(c)) {
    out[0] = '?';
    return 1;
  }
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    return 1;
  }
  if (c < 0x800) {
    out[0] = static_cast<char>(0xC0 | (c >> 6));
    out[1] = static_cast<char>(0x80 | (c & 0x3F));
    return 2;
  }
  if (c < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (c >> 12));
    out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (c & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | ((c >> 18) & 0x07));
  out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (c & 0x3F));
  return 4;
}

// ---------------------------------------------------------------------------
// CTStringBuffer

void CTStringBuffer::SetLength(std::uint64_t n) {
  if (capacity >= n) {
    length = n;
    return;
  }
  if (data == nullptr) {
    data = new char[n];
    capacity = n;
  } else {
    const std::uint64_t grown = n + (capacity + 1) / 2;
    char* fresh = new char[grown];
    std::memcpy(fresh, data, length);
    delete[] data;
    data = fresh;
    capacity = grown;
  }
  length = n;
}

CTStringBuffer* CTStringBuffer::Copy(const CTStringBuffer& source) {
  auto copy = std::make_unique<CTStringBuffer>();
  if (source.data != nullptr) {
    copy->SetLength(source.length);
    std::memcpy(copy->data, source.data, source.length);
  }
  return copy.release();
}

void CTStringBuffer::StoreBytes(const char* bytes, std::uint64_t n) {
  if (bytes == nullptr) {
    delete[] data;
    data = nullptr;
    length = 0;
    capacity = 0;
    return;
  }
  SetLength(n);
  std::memcpy(data, bytes, n);
}

void CTStringBuffer::InsertBytes(std::uint64_t index, const char* bytes, std::uint64_t n) {
  if (length == 0) {
    SetLength(n + 1);
    std::memcpy(data, bytes, n);
    data[n] = 0;
    return;
  }
  const std::uint64_t old = length;
  index = std::min(index, old - 1);
  SetLength(old + n);
  std::memmove(data + index + n, data + index, old - index);
  std::memcpy(data + index, bytes, n);
}

void CTStringBuffer::EraseBytes(std::uint64_t index, std::uint64_t n) noexcept {
  if (length == 0 || index >= length - 1) return;
  n = std::min(n, length - 1 - index);
  std::memmove(data + index, data + index + n, length - index - n);
  length -= n;
}

// ---------------------------------------------------------------------------
// CTString

template <class E>
CTString<E>::CTString(const char* utf8) {
  try {
    *this += utf8;
  } catch (...) {
    Release();
    throw;
  }
}

template <class E>
CTString<E>::CTString(const char* bytes, std::uint64_t count) {
  if (bytes == nullptr) return;
  const std::uint64_t n = count == kUntilZero ? std::strlen(bytes) : count;
  auto record = std::make_unique<CTStringBuffer>();
  record->SetLength(n + 1);
  std::memcpy(record->data, bytes, n);
  record->data[n] = 0;
  record->references = 1;
  buffer_ = record.release();
}

template <class E>
CTStringBuffer& CTString<E>::MakeOwnBuffer() {
  if (buffer_ == nullptr) {
    buffer_ = new CTStringBuffer();
    buffer_->references = 1;
  } else if (buffer_->references > 1) {
    CTStringBuffer* copy = CTStringBuffer::Copy(*buffer_);
    copy->references = 1;
    --buffer_->references;
    buffer_ = copy;
  }
  return *buffer_;
}

template <class E>
char* CTString<E>::GetWritable() {
  if (buffer_ == nullptr) return nullptr;
  return MakeOwnBuffer().data;
}

template <class E>
void CTString<E>::InsertBytes(std::uint64_t index, const char* bytes, std::uint64_t count) {
  if (count == 0) return;
  MakeOwnBuffer().InsertBytes(std::min(index, Size()), bytes, count);
}

template <class E>
void CTString<E>::AppendBytes(const char* bytes, std::uint64_t count) {
  InsertBytes(Size(), bytes, count);
}

template <class E>
void CTString<E>::AppendChar(std::uint32_t codepoint) {
  if constexpr (kIsUTF8<E>) {
    char bytes[4];
    const unsigned n = EncodeUTF8(codepoint, bytes);
    AppendBytes(bytes, n);
  } else {
    const char byte = codepoint < 256 ? static_cast<char>(codepoint) : '?';
    AppendBytes(&byte, 1);
  }
}

template <class E>
CTString<E>& CTString<E>::operator+=(const char* utf8) {
  const char* p = utf8;
  for (std::int32_t c = DecodeUTF8(p); c >= 0; c = DecodeUTF8(p)) {
    AppendChar(static_cast<std::uint32_t>(c));
  }
  return *this;
}

template <class E>
CTString<E>& CTString<E>::operator+=(const CTString& other) {
  if (other.IsEmpty()) return *this;
  if (IsEmpty()) return *this = other;
  // Holding a reference keeps the source bytes alive and unshared with the
  // buffer about to be written, also when `other` is this very string.
  const CTString keep(other);
  AppendBytes(keep.c_str(), keep.Size());
  return *this;
}

template <class E>
CTString<E> CTString<E>::operator+(const char* utf8) const {
  CTString result(*this);
  result += utf8;
  return result;
}

template <class E>
CTString<E> CTString<E>::operator+(const CTString& other) const {
  CTString result(*this);
  result += other;
  return result;
}

template <class E>
int CTString<E>::Compare(const char* utf8) const noexcept {
  if (IsEmpty()) return utf8 != nullptr && *utf8 != 0 ? -1 : 0;
  if (utf8 == nullptr) return 1;
  const char* p = utf8;
  const auto* d = reinterpret_cast<const unsigned char*>(buffer_->data);
  const std::uint64_t end = Size();
  std::uint64_t i = 0;
  for (;;) {
    std::int32_t mine = -1;
    if constexpr (kIsUTF8<E>) {
      mine = DecodeUTF8At(d, end, i);
      if (mine >= 0) mine = AsStored(mine);
    } else {
      if (i < end) mine = d[i++];
    }
    std::int32_t theirs = DecodeUTF8(p);
    if (mine < 0) return theirs < 0 ? 0 : -1;
    if (theirs < 0) return 1;
    if constexpr (kIsUTF8<E>) theirs = AsStored(theirs);
    if (mine != theirs) return mine < theirs ? -1 : 1;
  }
}

template <class E>
CTString<E> CTString<E>::Tail(const CTStringCursor<E>& cursor) const {
  if (IsEmpty() || cursor.GetString() != this || cursor.GetIndex() >= Size()) return {};
  if (cursor.GetIndex() == 0) return *this;
  return CTString(buffer_->data + cursor.GetIndex(), Size() - cursor.GetIndex());
}

// ---------------------------------------------------------------------------
// CTStringCursor

template <class E>
std::int32_t CTStringCursor<E>::Next() noexcept {
  const CTStringBuffer* b = string_->buffer_;
  if (b == nullptr) return -1;
  const auto* d = reinterpret_cast<const unsigned char*>(b->data);
  const std::uint64_t end = string_->Size();
  if constexpr (kIsUTF8<E>) {
    return DecodeUTF8At(d, end, index_);
  } else {
    if (d == nullptr || index_ >= end) return -1;
    return d[index_++];
  }
}

template <class E>
std::int32_t CTStringCursor<E>::Peek() const noexcept {
  CTStringCursor copy(*this);
  return copy.Next();
}

template <class E>
void CTStringCursor<E>::Insert(std::uint32_t codepoint) {
  char bytes[4];
  unsigned n = 1;
  if constexpr (kIsUTF8<E>) {
    n = EncodeUTF8(codepoint, bytes);
  } else {
    bytes[0] = codepoint < 256 ? static_cast<char>(codepoint) : '?';
  }
  const std::uint64_t at = std::min(index_, string_->Size());
  string_->InsertBytes(at, bytes, n);
  index_ = at + n;
}

CUTF8String ToUTF8(const CISOString& iso) {
  CUTF8String result;
  for (const char c : iso.View()) result.AppendChar(static_cast<unsigned char>(c));
  return result;
}

template class CTString<CUTF8Encoding>;
template class CTString<CISOEncoding>;
template class CTStringCursor<CUTF8Encoding>;
template class CTStringCursor<CISOEncoding>;

}  // namespace zelph
