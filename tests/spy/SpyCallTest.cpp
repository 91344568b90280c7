// The spy's line collector and line writers, run in this process against the
// real trace library with tracing on: what they write must read line for
// line as the spy's log always has, whatever the batching.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "spy/CSpyCall.h"
#include "spy/SpyTrace.h"

namespace zelph {
namespace {

// Switches tracing on for this process, into a directory of its own, before
// the first trace call: the trace library decides once per process.
class CTraceOnEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "zelph-spy-call-test.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    std::ofstream(dir_ / "zelph.conf")
        << "Quillon {\n\tEnableTrace = 1\n\tTrace = " << dir_.string() << "\n}\n";
    ASSERT_EQ(setenv("ZELPH_CONFFILE", (dir_ / "zelph.conf").c_str(), 1), 0);
    // Opens the log, so that its header lies before what every test reads.
    TraceString("Spy call tests");
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  const std::filesystem::path& GetDir() const noexcept { return dir_; }

 private:
  std::filesystem::path dir_;
};

auto* const traceOn =
    static_cast<CTraceOnEnvironment*>(::testing::AddGlobalTestEnvironment(new CTraceOnEnvironment));

// The whole log this process has written so far.
std::string ReadLog() {
  for (const auto& entry : std::filesystem::directory_iterator(traceOn->GetDir())) {
    if (entry.path().extension() != ".log") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  return {};
}

// The log's lines from byte `from` on, each without its time and thread
// prefix (a line without one is marked), leading blank lines left out.
std::vector<std::string> LinesSince(std::size_t from) {
  static const std::regex prefix(
      "[0-9]{2}-[0-9]{2}_[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{6} [0-9A-F]{8}(.)\\1 ");
  std::istringstream in(ReadLog().substr(from));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    std::smatch match;
    if (line.empty()) {
      if (!lines.empty()) lines.emplace_back();
    } else if (std::regex_search(line, match, prefix, std::regex_constants::match_continuous)) {
      lines.push_back(match.suffix().str());
    } else {
      lines.push_back("<no prefix> " + line);
    }
  }
  return lines;
}

// Writes `body` inside a traced call and returns the lines it left.
template <class Body>
std::vector<std::string> Traced(const char* name, Body body) {
  const std::size_t from = ReadLog().size();
  {
    CSpyCall call(name);
    body(call);
  }
  return LinesSince(from);
}

// A blank-padded, unterminated text field of a PKCS#11 structure.
template <std::size_t N>
void Fill(CK_UTF8CHAR (&field)[N], const char* text) {
  std::memset(field, ' ', N);
  std::memcpy(field, text, std::strlen(text));
}

// How such a field of `width` bytes holding `text` is shown: quoted, blanks
// and all.
std::string Quoted(const std::string& text, std::size_t width) {
  return "\"" + text + std::string(width - text.size(), ' ') + "\"";
}

struct CCallCase {
  const char* title;
  const char* name;
  void (*body)(CSpyCall& call);
  std::vector<std::string> expected;
};

void PrintTo(const CCallCase& c, std::ostream* out) {
  *out << c.title;
}

class SpyCallLinesTest : public ::testing::TestWithParam<CCallCase> {};

TEST_P(SpyCallLinesTest, LogReadsLineForLineAsExpected) {
  const CCallCase& c = GetParam();
  EXPECT_EQ(Traced(c.name, c.body), c.expected)
      << "the lines of the call are missing, out of order, changed or without their prefix";
}

const CK_BYTE kData[23] = {};
const CK_ULONG kSignatureLength = 256;

INSTANTIATE_TEST_SUITE_P(
    Cases, SpyCallLinesTest,
    ::testing::Values(
        CCallCase{"InputsOutputsAndResultAtTheirPlaces",
                  "C_Sign",
                  [](CSpyCall& call) {
                    TraceNumber(call, "hSession", 7);
                    TraceInputBuffer(call, "pData", kData, sizeof kData);
                    TraceOutputBuffer(call, "pSignature", nullptr, "*pulSignatureLen",
                                      &kSignatureLength);
                    call.FlushLines();  // as Forward does
                    TraceOutputLength(call, "*pulSignatureLen", &kSignatureLength, CKR_OK);
                    call.Return(CKR_OK);
                  },
                  {"Entering C_Sign.", "    hSession = 7", "    pData: 23 bytes",
                   "    pSignature = NULL (asks for the length)", "    *pulSignatureLen = 256",
                   "    Returns CKR_OK", "Leaving C_Sign.", ""}},
        CCallCase{"CallWithoutLinesWritesNoEmptyOne",
                  "C_GetFunctionList",
                  [](CSpyCall& call) { call.FlushLines(); },
                  {"Entering C_GetFunctionList.", "Leaving C_GetFunctionList.", ""}},
        CCallCase{"PercentSignsPrintAsThemselves",
                  "C_Test",
                  [](CSpyCall& call) {
                    call.Line("%s", "100% %s %n %%");
                    call.Line("%d%%", 50);
                  },
                  {"Entering C_Test.", "    100% %s %n %%", "    50%", "Leaving C_Test.", ""}},
        CCallCase{
            "DumpsComeRightAfterTheLinesBeforeThem",
            "C_SignInit",
            [](CSpyCall& call) {
              static CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
              static CK_BBOOL yes = CK_TRUE;
              static char label[] = "ab";
              static CK_ATTRIBUTE attributes[] = {{CKA_TOKEN, &yes, 1}, {CKA_LABEL, label, 2}};
              TraceNumber(call, "hSession", 1);
              TraceMechanismArgument(call, &mechanism);
              TraceNumber(call, "hKey", 2);
              TraceInputTemplate(call, "pTemplate", attributes, 2);
              call.Return(CKR_KEY_HANDLE_INVALID);
            },
            {"Entering C_SignInit.", "    hSession = 1", "    pMechanism:",
             "    \tCKM_SHA256_RSA_PKCS", "    hKey = 2", "    pTemplate: 2 attributes",
             "    \tCKA_TOKEN\tLen=1\tTRUE (1)", "    \tCKA_LABEL\tLen=2\t\"ab\"",
             "    Returns CKR_KEY_HANDLE_INVALID", "Leaving C_SignInit.", ""}},
        // The module's texts reach the log byte for byte: not recoded from
        // UTF-8, their per-cent signs no conversions.
        CCallCase{"ModuleTextsOfTheGeneralInformationAsGiven",
                  "C_GetInfo",
                  [](CSpyCall& call) {
                    CK_INFO info = {};
                    info.cryptokiVersion = {2, 40};
                    Fill(info.manufacturerID, "Zelph 100% %s \xC3\xBC");
                    info.flags = 0x10;
                    Fill(info.libraryDescription, "%n%n");
                    info.libraryVersion = {6, 20};
                    TraceInfo(call, info);
                    call.Return(CKR_OK);
                  },
                  {"Entering C_GetInfo.", "    cryptokiVersion = 2.40",
                   "    manufacturerID = " + Quoted("Zelph 100% %s \xC3\xBC", 32),
                   "    flags = 0x00000010", "    libraryDescription = " + Quoted("%n%n", 32),
                   "    libraryVersion = 6.20", "    Returns CKR_OK", "Leaving C_GetInfo.", ""}},
        CCallCase{"ModuleTextsOfTheSlotInformationAsGiven",
                  "C_GetSlotInfo",
                  [](CSpyCall& call) {
                    TraceNumber(call, "slotID", 3);
                    call.FlushLines();  // as Forward does
                    CK_SLOT_INFO info = {};
                    Fill(info.slotDescription, "Reader 50% \xC3\xA9");
                    Fill(info.manufacturerID, "%s");
                    info.flags = CKF_TOKEN_PRESENT;
                    info.hardwareVersion = {1, 2};
                    info.firmwareVersion = {3, 4};
                    TraceSlotInfo(call, info);
                    call.Return(CKR_OK);
                  },
                  {"Entering C_GetSlotInfo.", "    slotID = 3",
                   "    slotDescription = " + Quoted("Reader 50% \xC3\xA9", 64),
                   "    manufacturerID = " + Quoted("%s", 32), "    flags = 0x00000001",
                   "    hardwareVersion = 1.2", "    firmwareVersion = 3.4", "    Returns CKR_OK",
                   "Leaving C_GetSlotInfo.", ""}}),
    [](const ::testing::TestParamInfo<CCallCase>& info) { return info.param.title; });

TEST(SpyCallTest, LineLongerThanAnyBufferIsWrittenWhole) {
  std::vector<CK_ULONG> handles;
  std::string expected = "    phObject = ";
  for (CK_ULONG i = 0; i < 300; ++i) {
    handles.push_back(100000 + i);
    expected += (i > 0 ? ", " : "") + std::to_string(100000 + i);
  }
  const std::vector<std::string> lines = Traced("C_FindObjects", [&](CSpyCall& call) {
    TraceHandleList(call, "phObject", handles.data(), handles.size());
    call.Return(CKR_OK);
  });
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1], expected) << "a long line was cut or split";
  EXPECT_EQ(lines[2], "    Returns CKR_OK");
}

