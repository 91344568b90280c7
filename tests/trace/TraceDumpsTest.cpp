// The dumps of PKCS#11 structures as they show in a real log: every rendering
// of an attribute, the withheld key material, mechanisms and token info.
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TraceLogHarness.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

// An attribute type with the name the log gives it.
#define NAMED(type) type, #type

std::string Number(unsigned long long value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%llX", value);
  return text;
}

// The script's value of one CK_ULONG.
std::string U(unsigned long long value) {
  return "u" + Number(value);
}

std::string HexOf(const std::string& bytes) {
  std::string hex;
  char pair[3];
  for (const unsigned char c : bytes) {
    std::snprintf(pair, sizeof pair, "%02X", c);
    hex += pair;
  }
  return hex;
}

// Bytes that stand out in a log: the key material no dump may show.
std::string SecretBytes(int n) {
  std::string bytes;
  while (bytes.size() < 32) bytes += std::string{'\xC0', '\xFE', '\xBA', static_cast<char>(n)};
  return bytes;
}

// One attribute of a TraceTemplate call and the end of the line it must give.
struct AttributeCase {
  const char* name;
  CK_ATTRIBUTE_TYPE type;
  const char* typeName;
  long long length;   // as the caller passes it; -1 is the unavailable value
  std::string value;  // in the script's form: "-", "x...", "u..." or "t..."
  std::string rendering;
};

std::string AttributeToken(const AttributeCase& c) {
  return Number(c.type) + "," + Number(static_cast<unsigned long long>(c.length)) + "," + c.value;
}

std::string AttributeLine(const AttributeCase& c) {
  return std::string("\t") + c.typeName +
         "\tLen=" + std::to_string(static_cast<int>(static_cast<unsigned long long>(c.length))) +
         "\t" + c.rendering;
}

