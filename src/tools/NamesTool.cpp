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
#include <string>
#include <string_view>

#include "names/Pkcs11Names.h"
#include "trace/UserMessage.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// How the numbers of a kind are named.
enum class CNameStyle {
  kStandard,     // the standard name, else the middleware's, else a number
  kReturnValue,  // the same, then the sentence for an end user
  kFlags,        // the names of the set bits
  kTrace,        // the trace library's name: the middleware's own kinds
};

struct CToolKind {
  const char* kind;
  const char* description;
  CNameStyle style;
  CNameKind names = CNameKind::kReturnValue;     // kStandard, kReturnValue
  CFlagKind flags = CFlagKind::kSlot;            // kFlags
  const char* (*traceName)(CK_ULONG) = nullptr;  // kTrace
};

const char* NameScardStatus(CK_ULONG status) noexcept {
  return GetWin32ErrorString(status);
}

constexpr CToolKind Standard(const char* kind, const char* description, CNameKind names) {
  return {kind, description, CNameStyle::kStandard, names};
}
constexpr CToolKind Flags(const char* kind, const char* description, CFlagKind flags) {
  return {kind, description, CNameStyle::kFlags, {}, flags};
}
constexpr CToolKind Trace(const char* kind, const char* description,
                          const char* (*traceName)(CK_ULONG)) {
  return {kind, description, CNameStyle::kTrace, {}, {}, traceName};
}

constexpr CToolKind kKinds[] = {
    {"rv", "return value (CKR_, CXR_) and what an end user is told", CNameStyle::kReturnValue,
     CNameKind::kReturnValue},
    Standard("user", "user type (CKU_)", CNameKind::kUserType),
    Standard("attr", "attribute type (CKA_, CXA_)", CNameKind::kAttribute),
    Standard("class", "object class (CKO_, CXO_)", CNameKind::kObjectClass),
    Standard("key", "key type (CKK_)", CNameKind::kKeyType),
    Standard("cert", "certificate type (CKC_)", CNameKind::kCertificateType),
    Standard("mech", "mechanism type (CKM_)", CNameKind::kMechanism),
    Standard("state", "session state (CKS_)", CNameKind::kSessionState),
    Standard("mgf", "mask generation function of RSA PSS and OAEP (CKG_MGF1_)", CNameKind::kMgf),
    Standard("kdf", "key derivation function (CKD_)", CNameKind::kKdf),
    Standard("source", "source of the OAEP encoding parameter (CKZ_)", CNameKind::kOaepSource),
    Standard("profile", "profile (CKP_)", CNameKind::kProfile),
    Trace("keyspec", "container key spec (CXKEYSPEC_)", GetCxKeySpecString),
    Flags("slotflags", "slot information flags (CKF_)", CFlagKind::kSlot),
    Flags("tokenflags", "token information flags (CKF_)", CFlagKind::kToken),
    Flags("sessionflags", "session information flags (CKF_)", CFlagKind::kSession),
    Flags("mechflags", "mechanism information flags (CKF_)", CFlagKind::kMechanism),
    Flags("initflags", "C_Initialize flags (CKF_)", CFlagKind::kInitialize),
    Trace("container", "card container kind (CXC_)", GetQXCardContainer),
    Trace("scard", "PC/SC status code (SCARD_)", NameScardStatus),
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
  for (const CToolKind& kind : kKinds) {
    std::fprintf(out, "  %-12s %s\n", kind.kind, kind.description);
  }
  std::fprintf(out,
               "\n"
               "example: zelph-names rv 0xA0\n");
}

const CToolKind* FindKind(std::string_view name) noexcept {
  for (const CToolKind& kind : kKinds) {
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

// Prints the names of a flag word from `column` on, breaking lines after a
// " |" so that none passes column 80; further lines start at column 12.
void PrintFlagNames(std::string_view names, int column) {
  for (std::size_t start = 0; start < names.size();) {
    const std::size_t bar = names.find(" | ", start);
    const std::size_t end = bar == std::string_view::npos ? names.size() : bar + 2;
    const int width = static_cast<int>(end - start);
    if (start > 0 && column + 1 + width > 80) {
      column = std::printf("\n%12s", "") - 1;
    } else if (start > 0) {
      column += std::printf(" ");
    }
    column += std::printf("%.*s", width, names.data() + start);
    start = end + 1;
  }
  std::printf("\n");
}

void PrintName(const CToolKind& kind, CK_ULONG value) {
  const int column = std::printf("0x%08lX  ", value);
  CNameBuffer buffer;
  switch (kind.style) {
    case CNameStyle::kStandard:
      std::printf("%s\n", NameOf(kind.names, value, buffer));
      break;
    case CNameStyle::kReturnValue:
      std::printf("%s\n", NameOf(kind.names, value, buffer));
      std::printf("%12s%s\n", "", GetUserErrorMessage(value).c_str());
      break;
    case CNameStyle::kFlags: {
      std::string names;
      AppendFlagNames(names, kind.flags, value);
      PrintFlagNames(names, column);
      break;
    }
    case CNameStyle::kTrace:
      std::printf("%s\n", kind.traceName(value));
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
  const CToolKind* kind = FindKind(args[0]);
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
