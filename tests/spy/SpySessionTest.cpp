// Real sessions against SoftHSM2, once straight and once through the spy: the
// spy must change no result, and its log must name every call while holding
// back PINs and key material.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "CSpyTestBed.h"

namespace zelph {
namespace {

constexpr char kSoPin[] = "Sopin7391";
constexpr char kUserPin[] = "Uspin4826";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The client's report without the key material, which differs from key to key.
std::vector<std::string> Results(const std::string& clientOutput) {
  std::vector<std::string> results;
  for (const std::string& line : Lines(clientOutput)) {
    if (!line.starts_with("secret ")) results.push_back(line);
  }
  return results;
}

// The functions the client called, in order.
std::vector<std::string> CallsMade(const std::string& clientOutput) {
  std::vector<std::string> calls;
  for (const std::string& line : Lines(clientOutput)) {
    if (line.starts_with("C_")) calls.push_back(line.substr(0, line.find(' ')));
  }
  return calls;
}

// The functions a log says were entered, in order.
std::vector<std::string> CallsLogged(const std::string& log) {
  std::vector<std::string> calls;
  const std::string marker = " Entering ";
  for (const std::string& line : Lines(log)) {
    const std::size_t at = line.find(marker);
    if (at == std::string::npos) continue;
    const std::size_t begin = at + marker.size();
    calls.push_back(line.substr(begin, line.rfind('.') - begin));
  }
  return calls;
}

// The hexadecimal value of the client's "secret <name> <hex>" line.
std::string Secret(const std::string& clientOutput, const std::string& name) {
  const std::string prefix = "secret " + name + " ";
  for (const std::string& line : Lines(clientOutput)) {
    if (line.starts_with(prefix)) return line.substr(prefix.size());
  }
  return {};
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

// A log with what differs from run to run taken out, line by line: the time
// and thread prefix, every number (as "#") and the contents of the trace
// library's dumps, whose lines begin with a tab (as "<dump>"). Header and
// footer are left out, runs of blank lines count as one. What is left is the
// spy's own text, its order and indentation, and where each dump stands.
std::vector<std::string> LogStructure(const std::string& log) {
  static const std::regex prefix(
      "[0-9]{2}-[0-9]{2}_[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{6} [0-9A-F]{8}(.)\\1 ");
  static const std::regex number("[0-9]+");
  std::vector<std::string> structure;
  for (const std::string& line : Lines(log)) {
    if (line.starts_with("#")) continue;
    if (line.empty()) {
      if (!structure.empty() && !structure.back().empty()) structure.emplace_back();
      continue;
    }
    std::smatch match;
    if (!std::regex_search(line, match, prefix, std::regex_constants::match_continuous)) {
      structure.push_back("<no prefix> " + line);
      continue;
    }
    const std::string text = match.suffix().str();
    const std::size_t indent = text.find_first_not_of(' ');
    if (indent != std::string::npos && text[indent] == '\t') {
      structure.push_back(text.substr(0, indent) + "<dump>");
    } else {
      structure.push_back(std::regex_replace(text, number, "#"));
    }
  }
  while (!structure.empty() && structure.back().empty()) structure.pop_back();
  return structure;
}

std::string ReadText(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Client(const std::string& module) {
  return ShellQuote(ZELPH_SPY_CLIENT) + " " + ShellQuote(module);
}

std::string Pkcs11Tool(const std::string& module) {
  return "pkcs11-tool --module " + ShellQuote(module);
}

class SpySessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string missing;
    if (!SpyToolsAvailable(missing)) {
      GTEST_SKIP() << missing << " is not installed; `make deps` installs it";
    }
  }

  // Initialises the token and its user PIN with pkcs11-tool through `module`.
  // Returns the logs of both runs.
  std::string InitToken(const std::string& module) {
    const CRunResult token = bed_.Run(
        "init-token", Pkcs11Tool(module) + " --init-token --label zelph --so-pin " + kSoPin);
    EXPECT_EQ(token.exitCode, 0) << "pkcs11-tool --init-token failed: " << token.err;
    const CRunResult pin = bed_.Run(
        "init-pin", Pkcs11Tool(module) + " --token-label zelph --login --login-type so --so-pin " +
                        kSoPin + " --init-pin --pin " + kUserPin);
    EXPECT_EQ(pin.exitCode, 0) << "pkcs11-tool --init-pin failed: " << pin.err;
    return token.log + pin.log;
  }

  CSpyTestBed bed_;
};

TEST_F(SpySessionTest, KeyGenerationAndSigningGiveTheSameResultsThroughTheSpy) {
  InitToken(kSoftHsmModule);
  const std::string session = std::string(" session ") + kUserPin + " ";
  const CRunResult direct = bed_.Run("direct", Client(kSoftHsmModule) + session + "direct-key");
  const CRunResult spied = bed_.Run("spied", Client(ZELPH_SPY_LIB) + session + "spied-key");
  ASSERT_EQ(direct.exitCode, 0) << "the session failed without the spy:\n" << direct.out;
  ASSERT_EQ(spied.exitCode, 0) << "the session failed through the spy:\n" << spied.out;
  EXPECT_EQ(Results(spied.out), Results(direct.out))
      << "a call returned something else through the spy";

  // PKCS#1 v1.5 signatures are deterministic: the same key must give the same bytes.
  const std::string sign = std::string(" sign ") + kUserPin + " spied-key";
  const CRunResult signDirect = bed_.Run("sign-direct", Client(kSoftHsmModule) + sign);
  const CRunResult signSpied = bed_.Run("sign-spied", Client(ZELPH_SPY_LIB) + sign);
  ASSERT_EQ(signDirect.exitCode, 0) << signDirect.out;
  ASSERT_EQ(signSpied.exitCode, 0) << signSpied.out;
  EXPECT_NE(signSpied.out.find("value signature "), std::string::npos) << signSpied.out;
  EXPECT_EQ(signSpied.out, signDirect.out) << "the spy changed a signature or a result";
}

TEST_F(SpySessionTest, LogNamesEveryCallInTheOrderMadeWithItsResult) {
  InitToken(kSoftHsmModule);
  const CRunResult spied =
      bed_.Run("spied", Client(ZELPH_SPY_LIB) + " session " + kUserPin + " key");
  ASSERT_EQ(spied.exitCode, 0) << spied.out;

  const std::vector<std::string> made = CallsMade(spied.out);
  ASSERT_GT(made.size(), 20u) << "the client made too few calls to judge:\n" << spied.out;
  EXPECT_EQ(CallsLogged(spied.log), made) << "the log's Entering lines differ from the calls made";
  EXPECT_EQ(Count(spied.log, " Leaving C_"), made.size()) << "a call has no Leaving line";
  EXPECT_EQ(Count(spied.log, " Returns CKR_"), made.size()) << "a call has no named result";
  // All calls succeed but the read of a sensitive key's value; the refused
  // attribute is shown without its (unwritten) buffer.
  EXPECT_EQ(Count(spied.log, " Returns CKR_OK\n"), made.size() - 1);
  EXPECT_EQ(Count(spied.log, " Returns CKR_ATTRIBUTE_SENSITIVE\n"), 1u);
  EXPECT_NE(spied.log.find("\tCKA_VALUE\tLen=-1\t(data NULL)\n"), std::string::npos)
      << "the refused attribute is not shown as unavailable";
}

// The golden log was taken from the spy while it wrote every line with a
// trace call of its own; the spy must still write the same lines in the same
// order, each behind its prefix.
TEST_F(SpySessionTest, LogReadsLineForLineAsTheGoldenLog) {
  InitToken(kSoftHsmModule);
  const CRunResult init = bed_.Run("init", Client(ZELPH_SPY_LIB) + " init");
  const CRunResult session =
      bed_.Run("session", Client(ZELPH_SPY_LIB) + " session " + kUserPin + " golden");
  ASSERT_EQ(init.exitCode, 0) << init.out;
  ASSERT_EQ(session.exitCode, 0) << session.out;

  const std::vector<std::string> actual = LogStructure(init.log + session.log);
  const std::vector<std::string> golden = Lines(ReadText(ZELPH_SPY_GOLDEN_LOG));
  ASSERT_GT(golden.size(), 100u) << "cannot read " << ZELPH_SPY_GOLDEN_LOG;
  const std::size_t same =
      std::mismatch(actual.begin(), actual.end(), golden.begin(), golden.end()).first -
      actual.begin();
  EXPECT_TRUE(same == actual.size() && same == golden.size())
      << "the log departs from " << ZELPH_SPY_GOLDEN_LOG << " at its line " << same + 1
      << ":\n  golden: " << (same < golden.size() ? golden[same] : "<end>")
      << "\n  actual: " << (same < actual.size() ? actual[same] : "<end>");
}

TEST_F(SpySessionTest, ApplicationLabelReachesTheLogUnchanged) {
  // A label in UTF-8 with a per-cent sign: written as given, not recoded to
  // ISO-8859-1 and not read as a conversion.
  const std::string label = "zelph 100% %s \xC3\xBC";
  const CRunResult token =
      bed_.Run("init-token", Pkcs11Tool(ZELPH_SPY_LIB) + " --init-token --label " +
                                 ShellQuote(label) + " --so-pin " + kSoPin);
  ASSERT_EQ(token.exitCode, 0) << token.err;
  EXPECT_NE(token.log.find("pLabel = \"" + label + " "), std::string::npos)
      << "C_InitToken's label is not in the log as the application gave it:\n"
      << token.log;
}

TEST_F(SpySessionTest, LogHoldsNoPinAndNoKeyMaterial) {
  std::string log = InitToken(ZELPH_SPY_LIB);
  const CRunResult spied =
      bed_.Run("spied", Client(ZELPH_SPY_LIB) + " session " + kUserPin + " key");
  ASSERT_EQ(spied.exitCode, 0) << spied.out;
  log += spied.log;

  // The calls that carry the secrets went through the spy and were traced.
  for (const char* expected :
       {"Entering C_InitToken.", "Entering C_InitPIN.", "Entering C_Login.",
        "CKA_PRIVATE_EXPONENT\tLen=", "CKA_VALUE\tLen=32\t<undisclosed, length is 32>"}) {
    EXPECT_NE(log.find(expected), std::string::npos) << "the log lacks: " << expected;
  }
  EXPECT_EQ(log.find(kSoPin), std::string::npos) << "the SO PIN is in the log";
  EXPECT_EQ(log.find(kUserPin), std::string::npos) << "the user PIN is in the log";

  for (const char* name : {"private-exponent", "aes-value"}) {
    const std::string hex = Secret(spied.out, name);
    ASSERT_GE(hex.size(), 64u) << "the client did not read " << name << ":\n" << spied.out;
    EXPECT_EQ(log.find(hex.substr(0, 32)), std::string::npos) << name << " is in the log (hex)";
    EXPECT_EQ(log.find(Lower(hex.substr(0, 32))), std::string::npos)
        << name << " is in the log (lower-case hex)";
    EXPECT_EQ(log.find(FromHex(hex.substr(0, 32))), std::string::npos)
        << name << " is in the log (raw bytes)";
  }
}

TEST_F(SpySessionTest, Pkcs11ToolTestGivesTheSameOutputThroughTheSpy) {
  InitToken(kSoftHsmModule);
  const std::string login = std::string(" --token-label zelph --login --pin ") + kUserPin;
  const CRunResult keys = bed_.Run("keygen", Pkcs11Tool(kSoftHsmModule) + login +
                                                 " --keypairgen --key-type rsa:2048 --id 01"
                                                 " --label tool-key");
  ASSERT_EQ(keys.exitCode, 0) << keys.err;

  const CRunResult direct = bed_.Run("test-direct", Pkcs11Tool(kSoftHsmModule) + login + " --test");
  const CRunResult spied = bed_.Run("test-spied", Pkcs11Tool(ZELPH_SPY_LIB) + login + " --test");
  EXPECT_EQ(spied.exitCode, direct.exitCode);
  EXPECT_EQ(spied.out, direct.out) << "pkcs11-tool --test printed something else through the spy";
  EXPECT_EQ(spied.err, direct.err);
  EXPECT_NE(spied.log.find("Entering C_VerifyInit."), std::string::npos)
      << "pkcs11-tool's test did not go through the spy";
}

}  // namespace
}  // namespace zelph