std::vector<AttributeCase> RenderingCases() {
  std::vector<AttributeCase> cases = {
      {"ClassName", NAMED(CKA_CLASS), 8, U(CKO_PRIVATE_KEY), "CKO_PRIVATE_KEY"},
      {"ClassVendor", NAMED(CKA_CLASS), 8, U(CXO_CONTAINER), "CXO_CONTAINER"},
      {"ClassUnknown", NAMED(CKA_CLASS), 8, U(7), "Unknown"},
      {"ClassWrongLengthIsHex", NAMED(CKA_CLASS), 4, "x03000000", "03000000"},
      {"ClassEmpty", NAMED(CKA_CLASS), 0, "x", "(empty)"},
      {"CertificateType", NAMED(CKA_CERTIFICATE_TYPE), 8, U(CKC_X_509), "CKC_X_509"},
      {"KeyType", NAMED(CKA_KEY_TYPE), 8, U(CKK_RSA), "CKK_RSA"},
      {"KeyTypeUnknown", NAMED(CKA_KEY_TYPE), 8, U(0x12345), "Unknown"},
      {"Mechanism", NAMED(CKA_KEY_GEN_MECHANISM), 8, U(CKM_RSA_PKCS_KEY_PAIR_GEN),
       "CKM_RSA_PKCS_KEY_PAIR_GEN"},
      {"MechanismUnknown", NAMED(CKA_KEY_GEN_MECHANISM), 8, U(0x80001234), "unknown (0x80001234)"},
      {"KeySpec", NAMED(CXA_CONTAINER_KEYSPEC), 8, U(CXKEYSPEC_SIGNATURE), "CXKEYSPEC_SIGNATURE"},
      {"CardContainer", NAMED(CXA_CARD_CONTAINER), 8, U(CXC_SIGN), "CXC_SIGN (0x80000002)"},
      {"CardContainerUnknown", NAMED(CXA_CARD_CONTAINER), 8, U(0x1234), "Unknown (0x00001234)"},
      {"CardContainerLow32Bits", NAMED(CXA_CARD_CONTAINER), 8, U(0x100000005),
       "Unknown (0x00000005)"},
      {"BooleanTrue", NAMED(CKA_TOKEN), 1, "x01", "TRUE (1)"},
      {"BooleanFalse", NAMED(CKA_TOKEN), 1, "x00", "FALSE (0)"},
      {"BooleanTwo", NAMED(CKA_TOKEN), 1, "x02", "TRUE (2)"},
      {"BooleanByteIsUnsigned", NAMED(CKA_PRIVATE), 1, "xFF", "TRUE (255)"},
      {"BooleanEmpty", NAMED(CKA_TOKEN), 0, "x", "(empty)"},
      {"BooleanFourBytesIsHex", NAMED(CKA_TOKEN), 4, "x0100ABCD", "0100ABCD"},
      {"IntegerModulusBits", NAMED(CKA_MODULUS_BITS), 8, U(2048), "2048 (0x00000800)"},
      {"IntegerAllBitsSet", NAMED(CKA_VALUE_LEN), 8, U(~0ULL), "-1 (0xFFFFFFFF)"},
      {"IntegerLow32Bits", NAMED(CKA_VALUE_BITS), 8, U(0x100000010), "16 (0x00000010)"},
      {"IntegerWrongLengthIsHex", NAMED(CKA_MODULUS_BITS), 2, "x0800", "0800"},
      {"IntegerEmpty", NAMED(CKA_MODULUS_BITS), 0, "x", "(empty)"},
      {"Date", NAMED(CKA_START_DATE), 8, "t20240305", "20240305"},
      {"DateWrongLengthIsHex", NAMED(CKA_END_DATE), 6, "t202403", "323032343033"},
      {"TextCutToLength", NAMED(CKA_LABEL), 5, "tabcdefgh", "\"abcde\""},
      {"TextEmptyIsTwoQuotes", NAMED(CKA_LABEL), 0, "tabc", "\"\""},
      {"TextStopsAtNul", NAMED(CKA_LABEL), 7, "x61626300646566", "\"abc\""},
      {"TextIsNotAFormat", NAMED(CKA_LABEL), 4, "t%s%d", "\"%s%d\""},
      {"TextApplication", NAMED(CKA_APPLICATION), 3, "tapp", "\"app\""},
      {"TextContainerName", NAMED(CXA_CONTAINER_NAME), 4, "tkey1", "\"key1\""},
      {"HexModulus", NAMED(CKA_MODULUS), 3, "x00A1B2", "00A1B2"},
      {"HexPublicExponent", NAMED(CKA_PUBLIC_EXPONENT), 3, "x010001", "010001"},
      {"HexEmpty", NAMED(CKA_ID), 0, "x", "(empty)"},
      {"HexUnnamedVendorAttribute", 0x80000066, "Unknown", 1, "x0A", "0A"},
      {"NullValue", NAMED(CKA_MODULUS), 256, "-", "(data NULL)"},
      {"NullValueUnavailableLength", NAMED(CKA_LABEL), -1, "-", "(data NULL)"},
      {"SecretOfLengthZero", NAMED(CKA_VALUE), 0, "x", "<undisclosed, length is 0>"},
      // What C_GetAttributeValue leaves for an attribute it cannot reveal: the
      // buffer is there, but nothing behind it may be read.
      {"UnavailableHex", NAMED(CKA_MODULUS), -1, "x00A1", "(unavailable)"},
      {"UnavailableText", NAMED(CKA_LABEL), -1, "tabc", "(unavailable)"},
      {"UnavailableBoolean", NAMED(CKA_TOKEN), -1, "x01", "(unavailable)"},
      {"UnavailableSecret", NAMED(CKA_PRIVATE_EXPONENT), -1, "x01", "<undisclosed, length is -1>"},
  };
  std::string longValue;
  for (int i = 0; i < 300; ++i) longValue += static_cast<char>(i);
  cases.push_back(
      {"HexWithoutLimit", NAMED(CKA_SUBJECT), 300, "x" + HexOf(longValue), HexOf(longValue)});
  // Every type of the boolean and integer kinds, so that none falls to hex.
  const std::pair<CK_ATTRIBUTE_TYPE, const char*> booleans[] = {
      {NAMED(CKA_TOKEN)},
      {NAMED(CKA_PRIVATE)},
      {NAMED(CKA_TRUSTED)},
      {NAMED(CKA_SENSITIVE)},
      {NAMED(CKA_ENCRYPT)},
      {NAMED(CKA_DECRYPT)},
      {NAMED(CKA_WRAP)},
      {NAMED(CKA_UNWRAP)},
      {NAMED(CKA_SIGN)},
      {NAMED(CKA_SIGN_RECOVER)},
      {NAMED(CKA_VERIFY)},
      {NAMED(CKA_VERIFY_RECOVER)},
      {NAMED(CKA_DERIVE)},
      {NAMED(CKA_EXTRACTABLE)},
      {NAMED(CKA_LOCAL)},
      {NAMED(CKA_NEVER_EXTRACTABLE)},
      {NAMED(CKA_ALWAYS_SENSITIVE)},
      {NAMED(CKA_MODIFIABLE)},
      {NAMED(CKA_SECONDARY_AUTH)},
      {NAMED(CKA_RESET_ON_INIT)},
      {NAMED(CKA_HAS_RESET)},
  };
  for (const auto& [type, name] : booleans) {
    cases.push_back({"BooleanKind", type, name, 1, "x01", "TRUE (1)"});
  }
  const std::pair<CK_ATTRIBUTE_TYPE, const char*> integers[] = {
      {NAMED(CKA_MODULUS_BITS)},  {NAMED(CKA_PRIME_BITS)},
      {NAMED(CKA_SUBPRIME_BITS)}, {NAMED(CKA_VALUE_BITS)},
      {NAMED(CKA_VALUE_LEN)},     {NAMED(CKA_AUTH_PIN_FLAGS)},
      {NAMED(CXA_VSLOT)},         {NAMED(CXA_ACTIVATE_CONTAINER_COUNT)},
  };
  for (const auto& [type, name] : integers) {
    cases.push_back({"IntegerKind", type, name, 8, U(160), "160 (0x000000A0)"});
  }
  return cases;
}

