// Positional message formatting: templates with "%1".."%9" placeholders,
// "%%" and an optional printf conversion between "!" marks, filled from a
// shared list of arguments.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "common/base/CTString.h"
#include "common/base/CValRefCounter.h"

namespace zelph {

// One formatting argument.
template <class E>
class CTFmtArg {
 public:
  virtual ~CTFmtArg() = default;
  // Text of the argument when the placeholder has no conversion.
  virtual CTString<E> GetText() const = 0;
  // Text of the argument under the printf conversion `conversion` (the text
  // between the two "!" marks).
  virtual CTString<E> GetText(const CTString<E>& conversion) const = 0;
  // A new, independent copy of this argument.
  virtual std::unique_ptr<CTFmtArg> Clone() const = 0;

 protected:
  CTFmtArg() = default;
  CTFmtArg(const CTFmtArg&) = default;
  CTFmtArg& operator=(const CTFmtArg&) = default;
};

// A string argument; formats as its string (shared), any conversion is
// ignored.
template <class E>
class CTStrFmtArg final : public CTFmtArg<E> {
 public:
  explicit CTStrFmtArg(const CTString<E>& value) noexcept : value_(value) {}

  CTString<E> GetText() const override { return value_; }
  CTString<E> GetText(const CTString<E>& /*conversion*/) const override { return value_; }
  std::unique_ptr<CTFmtArg<E>> Clone() const override {
    return std::make_unique<CTStrFmtArg>(value_);
  }
  // The held string.
  const CTString<E>& GetString() const noexcept { return value_; }

 private:
  CTString<E> value_;
};

// An integer argument of type `T` (int or unsigned long). Plain text is the
// decimal value; with a conversion it is snprintf("%" + conversion, value),
// at most 38 characters. The conversion must suit an integer of type `T`
// ("x", "08X", "d"; "lx", "lu" for unsigned long); one
// that is not (stray characters, "*", "s", "n") formats as the plain text.
template <class E, class T>
class CTIntFmtArg final : public CTFmtArg<E> {
  static_assert(std::is_same_v<T, int> || std::is_same_v<T, unsigned long>,
                "integer arguments are int or unsigned long");

 public:
  explicit CTIntFmtArg(T value) noexcept : value_(value) {}

  CTString<E> GetText() const override;
  CTString<E> GetText(const CTString<E>& conversion) const override;
  std::unique_ptr<CTFmtArg<E>> Clone() const override {
    return std::make_unique<CTIntFmtArg>(value_);
  }
  // The held value.
  T GetValue() const noexcept { return value_; }

 private:
  T value_;
};

// A list of formatting arguments, numbered from 1 in the order added. A
// handle to a shared record: copies share it (one counter increment) and the
// first Add to a shared list gives the handle its own copy. A null handle is
// the empty list. Belongs to one thread at a time.
template <class E>
class CTFmtArgs {
 public:
  // The table of arguments; owns them.
  class CFmtArgList {
   public:
    CFmtArgList() noexcept = default;
    CFmtArgList(const CFmtArgList&) = delete;
    CFmtArgList& operator=(const CFmtArgList&) = delete;
    virtual ~CFmtArgList();

    CTFmtArg<E>** table = nullptr;  // `count` owned arguments
    std::uint64_t count = 0;
    std::uint64_t capacity = 0;  // slots allocated
  };
  using CRecord = CValRefCounter<CFmtArgList>;

  // The empty list.
  CTFmtArgs() noexcept = default;
  CTFmtArgs(const CTFmtArgs& other) noexcept;
  CTFmtArgs(CTFmtArgs&& other) noexcept;
  CTFmtArgs& operator=(const CTFmtArgs& other) noexcept;
  CTFmtArgs& operator=(CTFmtArgs&& other) noexcept;
  ~CTFmtArgs();

  // Appends a string argument.
  CTFmtArgs& Add(const CTString<E>& value);
  // Appends a string argument decoded from UTF-8 text.
  CTFmtArgs& Add(const char* utf8) { return Add(CTString<E>(utf8)); }
  // Appends a signed 32-bit integer argument.
  CTFmtArgs& Add(int value);
  // Appends an unsigned 64-bit integer argument.
  CTFmtArgs& Add(unsigned long value);
  // Appends an unsigned 32-bit value as an unsigned 64-bit argument.
  CTFmtArgs& Add(unsigned int value) { return Add(static_cast<unsigned long>(value)); }

  // Number of arguments.
  std::uint64_t GetCount() const noexcept { return record_ != nullptr ? record_->count : 0; }
  // Argument `number` (from 1); null when there is no such argument.
  const CTFmtArg<E>* GetArg(std::uint64_t number) const noexcept;
  // Test-only: the shared record, null for the empty list, so that tests
  // can see sharing. Nothing in the library calls it.
  const CRecord* GetRecord() const noexcept { return record_; }

 private:
  void Append(std::unique_ptr<CTFmtArg<E>> arg);

  CRecord* record_ = nullptr;
};

// Fills `templ` from `args`: "%1".."%9" become the text of that argument
// (empty when missing), "%N!conversion!" formats it under a printf conversion,
// "%%" is "%". Anything it cannot interpret is dropped: a lone "%" at the
// end, "%" followed by another character (both dropped), and everything from
// an unterminated "!" conversion on. In a UTF-8 template invalid
// characters become "?" and a truncated final sequence ends the text.
// The encoding follows from `args`, so a literal template converts directly.
template <class E>
CTString<E> Format(const std::type_identity_t<CTString<E>>& templ, const CTFmtArgs<E>& args);

using CUTF8FmtArgs = CTFmtArgs<CUTF8Encoding>;
using CISOFmtArgs = CTFmtArgs<CISOEncoding>;

extern template class CTIntFmtArg<CUTF8Encoding, int>;
extern template class CTIntFmtArg<CUTF8Encoding, unsigned long>;
extern template class CTIntFmtArg<CISOEncoding, int>;
extern template class CTIntFmtArg<CISOEncoding, unsigned long>;
extern template class CTFmtArgs<CUTF8Encoding>;
extern template class CTFmtArgs<CISOEncoding>;
extern template CTString<CUTF8Encoding> Format<CUTF8Encoding>(const CTString<CUTF8Encoding>&,
                                                              const CTFmtArgs<CUTF8Encoding>&);
extern template CTString<CISOEncoding> Format<CISOEncoding>(const CTString<CISOEncoding>&,
                                                            const CTFmtArgs<CISOEncoding>&);

}  // namespace zelph
