// Checks the dynamic symbol table of the built libzelphtrace.so: the library
// exports its C entry points and nothing else, in particular no C++ symbol
// that would tie clients to this build's compiler and standard library.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace zelph {
namespace {

// Must be exported: the trace entry points and the naming functions.
const std::set<std::string> kRequired = {
    "TraceEnter",
    "TraceLeave",
    "TraceString",
    "TraceTemplate",
    "TraceMechanism",
    "TraceMechanismInfo",
    "TraceTokenInfo",
    "GetCkErrorString",
    "GetCkUserTypeString",
    "GetCkAttributeTypeString",
    "GetCkObjectClassString",
    "GetCkKeyTypeString",
    "GetCkCertificateTypeString",
    "GetCkMechanismTypeString",
    "GetCxKeySpecString",
    "GetCkMechanismInfoFlagString",
    "GetCkTokenInfoFlagString",
    "GetQXCardContainer",
    "GetWin32ErrorString",
};

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// Names of the defined dynamic symbols, as `nm -D --defined-only` lists them.
std::set<std::string> ExportedSymbols() {
  const std::string command = std::string("nm -D --defined-only '") + ZELPH_TRACE_LIB + "'";
  std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
  if (!pipe) {
    ADD_FAILURE() << "cannot run: " << command;
    return {};
  }
  std::set<std::string> symbols;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    // "<address> <type> <name>"; the last field is the name.
    std::istringstream fields(line);
    std::string field, name;
    while (fields >> field) name = field;
    if (!name.empty()) symbols.insert(name);
  }
  EXPECT_EQ(pclose(pipe.release()), 0) << "failed: " << command;
  return symbols;
}

TEST(ExportListTest, ExportsEveryTraceAndNamingFunction) {
  const std::set<std::string> exported = ExportedSymbols();
  for (const std::string& name : kRequired) {
    EXPECT_EQ(exported.count(name), 1u) << name << " is missing from the export list";
  }
}

TEST(ExportListTest, ExportsNothingOutsideTheCInterface) {
  const std::set<std::string> exported = ExportedSymbols();
  ASSERT_FALSE(exported.empty()) << "no symbols read from " << ZELPH_TRACE_LIB;
  for (const std::string& name : exported) {
    EXPECT_FALSE(name.starts_with("_Z")) << "C++ symbol leaks out of the library: " << name;
    EXPECT_TRUE(kRequired.count(name)) << "unexpected exported symbol: " << name;
  }
}

}  // namespace
}  // namespace zelph