// The key material: CKA_VALUE for any object and the RSA private parts.
const std::pair<CK_ATTRIBUTE_TYPE, const char*> kSecrets[] = {
    {NAMED(CKA_VALUE)},       {NAMED(CKA_PRIVATE_EXPONENT)}, {NAMED(CKA_PRIME_1)},
    {NAMED(CKA_PRIME_2)},     {NAMED(CKA_EXPONENT_1)},       {NAMED(CKA_EXPONENT_2)},
    {NAMED(CKA_COEFFICIENT)},
};

std::vector<AttributeCase> SecretCases() {
  std::vector<AttributeCase> cases;
  int n = 0;
  for (const auto& [type, name] : kSecrets) {
    cases.push_back(
        {"Secret", type, name, 32, "x" + HexOf(SecretBytes(n++)), "<undisclosed, length is 32>"});
  }
  return cases;
}

// Script lines calling TraceTemplate with the cases, a few attributes a call.
std::string TemplateCalls(const std::vector<AttributeCase>& cases, bool omitValues) {
  std::string script;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    if (i % 16 == 0) script += omitValues ? "template 1" : "template 0";
    script += " " + AttributeToken(cases[i]);
    if (i % 16 == 15 || i + 1 == cases.size()) script += "\n";
  }
  return script;
}

TEST(TraceDumpsTest, TemplateRendersEveryKindAndWithholdsKeyMaterial) {
  std::vector<AttributeCase> cases = RenderingCases();
  // A certificate's value is withheld like a key's.
  cases.push_back({"CertificateClass", NAMED(CKA_CLASS), 8, U(CKO_CERTIFICATE), "CKO_CERTIFICATE"});
  for (const AttributeCase& secret : SecretCases()) cases.push_back(secret);

  const CTracedRun run(TemplateCalls(cases, false) + "template 0\n");
  const std::string tid = run.Driver().MainThreadId();
  const std::vector<std::string>& body = run.Body();
  ASSERT_EQ(body.size(), cases.size() + 1)
      << "one line per attribute after the first blank line, nothing for an empty template";
  for (std::size_t i = 0; i < cases.size(); ++i) {
    ExpectLines({body[i + 1]}, {TraceLine(tid, '.', 0, AttributeLine(cases[i]))},
                std::string(cases[i].name) + " " + cases[i].typeName);
  }
  for (const AttributeCase& secret : SecretCases()) {
    const std::string bytes = secret.value.substr(1);
    EXPECT_EQ(run.LogText().find(bytes.substr(0, 8)), std::string::npos)
        << "key material of " << secret.typeName << " appears in the log";
  }
  EXPECT_EQ(run.LogText().find("\xC0\xFE\xBA"), std::string::npos) << "raw key bytes in the log";
  EXPECT_EQ(run.LogText().find("c0feba"), std::string::npos) << "key material in the log";
}