// More attributes than the dump is handed at once, some of them unavailable.
TEST(SpyCallTest, AnsweredTemplateShowsEveryAttributeInOrder) {
  constexpr CK_ULONG kCount = 40;
  std::vector<CK_ULONG> values(kCount);
  std::vector<CK_ATTRIBUTE> attributes(kCount);
  std::vector<std::string> expected = {"Entering C_GetAttributeValue.",
                                       "    pTemplate: 40 attributes answered"};
  for (CK_ULONG i = 0; i < kCount; ++i) {
    values[i] = i;
    attributes[i] = {CKA_VALUE_LEN, &values[i], sizeof(CK_ULONG)};
    if (i % 7 == 3) {
      attributes[i].ulValueLen = CK_UNAVAILABLE_INFORMATION;
      expected.push_back("    \tCKA_VALUE_LEN\tLen=-1\t(data NULL)");
    } else {
      char hex[16];
      std::snprintf(hex, sizeof hex, "%08lX", i);
      expected.push_back("    \tCKA_VALUE_LEN\tLen=8\t" + std::to_string(i) + " (0x" + hex + ")");
    }
  }
  expected.insert(expected.end(),
                  {"    Returns CKR_ATTRIBUTE_SENSITIVE", "Leaving C_GetAttributeValue.", ""});
  const std::vector<std::string> lines = Traced("C_GetAttributeValue", [&](CSpyCall& call) {
    TraceAnswerTemplate(call, attributes.data(), kCount, CKR_ATTRIBUTE_SENSITIVE);
    call.Return(CKR_ATTRIBUTE_SENSITIVE);
  });
  EXPECT_EQ(lines, expected) << "an attribute is missing, out of order or shown with its buffer";
}

}  // namespace
}  // namespace zelph
