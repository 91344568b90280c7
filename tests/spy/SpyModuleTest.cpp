// How the spy finds the real module, what it does without one, and what it
// exports.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "CSpyTestBed.h"

namespace zelph {
namespace {

std::string SpyClient() {
  return ShellQuote(ZELPH_SPY_CLIENT) + " " + ShellQuote(ZELPH_SPY_LIB) + " init";
}

struct CSelectionCase {
  const char* title;
  std::string configModule;
  std::string environmentModule;
  const char* initializeLine;  // the client's report of C_Initialize
  const char* error;           // in the one line on standard error; null for none
};

// Names a case by its title in test listings.
void PrintTo(const CSelectionCase& c, std::ostream* out) {
  *out << c.title;
}

class SpyModuleSelectionTest : public ::testing::TestWithParam<CSelectionCase> {};

TEST_P(SpyModuleSelectionTest, InitializeForwardsOrFailsWithOneLineSayingWhy) {
  const CSelectionCase& c = GetParam();
  if (c.error == nullptr || c.configModule == kSoftHsmModule) {
    std::string missing;
    if (!SpyToolsAvailable(missing)) GTEST_SKIP() << missing << " is not installed";
  }
  CSpyTestBed bed;
  const CRunResult run = bed.Run("run", SpyClient(), {c.configModule, c.environmentModule});
  // Before C_Initialize nothing is forwarded.
  EXPECT_NE(run.out.find("C_GetInfo 0x190\n"), std::string::npos)
      << "C_GetInfo before C_Initialize must give CKR_CRYPTOKI_NOT_INITIALIZED:\n"
      << run.out;
  EXPECT_NE(run.out.find(c.initializeLine), std::string::npos) << run.out;
  if (c.error == nullptr) {
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("value manufacturer SoftHSM"), std::string::npos) << run.out;
    EXPECT_NE(run.log.find("manufacturerID = \"SoftHSM"), std::string::npos)
        << "C_GetInfo's answer is not in the log:\n"
        << run.log;
    return;
  }
  EXPECT_TRUE(run.err.starts_with("zelph spy: ")) << run.err;
  EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "not exactly one line:\n" << run.err;
  EXPECT_NE(run.log.find("Returns CKR_GENERAL_ERROR"), std::string::npos) << run.log;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SpyModuleSelectionTest,
    ::testing::Values(CSelectionCase{"ConfigurationNamesSoftHsm", kSoftHsmModule, "",
                                     "C_Initialize 0x0\n", nullptr},
                      CSelectionCase{"EnvironmentOverridesBrokenConfiguration",
                                     "/nonexistent/libnone.so", kSoftHsmModule,
                                     "C_Initialize 0x0\n", nullptr},
                      CSelectionCase{"NoModuleAnywhere", "", "", "C_Initialize 0x5\n",
                                     "no PKCS#11 module to forward to"},
                      CSelectionCase{"ConfiguredModuleMissing", "/nonexistent/libnone.so", "",
                                     "C_Initialize 0x5\n", "/nonexistent/libnone.so"},
                      CSelectionCase{"LibraryWithoutPkcs11", "libc.so.6", "", "C_Initialize 0x5\n",
                                     "has no C_GetFunctionList"},
                      CSelectionCase{"SpyNamedAsItsOwnTarget", kSoftHsmModule, ZELPH_SPY_LIB,
                                     "C_Initialize 0x5\n", "leads back to the spy itself"}),
    [](const ::testing::TestParamInfo<CSelectionCase>& info) { return info.param.title; });

struct CPipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

TEST(SpyModuleTest, ExportsExactlyThePkcs11Functions) {
  const std::set<std::string> expected = {
      "C_Initialize",
      "C_Finalize",
      "C_GetInfo",
      "C_GetFunctionList",
      "C_GetSlotList",
      "C_GetSlotInfo",
      "C_GetTokenInfo",
      "C_GetMechanismList",
      "C_GetMechanismInfo",
      "C_InitToken",
      "C_InitPIN",
      "C_SetPIN",
      "C_OpenSession",
      "C_CloseSession",
      "C_CloseAllSessions",
      "C_GetSessionInfo",
      "C_GetOperationState",
      "C_SetOperationState",
      "C_Login",
      "C_Logout",
      "C_CreateObject",
      "C_CopyObject",
      "C_DestroyObject",
      "C_GetObjectSize",
      "C_GetAttributeValue",
      "C_SetAttributeValue",
      "C_FindObjectsInit",
      "C_FindObjects",
      "C_FindObjectsFinal",
      "C_EncryptInit",
      "C_Encrypt",
      "C_EncryptUpdate",
      "C_EncryptFinal",
      "C_DecryptInit",
      "C_Decrypt",
      "C_DecryptUpdate",
      "C_DecryptFinal",
      "C_DigestInit",
      "C_Digest",
      "C_DigestUpdate",
      "C_DigestKey",
      "C_DigestFinal",
      "C_SignInit",
      "C_Sign",
      "C_SignUpdate",
      "C_SignFinal",
      "C_SignRecoverInit",
      "C_SignRecover",
      "C_VerifyInit",
      "C_Verify",
      "C_VerifyUpdate",
      "C_VerifyFinal",
      "C_VerifyRecoverInit",
      "C_VerifyRecover",
      "C_DigestEncryptUpdate",
      "C_DecryptDigestUpdate",
      "C_SignEncryptUpdate",
      "C_DecryptVerifyUpdate",
      "C_GenerateKey",
      "C_GenerateKeyPair",
      "C_WrapKey",
      "C_UnwrapKey",
      "C_DeriveKey",
      "C_SeedRandom",
      "C_GenerateRandom",
      "C_GetFunctionStatus",
      "C_CancelFunction",
      "C_WaitForSlotEvent",
  };
  ASSERT_EQ(expected.size(), 68u);
  const std::string command = std::string("nm -D --defined-only '") + ZELPH_SPY_LIB + "'";
  std::unique_ptr<FILE, CPipeCloser> pipe(popen(command.c_str(), "r"));
  ASSERT_TRUE(pipe) << "cannot run: " << command;
  std::set<std::string> exported;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    std::istringstream fields(line);
    std::string field, name;
    while (fields >> field) name = field;
    if (!name.empty()) exported.insert(name);
  }
  EXPECT_EQ(exported, expected) << "the spy must export the C_ functions and nothing else";
}

}  // namespace
}  // namespace zelph