TEST(TraceDumpsTest, TemplateWithOmittedValuesReadsNoValue) {
  std::vector<AttributeCase> cases = {
      {"Class", NAMED(CKA_CLASS), 8, U(CKO_PRIVATE_KEY), "(data present)"},
      {"Label", NAMED(CKA_LABEL), 5, "tabcde", "(data present)"},
      {"EmptyBoolean", NAMED(CKA_TOKEN), 0, "x", "(data present)"},
      {"NullStaysNull", NAMED(CKA_MODULUS), 128, "-", "(data NULL)"},
  };
  for (AttributeCase secret : SecretCases()) {
    secret.rendering = "(data present)";
    cases.push_back(secret);
  }
  const CTracedRun run(TemplateCalls(cases, true));
  const std::string tid = run.Driver().MainThreadId();
  std::vector<std::string> expected = {""};
  for (const AttributeCase& c : cases) expected.push_back(TraceLine(tid, '.', 0, AttributeLine(c)));
  ExpectLines(run.Body(), expected, "template with values omitted");
  EXPECT_EQ(run.LogText().find("C0FEBA"), std::string::npos) << "key material in the log";
}

// A dump call and the texts of the lines it must write. Lines that start with
// "|" are bare (no prefix); the prefix is the main thread's at depth 0.
struct DumpCase {
  const char* name;
  std::string tokens;
  std::vector<std::string> lines;
};

// A label padded with blanks so that the values line up.
std::string Label(const std::string& label, std::size_t width) {
  return "\t" + label + std::string(width - label.size(), ' ');
}

