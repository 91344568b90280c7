// The spy's 3.0 types against NSS's copy of the standard header, then 3.0
// callers (a client of our own, NSS's modutil and certutil) in front of real
// modules: what they print must not change when the spy stands between.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "TestSkips.h"
#include "TraceLog.h"
#include "spy/Pkcs11Interfaces.h"

struct CLayoutEntry {
  const char* name;
  std::size_t value;
};
extern "C" const CLayoutEntry zelph_nss_layout[];  // NssLayout.c's, ended by a null name

namespace zelph {
namespace {

TEST(Layout30, OurTypesAreLaidOutAsInNsssHeader) {
  std::map<std::string, std::size_t> nss;
  for (const CLayoutEntry* e = zelph_nss_layout; e->name; ++e) nss[e->name] = e->value;
#define ZELPH_FIELD(type, field) {#type "." #field, offsetof(type, field)},
#define ZELPH_FUNCTION(name) ZELPH_FIELD(CK_FUNCTION_LIST_3_0, name)
  const std::map<std::string, std::size_t> ours = {
      {"sizeof CK_INTERFACE", sizeof(CK_INTERFACE)},
      {"sizeof CK_FUNCTION_LIST_3_0", sizeof(CK_FUNCTION_LIST_3_0)},
      ZELPH_FIELD(CK_INTERFACE, pInterfaceName) ZELPH_FIELD(CK_INTERFACE, pFunctionList)
          ZELPH_FIELD(CK_INTERFACE, flags) ZELPH_PKCS11_V2_FUNCTIONS(ZELPH_FUNCTION)
              ZELPH_PKCS11_V3_FUNCTIONS(ZELPH_FUNCTION)};
  for (const auto& [name, value] : ours) {
    const auto theirs = nss.extract(name);
    EXPECT_FALSE(theirs.empty()) << name << " is not in NSS's header";
    EXPECT_EQ(value, theirs.empty() ? value : theirs.mapped())
        << name << " differs in NSS's header";
  }
  EXPECT_TRUE(nss.empty()) << nss.begin()->first << " is in NSS's header, not in ours";
}

// A module, what its C_Initialize takes, whether it gets a token "zelph", and
// what the client sees otherwise through the spy: text of the direct run and
// what stands in its place.
struct CModule {
  const char *name, *library, *package, *parameters;
  bool token;
  std::vector<std::pair<std::string, std::string>> throughSpy;
  friend void PrintTo(const CModule& module, std::ostream* out) { *out << module.library; }
};

using CEnvironment = std::map<std::string, std::optional<std::string>>;
std::string Ran(std::vector<std::string> command, const CEnvironment& environment,
                std::string workDir = "") {
  return RunToEnd({std::move(command), {}, environment, std::move(workDir)});
}

std::string Replaced(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

class Interfaces30 : public testing::TestWithParam<CModule> {
 protected:
  void SetUp() override {
    if (access(GetParam().library, R_OK) != 0) {
      GTEST_SKIP() << GetParam().library << " is missing; Debian's " << GetParam().package
                   << " has it";
    }
    for (const char* name : {"direct", "spy", "direct/db", "spy/db", "tokens"}) {
      mkdir(dir.File(name).c_str(), 0700);
    }
    WriteFile(dir.File("zelph.conf"), TraceConfig(dir.Path()));
    WriteFile(dir.File("softhsm2.conf"), "directories.tokendir = " + dir.File("tokens") + "\n");
    WriteFile(dir.File("pin"), "1234\n");
    WriteFile(dir.File("noise"), std::string(2048, 'z'));  // else certutil -G asks for keystrokes
    if (!GetParam().token) return;
    const std::string ran = Ran({"/usr/bin/softhsm2-util", "--init-token", "--free", "--label",
                                 "zelph", "--so-pin", "87654321", "--pin", "1234"},
                                environment);
    ASSERT_TRUE(ran.starts_with("exit status 0;")) << ran;
  }

  // Runs `command` (LIB and CLIENT stand for the module and the client) in
  // "direct", then in "spy" with the spy as LIB; says how each ended and what
  // it wrote, the spy's path read as the module's.
  std::array<std::string, 2> Run(const std::string& command) {
    std::array<std::string, 2> described;
    for (const bool spy : {false, true}) {
      std::vector<std::string> args;
      std::istringstream words(command);
      for (std::string word; words >> word;) {
        args.push_back(word == "LIB"      ? (spy ? ZELPH_SPY_LIB : GetParam().library)
                       : word == "CLIENT" ? ZELPH_CLIENT30
                                          : word);
      }
      described[spy] = Replaced(Ran(args, environment, dir.File(spy ? "spy" : "direct")),
                                ZELPH_SPY_LIB, GetParam().library);
    }
    return described;
  }
  bool TracedGetInterface() const {
    return CountOf(ReadLogs(dir.Path()), "Entering C_GetInterface.") > 0;
  }

  const CTestDir dir{"iface"};
  const CEnvironment environment = {{"ZELPH_CONFFILE", dir.File("zelph.conf")},
                                    {"ZELPH_SPY_MODULE", GetParam().library},
                                    {"SOFTHSM2_CONF", dir.File("softhsm2.conf")}};
};

TEST_P(Interfaces30, Client30SeesTheSameThroughTheSpy) {
  auto [direct, spy] = Run("CLIENT LIB " + std::string(GetParam().parameters));
  EXPECT_TRUE(direct.starts_with("exit status 0;")) << direct;
  for (const auto& [from, to] : GetParam().throughSpy) direct = Replaced(direct, from, to);
  EXPECT_EQ(spy, direct) << "the client sees otherwise through the spy";
  EXPECT_TRUE(TracedGetInterface()) << "the spy did not trace C_GetInterface";
}

// NSS loads a module through C_GetInterface where it finds one. Both runs
// use the one token: each lists the keys that both made.
TEST_P(Interfaces30, NssToolsListTheSameThroughTheSpy) {
  ZELPH_SKIP_UNDER_TSAN("loads the spy into modutil and certutil");
  if (access("/usr/bin/modutil", X_OK) != 0 || access("/usr/bin/certutil", X_OK) != 0) {
    GTEST_SKIP() << "modutil or certutil is missing; Debian's libnss3-tools has them";
  }
  for (const std::string step :
       {"modutil -create -dbdir sql:db -force",
        "modutil -add zelph-test -libfile LIB -dbdir sql:db -force", "modutil -list -dbdir sql:db",
        "certutil -L -h all -d sql:db -f ../pin",
        "certutil -G -h zelph -k rsa -g 2048 -d sql:db -f ../pin -z ../noise",
        "certutil -K -h all -d sql:db -f ../pin"}) {
    if (GetParam().token || step.find("-G") == std::string::npos) {
      const auto [direct, spy] = Run("/usr/bin/" + step);
      EXPECT_EQ(spy, direct) << step << ": differs through the spy";
    }
  }
  EXPECT_TRUE(TracedGetInterface()) << "NSS did not ask the spy for an interface";
}

constexpr char kNoInterfaces[] = "C_GetInterfaceList, C_GetInterface: not exported\n";
constexpr char kSpyOf240[] = R"(C_GetInterfaceList(NULL): 0x00000000 count 1
C_GetInterfaceList(room for 0): 0x00000150 count 1
C_GetInterfaceList(room for 1): 0x00000000 count 1
 "PKCS 11" 2.40 flags 0x0
C_GetInterface(NULL, 0.0, flags 0x0): 0x00000000 "PKCS 11" 2.40 flags 0x0
C_GetInterface(PKCS 11, 3.0, flags 0x0): 0x00000007 untouched
C_GetInterface(PKCS 11, 2.40, flags 0x0): 0x00000000 "PKCS 11" 2.40 flags 0x0
C_GetInterface(PKCS 11, 9.9, flags 0x0): 0x00000007 untouched
C_GetInterface(zelph, 0.0, flags 0x0): 0x00000007 untouched
C_GetInterface(NULL, 0.0, flags 0xffffffffffffffff): 0x00000007 untouched
)";
constexpr char kNssVendorInterfaces[] =
    " \"Vendor NSS Module Interface\" 1.0 flags 0x1\n"
    " \"Vendor NSS FIPS Interface\" 1.0 flags 0x1\n";

// The spy's C_GetFunctionList gives its own list, version 2.40; it offers
// the standard interfaces only, and a 2.40 one for a module without any.
// clang-format off
const CModule kModules[] = {
    {"OpenSc", "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so", "opensc-pkcs11", "", false,
     {{"C_GetFunctionList: 0x00000000 2.20", "C_GetFunctionList: 0x00000000 2.40"}}},
    {"SoftHsm", "/usr/lib/softhsm/libsofthsm2.so", "softhsm2", "", true,
     {{kNoInterfaces, kSpyOf240}}},
    // NSS's own module, the one here that encrypts messages.
    {"NssSoftoken", "/usr/lib/x86_64-linux-gnu/libsoftokn3.so", "libnss3",
     "flags=readOnly,noCertDB,noModDB,forceOpen", false,
     {{"count 4", "count 2"}, {"room for 3", "room for 1"}, {"room for 4", "room for 2"},
      {kNssVendorInterfaces, ""}}}};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Modules, Interfaces30, testing::ValuesIn(kModules),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zelph
