// zelph-names, run as a user runs it.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "CSpyTestBed.h"

namespace zelph {
namespace {

struct CNamesCase {
  const char* title;
  const char* arguments;
  int exitCode;
  std::vector<std::string> expected;  // each must be in standard output (or error, on failure)
};

// Names a case by its title in test listings.
void PrintTo(const CNamesCase& c, std::ostream* out) {
  *out << c.title;
}

class NamesToolTest : public ::testing::TestWithParam<CNamesCase> {};

TEST_P(NamesToolTest, NamesTheNumberOrRefusesTheArguments) {
  const CNamesCase& c = GetParam();
  CSpyTestBed bed;
  const CRunResult run = bed.Run("run", ShellQuote(ZELPH_NAMES_TOOL) + " " + c.arguments, {"", ""});
  EXPECT_EQ(run.exitCode, c.exitCode) << "zelph-names " << c.arguments << "\n" << run.err;
  const std::string& text = c.exitCode == 0 ? run.out : run.err;
  for (const std::string& expected : c.expected) {
    EXPECT_NE(text.find(expected), std::string::npos)
        << "zelph-names " << c.arguments << " lacks \"" << expected << "\":\n"
        << text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, NamesToolTest,
    ::testing::Values(
        CNamesCase{"ReturnValueWithSentence",
                   "rv 0xA0",
                   0,
                   {"0x000000A0  CKR_PIN_INCORRECT\n", "The PIN value is incorrect.\n"}},
        CNamesCase{"DecimalNumber", "rv 160", 0, {"CKR_PIN_INCORRECT"}},
        CNamesCase{
            "VendorReturnValue", "rv 0x82000000", 0, {"CXR_CERT_NOT_TRUSTED", "trusted zone"}},
        CNamesCase{"SeveralNumbers", "rv 0xA0 0xA4", 0, {"CKR_PIN_INCORRECT", "CKR_PIN_LOCKED"}},
        CNamesCase{"Mechanism", "mech 0x1041", 0, {"CKM_ECDSA\n"}},
        CNamesCase{"Attribute", "attr 0x3", 0, {"CKA_LABEL\n"}},
        CNamesCase{"ObjectClass", "class 3", 0, {"CKO_PRIVATE_KEY\n"}},
        CNamesCase{"KeyType", "key 0x1F", 0, {"CKK_AES\n"}},
        CNamesCase{"CertificateType", "cert 0", 0, {"CKC_X_509\n"}},
        CNamesCase{"UserType", "user 1", 0, {"CKU_USER\n"}},
        CNamesCase{"KeySpec", "keyspec 2", 0, {"CXKEYSPEC_SIGNATURE\n"}},
        CNamesCase{"CardContainer", "container 0x80000002", 0, {"CXC_SIGN\n"}},
        CNamesCase{"PcscStatus", "scard 0x80100069", 0, {"SCARD_W_REMOVED_CARD\n"}},
        CNamesCase{"MechanismFlagsBitByBit",
                   "mechflags 0x10801",
                   0,
                   {"CKF_HW CKF_SIGN CKF_GENERATE_KEY_PAIR\n"}},
        CNamesCase{"NoTokenFlags", "tokenflags 0", 0, {"none\n"}},
        CNamesCase{"HelpListsEveryKind",
                   "--help",
                   0,
                   {"rv ", "user ", "attr ", "class ", "key ", "cert ", "mech ", "keyspec ",
                    "mechflags ", "tokenflags ", "container ", "scard "}},
        CNamesCase{"UnknownKind", "colour 1", 2, {"unknown kind \"colour\""}},
        CNamesCase{"NotANumber", "rv 0xZZ", 2, {"\"0xZZ\" is not a number"}},
        CNamesCase{"NegativeNumber", "rv -1", 2, {"is not a number"}},
        CNamesCase{"NumberBeyond64Bits", "rv 0x1FFFFFFFFFFFFFFFF", 2, {"is not a number"}},
        CNamesCase{"KindWithoutNumber", "rv", 2, {"usage: zelph-names"}}),
    [](const ::testing::TestParamInfo<CNamesCase>& info) { return info.param.title; });

}  // namespace
}  // namespace zelph