std::vector<DumpCase> DumpCases() {
  std::string longParameter;
  for (int i = 0; i < 200; ++i) longParameter += static_cast<char>(255 - i);
  const std::string fullLabel = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
  const std::string mechanismFlags =
      Number(CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_DIGEST | CKF_SIGN | CKF_SIGN_RECOVER |
             CKF_VERIFY | CKF_VERIFY_RECOVER | CKF_GENERATE | CKF_GENERATE_KEY_PAIR | CKF_WRAP |
             CKF_UNWRAP | CKF_DERIVE | CKF_EC_F_P | CKF_EC_F_2M | CKF_EC_ECPARAMETERS |
             CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS | CKF_EC_COMPRESS | CKF_EXTENSION);
  return {
      {"MechanismWithoutParameter",
       "mechanism " + Number(CKM_RSA_PKCS) + " 0 -",
       {"\tCKM_RSA_PKCS"}},
      {"MechanismWithParameter",
       "mechanism " + Number(CKM_RSA_PKCS_OAEP) + " 3 x01ABFF",
       {"\tCKM_RSA_PKCS_OAEP", "\tParameter: 01ABFF"}},
      {"MechanismParameterWithoutLength",
       "mechanism " + Number(CKM_AES_CBC) + " 0 x0011",
       {"\tCKM_AES_CBC"}},
      {"MechanismLengthWithoutParameter",
       "mechanism " + Number(CKM_AES_CBC) + " 16 -",
       {"\tCKM_AES_CBC"}},
      {"MechanismUnknown", "mechanism 0x80001234 0 -", {"\tunknown (0x80001234)"}},
      {"MechanismLongParameter",
       "mechanism " + Number(CKM_SHA256) + " 200 x" + HexOf(longParameter),
       {"\tCKM_SHA256", "\tParameter: " + HexOf(longParameter)}},
      {"MechanismInfoFlagsInBitOrder",
       "mechinfo 1024 4096 " + Number(CKF_SIGN | CKF_HW),
       {Label("Min key size:", 14) + "1024", Label("Max key size:", 14) + "4096",
        Label("Flags:", 14) + "CKF_HW CKF_SIGN "}},
      {"MechanismInfoNoFlags",
       "mechinfo 0 0 0",
       {Label("Min key size:", 14) + "0", Label("Max key size:", 14) + "0",
        Label("Flags:", 14) + "none", "|"}},
      {"MechanismInfoUnknownAndHighBits",
       "mechinfo 0xFFFFFFFF 0x100000800 " +
           Number(CKF_ENCRYPT | (1UL << 26) | CKF_EXTENSION | (1UL << 40)),
       {Label("Min key size:", 14) + "-1", Label("Max key size:", 14) + "2048",
        Label("Flags:", 14) + "CKF_ENCRYPT Unknown CKF_EXTENSION "}},
      {"MechanismInfoEveryKnownFlag",
       "mechinfo 1 2 " + mechanismFlags,
       {Label("Min key size:", 14) + "1", Label("Max key size:", 14) + "2",
        Label("Flags:", 14) +
            "CKF_HW CKF_ENCRYPT CKF_DECRYPT CKF_DIGEST CKF_SIGN CKF_SIGN_RECOVER CKF_VERIFY "
            "CKF_VERIFY_RECOVER CKF_GENERATE CKF_GENERATE_KEY_PAIR CKF_WRAP CKF_UNWRAP "
            "CKF_DERIVE CKF_EC_F_P CKF_EC_F_2M CKF_EC_ECPARAMETERS CKF_EC_NAMEDCURVE "
            "CKF_EC_UNCOMPRESS CKF_EC_COMPRESS CKF_EXTENSION "}},
      {"TokenInfo",
       "tokeninfo My\\sToken Zwmware Model\\s7 0123456789ABCDEF " +
           Number(CKF_RNG | CKF_LOGIN_REQUIRED | 0x10 | CKF_TOKEN_INITIALIZED) +
           " 8 4 32768 16384 65536 1024 2.17 255.0",
       {Label("Label:", 22) + "\"My Token" + std::string(24, ' ') + "\"",
        Label("Manufacturer:", 22) + "\"Zwmware" + std::string(25, ' ') + "\"",
        Label("Model:", 22) + "\"Model 7" + std::string(9, ' ') + "\"",
        Label("Serial number:", 22) + "\"0123456789ABCDEF\"",
        Label("Flags:", 22) + "CKF_RNG CKF_LOGIN_REQUIRED Unknown CKF_TOKEN_INITIALIZED ",
        Label("Max PIN length:", 22) + "8", Label("Min PIN length:", 22) + "4",
        Label("Total public memory:", 22) + "32768", Label("Free public memory:", 22) + "16384",
        Label("Total private memory:", 22) + "65536", Label("Free private memory:", 22) + "1024",
        Label("Hardware version:", 22) + "2.17", Label("Firmware version:", 22) + "255.0"}},
      {"TokenInfoFullFieldsNoFlagsUnavailableMemory",
       "tokeninfo " + fullLabel + " " + fullLabel + " 0123456789abcdef FEDCBA9876543210 0 " +
           "255 0 0xFFFFFFFFFFFFFFFF 0xFFFFFFFFFFFFFFFF 0 0x80000000 0.0 1.2",
       {Label("Label:", 22) + "\"" + fullLabel + "\"",
        Label("Manufacturer:", 22) + "\"" + fullLabel + "\"",
        Label("Model:", 22) + "\"0123456789abcdef\"",
        Label("Serial number:", 22) + "\"FEDCBA9876543210\"", Label("Flags:", 22) + "none", "|",
        Label("Max PIN length:", 22) + "255", Label("Min PIN length:", 22) + "0",
        Label("Total public memory:", 22) + "-1", Label("Free public memory:", 22) + "-1",
        Label("Total private memory:", 22) + "0", Label("Free private memory:", 22) + "-2147483648",
        Label("Hardware version:", 22) + "0.0", Label("Firmware version:", 22) + "1.2"}},
  };
}

TEST(TraceDumpsTest, MechanismAndTokenDumpsWriteTheirExactLines) {
  const std::vector<DumpCase> cases = DumpCases();
  std::string script;
  for (const DumpCase& c : cases) script += c.tokens + "\n";
  const CTracedRun run(script);
  const std::string tid = run.Driver().MainThreadId();

  const std::vector<std::string>& body = run.Body();
  ASSERT_FALSE(body.empty());
  std::size_t at = 1;  // after the first output's blank line
  for (const DumpCase& c : cases) {
    std::vector<std::string> expected;
    for (const std::string& text : c.lines) {
      expected.push_back(text == "|" ? "" : TraceLine(tid, '.', 0, text));
    }
    const std::size_t end = std::min(body.size(), at + expected.size());
    ExpectLines(std::vector<std::string>(body.begin() + at, body.begin() + end), expected, c.name);
    at = end;
    if (testing::Test::HasFailure()) break;  // the rest would be out of step
  }
  EXPECT_EQ(at, body.size()) << "more lines than the dumps account for";
  EXPECT_EQ(run.LogText().find("4711"), std::string::npos) << "session counts are not dumped";
  EXPECT_EQ(run.LogText().find("2099"), std::string::npos) << "the UTC time is not dumped";
}

#undef NAMED

}  // namespace
}  // namespace zelph
