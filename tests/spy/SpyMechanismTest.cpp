// The spy's mechanism lines, written in this process into its trace log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "TestFiles.h"
#include "TraceLog.h"
#include "spy/SpyMechanism.h"

namespace zelph {
namespace {

template <class T>
std::vector<CK_BYTE> Of(const T& value) {
  return {reinterpret_cast<const CK_BYTE*>(&value), reinterpret_cast<const CK_BYTE*>(&value + 1)};
}
constexpr CK_MECHANISM_TYPE kNone = ~0UL;

TEST(SpyMechanismTest, EachParameterIsOneLineOfNamesAndNeverItsData) {
  const std::string& logs = TraceThisProcess();
  CK_BYTE d[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  // clang-format off
  // The line after "pMechanism = "; `null`: pParameter NULL with the parameter's length.
  const struct { int line; CK_MECHANISM_TYPE type; std::vector<CK_BYTE> parameter;
                 std::string expected; bool null = false; } rows[] = {
  {__LINE__, kNone, {}, "NULL"},
  {__LINE__, CKM_SHA256_RSA_PKCS, {}, "CKM_SHA256_RSA_PKCS"},
  {__LINE__, CKM_RSA_PKCS_PSS, Of(CK_RSA_PKCS_PSS_PARAMS{CKM_SHA256, CKG_MGF1_SHA256, 32}),
   "CKM_RSA_PKCS_PSS, hashAlg = CKM_SHA256, mgf = CKG_MGF1_SHA256, sLen = 32"},
  {__LINE__, CKM_RSA_PKCS_OAEP, Of(CK_RSA_PKCS_OAEP_PARAMS{CKM_SHA384, CKG_MGF1_SHA1, 1, d, 5}),
   "CKM_RSA_PKCS_OAEP, hashAlg = CKM_SHA384, mgf = CKG_MGF1_SHA1, source = CKZ_DATA_SPECIFIED, "
   "ulSourceDataLen = 5"},
  {__LINE__, CKM_AES_GCM, Of(CK_GCM_PARAMS{d, 12, 96, d, 16, 128}), "CKM_AES_GCM, pIv = "
   "000102030405060708090A0B (12 bytes), ulIvBits = 96, ulAADLen = 16, ulTagBits = 128"},
  {__LINE__, CKM_AES_GCM, Of(std::array<CK_ULONG, 5>{0, 12, 0, 0, 96}),  // without ulIvBits
   "CKM_AES_GCM, pIv = NULL (12 bytes), ulAADLen = 0, ulTagBits = 96"},
  {__LINE__, CKM_AES_CBC_PAD, {d, d + 16},
   "CKM_AES_CBC_PAD, iv = 000102030405060708090A0B0C0D0E0F"},
  {__LINE__, CKM_AES_CTR, Of(CK_AES_CTR_PARAMS{32, {0xA5, 1}}),
   "CKM_AES_CTR, ulCounterBits = 32, cb = A501" + std::string(28, '0')},
  {__LINE__, CKM_ECDH1_COFACTOR_DERIVE, Of(CK_ECDH1_DERIVE_PARAMS{CKD_NULL, 0, nullptr, 65, d}),
   "CKM_ECDH1_COFACTOR_DERIVE, kdf = CKD_NULL, ulSharedDataLen = 0, ulPublicDataLen = 65"},
  {__LINE__, CKM_RSA_PKCS_PSS, {d, d + 8},
   "CKM_RSA_PKCS_PSS, pParameter: 8 bytes 0001020304050607, not the 24 of CK_RSA_PKCS_PSS_PARAMS"},
  {__LINE__, CKM_AES_CBC, {d, d + 16}, "CKM_AES_CBC, pParameter = NULL, ulParameterLen = 16", true},
  {__LINE__, CKM_SHA256_HMAC_GENERAL, std::vector<CK_BYTE>(100),
   "CKM_SHA256_HMAC_GENERAL, pParameter: 100 bytes " + std::string(128, '0') + " and 36 more"},
  };
  // clang-format on
  for (const auto& [line, type, parameter, expected, null] : rows) {
    SCOPED_TRACE(testing::Message() << "row of line " << line);
    // At an odd address in a block of its size: read unaligned, and not past ulParameterLen.
    const auto block = std::make_unique<CK_BYTE[]>(parameter.size() + 1);
    std::copy(parameter.begin(), parameter.end(), block.get() + 1);
    const CK_MECHANISM mechanism{type, null ? nullptr : block.get() + 1, parameter.size()};
    const std::size_t from = ReadLogs(logs).size();
    // The call ends, and writes its lines, with the statement.
    TraceMechanismArgument(*std::make_unique<CSpyCall>("C_EncryptInit"),
                           type == kNone ? nullptr : &mechanism);
    // The first call also opens the log, with its header.
    std::string logged = "|";
    for (const std::string& text : SplitLines(ReadLogs(logs).substr(from)))
      logged += SplitTraceLine(text).text + "|";
    EXPECT_THAT(logged, testing::EndsWith("|Entering C_EncryptInit.|pMechanism = " + expected +
                                          "|Leaving C_EncryptInit.||"));
  }
}

}  // namespace
}  // namespace zelph
