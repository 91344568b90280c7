// zelph-names run as a program: each kind of number, the standard names the
// trace library does not know, and what it refuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CChildProcess.h"

namespace zelph {
namespace {

TEST(NamesToolTest, NamesEachKindOfNumberAndRefusesWhatIsNoNumber) {
  // clang-format off
  // The start of standard output, or of standard error when the tool fails.
  const struct { int line; std::vector<std::string> args; int exit; std::string text; } cases[] = {
      {__LINE__, {"rv", "0xA0", "164"}, 0, "0x000000A0  CKR_PIN_INCORRECT\n            The PIN "
                                           "value is incorrect.\n0x000000A4  CKR_PIN_LOCKED\n"},
      {__LINE__, {"mech", "0x1087"}, 0, "0x00001087  CKM_AES_GCM\n\""},
      {__LINE__, {"attr", "0x202"}, 0, "0x00000202  CKA_ALWAYS_AUTHENTICATE\n\""},
      {__LINE__, {"key", "3"}, 0, "0x00000003  CKK_EC\n\""},  // not the old CKK_ECDSA
      {__LINE__, {"attr", "0x80000064"}, 0, "0x80000064  CXA_CONTAINER_NAME\n\""},
      {__LINE__, {"mech", "0x80000123"}, 0, "0x80000123  CKM_VENDOR_DEFINED+0x123\n\""},
      {__LINE__, {"class", "0x1234"}, 0, "0x00001234  0x00001234\n\""},  // no name at all
      {__LINE__, {"rv", "0x1B8"}, 0, "0x000001B8  CKR_PIN_TOO_WEAK\n"},  // p11-kit 0.24: 0x1C3
      {__LINE__, {"state", "3"}, 0, "0x00000003  CKS_RW_USER_FUNCTIONS\n\""},
      {__LINE__, {"mgf", "2"}, 0, "0x00000002  CKG_MGF1_SHA256\n\""},
      {__LINE__, {"kdf", "6"}, 0, "0x00000006  CKD_SHA256_KDF\n\""},
      {__LINE__, {"source", "1"}, 0, "0x00000001  CKZ_DATA_SPECIFIED\n\""},
      {__LINE__, {"profile", "3"}, 0, "0x00000003  CKP_AUTHENTICATION_TOKEN\n\""},
      {__LINE__, {"sessionflags", "6"}, 0, "0x00000006  CKF_RW_SESSION | CKF_SERIAL_SESSION\n\""},
      {__LINE__, {"sessionflags", "0x9"}, 0, "0x00000009  0x00000009\n\""},  // no RNG bit
      {__LINE__, {"mechflags", "0x800801"}, 0, "0x00800801  CKF_HW | CKF_SIGN | CKF_EC_OID\n\""},
      {__LINE__, {"slotflags", "5"}, 0, "0x00000005  CKF_TOKEN_PRESENT | CKF_HW_SLOT\n\""},
      {__LINE__, {"initflags", "2"}, 0, "0x00000002  CKF_OS_LOCKING_OK\n\""},
      {__LINE__, {"tokenflags", "0x100060D"}, 0, "0x0100060D  CKF_RNG | CKF_LOGIN_REQUIRED | "
          "CKF_USER_PIN_INITIALIZED |\n            CKF_DUAL_CRYPTO_OPERATIONS | "
          "CKF_TOKEN_INITIALIZED | CKF_ERROR_STATE\n\""},  // wrapped before column 80
      {__LINE__, {"tokenflags", "0"}, 0, "0x00000000  0\n\""},
      {__LINE__, {"--help"}, 0, "usage: zelph-names <kind> <number>...\n"},
      {__LINE__, {"colour", "1"}, 2, "zelph-names: unknown kind \"colour\""},
      {__LINE__, {"rv", "0xA0z"}, 2, "zelph-names: \"0xA0z\" is not a number"},
      {__LINE__, {"rv", "0x1FFFFFFFFFFFFFFFF"}, 2, "zelph-names: \"0x1FFFFFFFFFFFFFFFF\" is not a"},
      {__LINE__, {"rv"}, 2, "usage: zelph-names"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "line " << c.line);
    std::vector<std::string> command = {ZELPH_NAMES_TOOL};
    command.insert(command.end(), c.args.begin(), c.args.end());
    const std::string ran = RunToEnd({command, {}, {}, {}});
    EXPECT_TRUE(ran.starts_with("exit status " + std::to_string(c.exit) + "; stdout: \"" +
                                (c.exit == 0 ? "" : "\"; stderr: \"") + c.text))
        << ran;
  }
}

}  // namespace
}  // namespace zelph
