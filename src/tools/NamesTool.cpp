// zelph-names: names a number found in a trace log, for the support engineer
// who reads it. "zelph-names rv 0xA0" gives the return value's symbolic name
// and the sentence an end user is shown for it.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "trace/UserMessage.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// How the numbers of a kind are named.
enum class CNameStyle {
  kPlain,        // one name
  kReturnValue,  // one name, then the sentence for an end user
  kFlags,        // the name of every set bit of the low 32
};

struct CNameKind {
  const char* kind;
  const char* description;
  const char* (*name)(CK_ULONG);
  CNameStyle style;
};

const char* NameScardStatus(CK_ULONG status) noexcept {
  return GetWin32ErrorString(status);
}

constexpr CNameKind kKinds[] = {
    {"rv", "return value (CKR_, CXR_) and what an end user is told", GetCkErrorString,
     CNameStyle::kReturnValue},
    {"user", "user type (CKU_)", GetCkUserTypeString, CNameStyle::kPlain},
    {"attr", "attribute type (CKA_, CXA_)", GetCkAttributeTypeString, CNameStyle::kPlain},
    {"class", "object class (CKO_, CXO_)", GetCkObjectClassString, CNameStyle::kPlain},
    {"key", "key type (CKK_)", GetCkKeyTypeString, CNameStyle::kPlain},
    {"cert", "certificate type (CKC_)", GetCkCertificateTypeString, CNameStyle::kPlain},
    {"mech", "mechanism type (CKM_)", GetCkMechanismTypeString, CNameStyle::kPlain},
    {"keyspec", "container key spec (CXKEYSPEC_)", GetCxKeySpecString, CNameStyle::kPlain},
    {"mechflags", "mechanism information flags (CKF_), each set bit", GetCkMechanismInfoFlagString,
     CNameStyle::kFlags},
    {"tokenflags", "token information flags (CKF_), each set bit", GetCkTokenInfoFlagString,
     CNameStyle::kFlags},
    {"container", "card container kind (CXC_)", GetQXCardContainer, CNameStyle::kPlain},
    {"scard", "PC/SC status code (SCARD_)", NameScardStatus, CNameStyle::kPlain},
};

void PrintUsage(std::FILE* out) {
  std::fprintf(out,
               "usage: zelph-names <kind> <number>...\n"
               "       zelph-names --help\n"
               "\n"
               "Names PKCS#11 and PC/SC numbers found in a zelph trace log.\n"
               "A number is decimal, or hexadecimal after 0x.\n"
               "\n"
               "kinds:\n");
  for (const CNameKind& kind : kKinds) {
    std::fprintf(out, "  %-11s %s\n", kind.kind, kind.description);
  }
  std::fprintf(out,
               "\n"
               "example: zelph-names rv 0xA0\n");
}

const CNameKind* FindKind(std::string_view name) noexcept {
  for (const CNameKind& kind : kKinds) {
    if (name == kind.kind) return &kind;
  }
  return nullptr;
}

// Reads a whole argument as a decimal number, or as a hexadecimal one after
// "0x" or "0X". No sign, no blanks, nothing after the digits; a number beyond
// 64 bits is refused.
std::optional<CK_ULONG> ParseNumber(const char* text) noexcept {
  int base = 10;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text += 2;
  }
  const bool startsWithDigit = base == 16 ? std::isxdigit(static_cast<unsigned char>(text[0])) != 0
                                          : std::isdigit(static_cast<unsigned char>(text[0])) != 0;
  if (!startsWithDigit) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, base);
  if (errno == ERANGE || *end != '\0') return std::nullopt;
  return static_cast<CK_ULONG>(value);
}

void PrintName(const CNameKind& kind, CK_ULONG value) {
  std::printf("0x%08lX  ", value);
  switch (kind.style) {
    case CNameStyle::kPlain:
      std::printf("%s\n", kind.name(value));
      break;
    case CNameStyle::kReturnValue:
      std::printf("%s\n", kind.name(value));
      std::printf("%12s%s\n", "", GetUserErrorMessage(value).c_str());
      break;
    case CNameStyle::kFlags:
      // As the trace dumps list them: lowest bit first, bits above 32 ignored.
      if ((value & 0xFFFFFFFFUL) == 0) {
        std::printf("none\n");
        break;
      }
      for (int bit = 0, named = 0; bit < 32; ++bit) {
        const CK_ULONG flag = CK_ULONG{1} << bit;
        if ((value & flag) != 0) std::printf(named++ == 0 ? "%s" : " %s", kind.name(flag));
      }
      std::printf("\n");
      break;
  }
}

int Run(std::span<char*> args) {
  if (args.size() == 1 &&
      (std::strcmp(args[0], "--help") == 0 || std::strcmp(args[0], "-h") == 0)) {
    PrintUsage(stdout);
    return 0;
  }
  if (args.size() < 2) {
    PrintUsage(stderr);
    return 2;
  }
  const CNameKind* kind = FindKind(args[0]);
  if (kind == nullptr) {
    std::fprintf(stderr, "zelph-names: unknown kind \"%s\"; zelph-names --help lists them\n",
                 args[0]);
    return 2;
  }
  for (char* text : args.subspan(1)) {
    const std::optional<CK_ULONG> value = ParseNumber(text);
    if (!value) {
      std::fprintf(
          stderr, "zelph-names: \"%s\" is not a number (decimal, or hexadecimal after 0x)\n", text);
      return 2;
    }
    PrintName(*kind, *value);
  }
  return 0;
}

}  // namespace
}  // namespace zelph

int main(int argc, char** argv) {
  try {
    return zelph::Run(std::span<char*>(argv + 1, argc > 0 ? argc - 1 : 0));
  } catch (...) {
    std::fprintf(stderr, "zelph-names: out of memory\n");
    return 1;
  }
}
