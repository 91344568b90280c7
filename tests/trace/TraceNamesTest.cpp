// The naming functions, the end-user messages and the export list of the
// built libzelphtrace.so, compared with NameTables.golden: what each function
// answers, then what the library exports. ZELPH_WRITE_GOLDEN=<path> writes the
// dump there too.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <set>
#include <string>

#include "TestFiles.h"
#include "TraceLog.h"
#include "trace/UserMessage.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

using namespace std::string_literals;
using CNameFunction = const char* (*)(CK_ULONG);

const char* UserMessage(CK_ULONG rv) {
  static std::string text;
  text = GetUserErrorMessage(rv).View();
  return text.c_str();
}

// clang-format off
const std::pair<const char*, CNameFunction> kFunctions[] = {
    {"GetCkErrorString", GetCkErrorString}, {"GetCkUserTypeString", GetCkUserTypeString},
    {"GetCkAttributeTypeString", GetCkAttributeTypeString},
    {"GetCkObjectClassString", GetCkObjectClassString}, {"GetCkKeyTypeString", GetCkKeyTypeString},
    {"GetCkCertificateTypeString", GetCkCertificateTypeString},
    {"GetCkMechanismTypeString", GetCkMechanismTypeString},
    {"GetCxKeySpecString", GetCxKeySpecString},
    {"GetCkMechanismInfoFlagString", GetCkMechanismInfoFlagString},
    {"GetCkTokenInfoFlagString", GetCkTokenInfoFlagString},
    {"GetQXCardContainer", GetQXCardContainer}, {"GetWin32ErrorString", GetWin32ErrorString},
    {"GetUserErrorMessage", UserMessage}};
// clang-format on

bool IsFallback(std::string_view text) {
  return text.starts_with("Unknown") || text.starts_with("unknown (") ||
         text.starts_with("Code 0x");
}

TEST(TraceNamesTest, EveryFunctionAnswersAndTheLibraryExportsAsTheGoldenDumpSays) {
  // Where names live: the standard values, the vendor block, the PC/SC block,
  // a vendor return value and the flag bits above them.
  std::set<CK_ULONG> candidates = {0x82000000};
  for (CK_ULONG v = 0; v < 0x10000; ++v) candidates.insert(v);
  for (CK_ULONG v = 0; v < 0x100; ++v) candidates.insert({0x80000000 + v, 0x80100000 + v});
  for (int bit = 16; bit < 64; ++bit) candidates.insert(CK_ULONG{1} << bit);
  std::string dump;
  for (const auto& [symbol, function] : kFunctions) {
    auto line = [&](CK_ULONG value) {
      char text[200];
      std::snprintf(text, sizeof text, "%s 0x%08lX %s\n", symbol, value, function(value));
      dump += text;
    };
    for (const CK_ULONG value : candidates) {
      if (IsFallback(function(value))) continue;
      line(value);
      // A name belongs to its value, not to the value's low 32 bits.
      EXPECT_TRUE(value >> 32 != 0 || IsFallback(function(value | CK_ULONG{1} << 32)))
          << symbol << " " << value;
    }
    // The fallbacks: few digits, more than 32 bits, all 64.
    for (const CK_ULONG value : {0x777UL, 0x80000067UL, 0x123456789UL, ~0UL}) line(value);
  }
  // Each function keeps its fallback in a buffer of its own.
  const char* error = GetCkErrorString(0x7777);
  GetCkMechanismTypeString(0x80001234), GetCkUserTypeString(0x5555), GetWin32ErrorString(0x5555);
  EXPECT_STREQ(error, "Unknown: 0x00007777") << "overwritten by another function's fallback";
  // The C interface and nothing else: no C++ symbol, no helper.
  FILE* pipe =
      popen("nm -D --defined-only --just-symbols '" ZELPH_TRACE_LIB "' | LC_ALL=C sort", "r");
  ASSERT_NE(pipe, nullptr);
  for (char name[256]; std::fgets(name, sizeof name, pipe) != nullptr;) dump += "exported "s + name;
  EXPECT_EQ(pclose(pipe), 0) << "nm failed on " ZELPH_TRACE_LIB;
  ExpectGolden(SplitLines(dump), ZELPH_NAMES_GOLDEN);
}

}  // namespace
}  // namespace zelph
