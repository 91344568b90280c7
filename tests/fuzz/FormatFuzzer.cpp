// Fuzzes positional formatting: arbitrary templates over string and integer
// arguments, in both encodings. Without conversions ("%1!x!") an ISO
// template must format as a plain re-implementation of the rules does; a
// conversion changes integers only and keeps them short.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/base/CTFmtArgs.h"

using namespace zelph;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  CISOFmtArgs args;
  CUTF8FmtArgs utf8Args;
  std::vector<std::string> shown;  // each argument as an ISO template shows it
  std::vector<bool> numbers;
  for (auto n = input.ConsumeIntegralInRange<int>(0, 10); n > 0; --n) {
    numbers.push_back(input.ConsumeBool());
    if (numbers.back()) {
      const int number = input.ConsumeIntegral<int>();
      args.Add(number), utf8Args.Add(number), shown.push_back(std::to_string(number));
    } else {
      const std::string text = input.ConsumeRandomLengthString(32);
      args.Add(text.c_str()), utf8Args.Add(text.c_str());
      shown.emplace_back(CISOString(text.c_str()).View());
    }
  }
  std::string conversion = input.ConsumeRandomLengthString(16);
  std::erase(conversion, '!'), std::erase(conversion, '\0');
  const std::string templ = input.ConsumeRemainingBytesAsString();
  const CISOString result = Format(CISOString(templ.data(), templ.size()), args);
  (void)Format(CUTF8String(templ.data(), templ.size()), utf8Args);

  if (templ.find('!') == std::string::npos) {
    // "%%" is "%", "%1".."%9" an argument (empty when missing), any other
    // "%x" and a final "%" vanish.
    std::string expected;
    for (std::size_t i = 0; i < templ.size(); ++i) {
      if (templ[i] != '%') {
        expected += templ[i];
      } else if (++i < templ.size() && templ[i] == '%') {
        expected += '%';
      } else if (i < templ.size() && templ[i] >= '1' && templ[i] <= '9' &&
                 static_cast<std::size_t>(templ[i] - '0') <= shown.size()) {
        expected += shown[templ[i] - '1'];
      }
    }
    Require(result.View() == expected, "ISO formatting follows the rules");
  }
  for (std::size_t i = 0; i < shown.size() && i < 9; ++i) {
    const std::string single = "%" + std::to_string(i + 1) + "!" + conversion + "!";
    const CISOString text = Format(CISOString(single.data(), single.size()), args);
    Require(numbers[i] ? text.Size() <= 38 : text.View() == shown[i],
            "a converted integer has at most 38 characters, a string ignores the conversion");
  }
  return 0;
}
