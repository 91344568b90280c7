// Fuzzes positional formatting: arbitrary templates (placeholders, "%%",
// printf conversions between "!" marks, invalid UTF-8) over lists of string
// and integer arguments, in both encodings. Templates without conversions
// are checked against a plain re-implementation of the rules.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/base/CTFmtArgs.h"

using namespace zelph;

namespace {

enum class Kind : std::uint8_t { kString, kInt, kUnsigned };

struct CArg {
  Kind kind;
  std::string text;  // the argument's UTF-8 text, for string arguments
  int number = 0;
  unsigned long unsignedNumber = 0;
};

template <class E>
CTFmtArgs<E> MakeArgs(const std::vector<CArg>& args) {
  CTFmtArgs<E> list;
  for (const CArg& arg : args) {
    switch (arg.kind) {
      case Kind::kString:
        list.Add(arg.text.c_str());
        break;
      case Kind::kInt:
        list.Add(arg.number);
        break;
      case Kind::kUnsigned:
        list.Add(arg.unsignedNumber);
        break;
    }
  }
  return list;
}

// The plain text of argument `number` (from 1) in ISO-8859-1.
std::string PlainText(const std::vector<CArg>& args, unsigned number) {
  if (number > args.size()) return {};
  const CArg& arg = args[number - 1];
  switch (arg.kind) {
    case Kind::kString:
      return std::string(CISOString(arg.text.c_str()).View());
    case Kind::kInt:
      return std::to_string(arg.number);
    case Kind::kUnsigned:
      return std::to_string(arg.unsignedNumber);
  }
  return {};
}

// Formatting of an ISO template that holds no "!" by the rules: "%%" is "%",
// "%1".."%9" the argument (empty when missing), any other "%x" and a final
// "%" vanish.
std::string Reference(std::string_view templ, const std::vector<CArg>& args) {
  std::string out;
  for (std::size_t i = 0; i < templ.size();) {
    const char c = templ[i++];
    if (c != '%') {
      out += c;
      continue;
    }
    if (i == templ.size()) break;
    const char next = templ[i++];
    if (next == '%') {
      out += '%';
    } else if (next >= '1' && next <= '9') {
      out += PlainText(args, static_cast<unsigned>(next - '0'));
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<CArg> args(input.ConsumeIntegralInRange<std::size_t>(0, 10));
  for (CArg& arg : args) {
    arg.kind = static_cast<Kind>(input.ConsumeIntegralInRange<int>(0, 2));
    switch (arg.kind) {
      case Kind::kString:
        arg.text = input.ConsumeRandomLengthString(32);
        break;
      case Kind::kInt:
        arg.number = input.ConsumeIntegral<int>();
        break;
      case Kind::kUnsigned:
        arg.unsignedNumber = input.ConsumeIntegral<unsigned long>();
        break;
    }
  }
  const std::string conversion = input.ConsumeRandomLengthString(16);
  const std::string templ = input.ConsumeRemainingBytesAsString();

  const CUTF8FmtArgs utf8Args = MakeArgs<CUTF8Encoding>(args);
  const CISOFmtArgs isoArgs = MakeArgs<CISOEncoding>(args);
  const CUTF8String utf8Template(templ.data(), templ.size());
  const CISOString isoTemplate(templ.data(), templ.size());

  const CUTF8String utf8Result = Format(utf8Template, utf8Args);
  const CISOString isoResult = Format(isoTemplate, isoArgs);
  const CUTF8String noArgs = Format(utf8Template, CUTF8FmtArgs());
  (void)noArgs;

  if (templ.find('!') == std::string::npos) {
    Require(isoResult.View() == Reference(templ, args), "ISO formatting follows the rules");
  }
  // What counts is the decoded template: an overlong form such as E0 80 A5
  // decodes to "%" and starts a placeholder like the byte itself.
  const CUTF8String decoded(templ.c_str());
  if (templ.find('\0') == std::string::npos && decoded.View().find('%') == std::string_view::npos) {
    Require(utf8Result == decoded,
            "a UTF-8 template without placeholders decodes like construction");
  }

  // An integer under any conversion yields at most 38 characters, whatever
  // the conversion holds.
  std::string between;
  for (const char c : conversion) {
    if (c != '!' && c != '\0') between += c;
  }
  for (std::size_t i = 0; i < args.size() && i < 9; ++i) {
    const std::string single = "%" + std::to_string(i + 1) + "!" + between + "!";
    const CISOString text = Format(CISOString(single.data(), single.size()), isoArgs);
    if (args[i].kind != Kind::kString) {
      Require(text.Size() <= 38, "a converted integer has at most 38 characters");
    } else {
      Require(text.View() == PlainText(args, static_cast<unsigned>(i + 1)),
              "string arguments ignore the conversion");
    }
  }
  return 0;
}
