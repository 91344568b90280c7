#include "common/base/CTFmtArgs.h"

#include <cstdio>
#include <new>
#include <string>
#include <string_view>

namespace zelph {

namespace {

// Most pointers an argument table may hold.
constexpr std::uint64_t kMaxArgs = (std::uint64_t{1} << 60) - 1;

// True when `conversion` is a printf integer conversion without its "%":
// flags, width, precision and length modifiers, then one conversion letter. Anything
// else ("s", "n", "*", a second "%") would make snprintf read or write
// memory the argument does not provide.
bool IsIntegerConversion(std::string_view conversion) noexcept {
  if (conversion.empty()) return false;
  if (std::string_view("diouxXc").find(conversion.back()) == std::string_view::npos) return false;
  conversion.remove_suffix(1);
  return conversion.find_first_not_of("-+ #0123456789.hlqjzt") == std::string_view::npos;
}

}  // namespace

// ---------------------------------------------------------------------------
// CTIntFmtArg

template <class E, class T>
CTString<E> CTIntFmtArg<E, T>::GetText() const {
  char digits[24];
  char* const end = digits + sizeof digits;
  char* p = end;
  T v = value_;
  // Digits come from the value as it is, so the most negative int needs no
  // negation.
  do {
    T digit = v % 10;
    if constexpr (std::is_signed_v<T>) digit = digit < 0 ? -digit : digit;
    *--p = static_cast<char>('0' + digit);
    v /= 10;
  } while (v != 0);
  if constexpr (std::is_signed_v<T>) {
    if (value_ < 0) *--p = '-';
  }
  return CTString<E>(p, static_cast<std::uint64_t>(end - p));
}

template <class E, class T>
CTString<E> CTIntFmtArg<E, T>::GetText(const CTString<E>& conversion) const {
  if (!IsIntegerConversion(conversion.View())) return GetText();
  const std::string format = "%" + std::string(conversion.View());
  char text[40] = {};
  // A limit of 39 keeps at most 38 characters.
  std::snprintf(text, 39, format.c_str(), value_);
  return CTString<E>(text, CTString<E>::kUntilZero);
}

// ---------------------------------------------------------------------------
// CTFmtArgs

template <class E>
CTFmtArgs<E>::CFmtArgList::~CFmtArgList() {
  for (std::uint64_t i = 0; i < count; ++i) delete table[i];
  delete[] table;
}

namespace {

// Makes room for `n` pointers in `list`, growing like a string buffer.
template <class List>
void Reserve(List& list, std::uint64_t n) {
  if (list.capacity >= n) return;
  const std::uint64_t grown = list.capacity == 0 ? n : n + (list.capacity + 1) / 2;
  if (n > kMaxArgs || grown > kMaxArgs) throw std::bad_array_new_length();
  auto* table = new std::remove_pointer_t<decltype(list.table)>[grown];
  for (std::uint64_t i = 0; i < list.count; ++i) table[i] = list.table[i];
  delete[] list.table;
  list.table = table;
  list.capacity = grown;
}

}  // namespace

template <class E>
CTFmtArgs<E>::CTFmtArgs(const CTFmtArgs& other) noexcept : record_(other.record_) {
  if (record_ != nullptr) record_->AddRef();
}

template <class E>
CTFmtArgs<E>::CTFmtArgs(CTFmtArgs&& other) noexcept : record_(other.record_) {
  other.record_ = nullptr;
}

template <class E>
CTFmtArgs<E>& CTFmtArgs<E>::operator=(const CTFmtArgs& other) noexcept {
  if (record_ == other.record_) return *this;
  if (other.record_ != nullptr) other.record_->AddRef();
  if (record_ != nullptr) record_->Release();
  record_ = other.record_;
  return *this;
}

template <class E>
CTFmtArgs<E>& CTFmtArgs<E>::operator=(CTFmtArgs&& other) noexcept {
  if (this != &other) {
    if (record_ != nullptr) record_->Release();
    record_ = other.record_;
    other.record_ = nullptr;
  }
  return *this;
}

template <class E>
CTFmtArgs<E>::~CTFmtArgs() {
  if (record_ != nullptr) record_->Release();
}

template <class E>
void CTFmtArgs<E>::Append(std::unique_ptr<CTFmtArg<E>> arg) {
  if (record_ == nullptr) {
    record_ = new CRecord();
  } else if (record_->GetReferences() > 1) {
    // The other holders keep the shared record; this handle gets its own
    // arguments so that each one is destroyed exactly once.
    auto own = std::make_unique<CRecord>();
    Reserve(*own, record_->count);
    for (std::uint64_t i = 0; i < record_->count; ++i) {
      own->table[i] = record_->table[i]->Clone().release();
      own->count = i + 1;
    }
    record_->Release();
    record_ = own.release();
  }
  Reserve(*record_, record_->count + 1);
  record_->table[record_->count++] = arg.release();
}

template <class E>
CTFmtArgs<E>& CTFmtArgs<E>::Add(const CTString<E>& value) {
  Append(std::make_unique<CTStrFmtArg<E>>(value));
  return *this;
}

template <class E>
CTFmtArgs<E>& CTFmtArgs<E>::Add(int value) {
  Append(std::make_unique<CTIntFmtArg<E, int>>(value));
  return *this;
}

template <class E>
CTFmtArgs<E>& CTFmtArgs<E>::Add(unsigned long value) {
  Append(std::make_unique<CTIntFmtArg<E, unsigned long>>(value));
  return *this;
}

template <class E>
const CTFmtArg<E>* CTFmtArgs<E>::GetArg(std::uint64_t number) const noexcept {
  if (record_ == nullptr || number == 0 || number > record_->count) return nullptr;
  return record_->table[number - 1];
}

// ---------------------------------------------------------------------------
// Format

template <class E>
CTString<E> Format(const std::type_identity_t<CTString<E>>& templ, const CTFmtArgs<E>& args) {
  CTString<E> text(templ);
  CTStringCursor<E> cursor(text);
  CTString<E> result;
  for (std::int32_t c = cursor.Next(); c >= 0; c = cursor.Next()) {
    if (c != '%') {
      result.AppendChar(static_cast<std::uint32_t>(c));
      continue;
    }
    c = cursor.Next();
    if (c < 0) break;
    if (c == '%') {
      result.AppendChar('%');
      continue;
    }
    if (c < '1' || c > '9') continue;
    const CTFmtArg<E>* arg = args.GetArg(static_cast<std::uint64_t>(c - '0'));
    if (cursor.Peek() != '!') {
      if (arg != nullptr) result += arg->GetText();
      continue;
    }
    cursor.Next();
    CTString<E> conversion;
    for (c = cursor.Next(); c != '!'; c = cursor.Next()) {
      if (c < 0) return result;
      conversion.AppendChar(static_cast<std::uint32_t>(c));
    }
    if (arg != nullptr) result += arg->GetText(conversion);
  }
  return result;
}

template class CTIntFmtArg<CUTF8Encoding, int>;
template class CTIntFmtArg<CUTF8Encoding, unsigned long>;
template class CTIntFmtArg<CISOEncoding, int>;
template class CTIntFmtArg<CISOEncoding, unsigned long>;
template class CTFmtArgs<CUTF8Encoding>;
template class CTFmtArgs<CISOEncoding>;
template CTString<CUTF8Encoding> Format<CUTF8Encoding>(const CTString<CUTF8Encoding>&,
                                                       const CTFmtArgs<CUTF8Encoding>&);
template CTString<CISOEncoding> Format<CISOEncoding>(const CTString<CISOEncoding>&,
                                                     const CTFmtArgs<CISOEncoding>&);

}  // namespace zelph
