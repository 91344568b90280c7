// The trace log a process leaves. Each case traces in a forked child of this
// program, which links libzelphtrace.so, with tracing configured through the
// child's environment: the session decides once per process, so each child
// decides afresh. The test process itself never traces.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <latch>
#include <semaphore>
#include <set>
#include <thread>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "TestSkips.h"
#include "TraceLog.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

// A child with tracing on into "<dir>/logs" that runs `body`, then exit (not
// _exit: the footer is written at exit). Pause() in the body waits for a line.
CChildOptions Traced(const CTestDir& dir, std::function<void()> body = {}) {
  fs::create_directory(dir.File("logs"));
  WriteFile(dir.File("zelph.conf"), TraceConfig(dir.File("logs")));
  CChildOptions options;
  options.environment = {{"ZELPH_CONFFILE", dir.File("zelph.conf")}, {"HOME", dir.Path()}};
  if (body) options.body = [body]() -> int { body(), std::exit(0); };
  return options;
}

void Pause() {
  std::puts("paused"), std::fflush(stdout), std::getchar();
}

// The sessions in the logs of a child that must end with status 0.
std::vector<CTraceSessionText> Sessions(CChildProcess& child, const CTestDir& dir) {
  EXPECT_TRUE(child.Finish()) << child.Describe();
  return ParseLog(ReadLogs(dir.File("logs")));
}

// A body line with its marker doubled: the thread whose marker is "%" shows it
// once where its prefix went through printf (messages, dumps).
std::string Doubled(std::string line) {
  if (line.size() > 31 && line[30] == '%' && line[31] == ' ') line.insert(30, "%");
  return line;
}

// The body's lines behind their prefix, "|" for a blank line.
std::vector<std::string> Texts(const CTraceSessionText& session) {
  std::vector<std::string> texts;
  for (const std::string& line : session.body)
    texts.push_back(line.empty() ? "|" : Doubled(line).substr(33));
  return texts;
}

std::string Stamp(std::time_t when, const char* format) {
  std::tm local{};
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, format, localtime_r(&when, &local)));
}

// Lines a test can count in a log: CountOf(log, " fit\n").
void Numbered(int count) {
  for (int i = 0; i < count; ++i) TraceString("message %d of a log that may not fit", i);
}

TEST(TraceLogTest, SessionAppendsHeaderExactLinesAndFooterToTheLogOfItsSecondAndProcess) {
  CK_TOKEN_INFO token;
  std::memset(&token, 'Z', sizeof token);  // what the dump leaves out stands out
  // Label, manufacturer, model and serial number: blank-padded, not terminated.
  std::memcpy(&token,
              "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345Zwmware                         "
              "Model 7         0123456789ABCDEF",
              96);
  token.flags = CKF_RNG | CKF_LOGIN_REQUIRED | 0x10 | CKF_TOKEN_INITIALIZED;
  token.ulMaxPinLen = 8, token.ulMinPinLen = 0, token.ulTotalPublicMemory = ~0UL;
  token.ulFreePublicMemory = 1, token.ulTotalPrivateMemory = 0x100000400;
  token.ulFreePrivateMemory = 0x80000000, token.hardwareVersion = {2, 17};
  token.firmwareVersion = {255, 0};
  auto mechanism = [](CK_MECHANISM_TYPE type, const char* parameter, CK_ULONG length) {
    CK_MECHANISM mechanism{type, const_cast<char*>(parameter), length};
    TraceMechanism(&mechanism);
  };
  auto info = [](CK_ULONG min, CK_ULONG max, CK_FLAGS flags) {
    CK_MECHANISM_INFO info{min, max, flags};
    TraceMechanismInfo(&info);
  };
  const struct {
    int line;
    std::function<void()> call;
    std::vector<std::string> lines;  // behind the prefix; "|": a blank line
  } kCalls[] = {
      // clang-format off
      // A blank line opens the first output and closes each outermost call;
      // names are written as given.
      {__LINE__, [] { TraceEnter("A"), TraceEnter("B"), TraceString("b"), TraceLeave("B");
                      TraceLeave("A"), TraceLeave("Orphan");
                      TraceEnter("caf\xC3\xA9 %d%s"), TraceLeave("C"); },
       {"|", "Entering A.", "    Entering B.", "        b", "    Leaving B.", "Leaving A.", "|",
        "Leaving Orphan.", "|", "Entering caf\xC3\xA9 %d%s.", "Leaving C.", "|"}},
      // CR, LF, CR LF and LF CR are one line break each; trailing ones go.
      {__LINE__, [] { TraceString("a\rb\nc\r\nd\n\re\r\n\n"); }, {"a", "b", "c", "d", "e"}},
      {__LINE__, [] { TraceString("a\r\rb\n\nc\r\n\r\nd\n\r\ne"); },
       {"a", "", "b", "", "c", "", "d", "", "e"}},
      {__LINE__, [] { TraceString("\nlead\t "); }, {"", "lead\t "}},
      {__LINE__, [] { TraceString("\r\n\n"); }, {""}},
      // The format is read as UTF-8 and written as ISO-8859-1, the arguments
      // as they are.
      {__LINE__, [] { TraceString("caf\xC3\xA9\n\xE2\x82\xAC a\xFFz"); }, {"caf\xE9", "? a?z"}},
      {__LINE__, [] { TraceString("[%s]%5d|%-4s|%X|%d", "\xC3\xA9", 7, "ab", 171, -5); },
       {"[\xC3\xA9]    7|ab  |AB|-5"}},
      {__LINE__, [] { TraceString("100%% %s\n%d", "%d%s", 1); }, {"100% %d%s", "1"}},
      // A parameter shows when it has a pointer and a length.
      {__LINE__, [&] { mechanism(CKM_RSA_PKCS, "\x11", 0), mechanism(0x80001234, "\x01\xAB\x1F", 3),
                       mechanism(CKM_AES_CBC, nullptr, 16); },
       {"\tCKM_RSA_PKCS", "\tunknown (0x80001234)", "\tParameter: 01AB1F", "\tCKM_AES_CBC"}},
      {__LINE__, [&] { info(0, 0, 0);
                       info(~0UL, 0x100000800, CKF_HW | 1 << 26 | CKF_EXTENSION | 1UL << 40); },
       {"\tMin key size: 0", "\tMax key size: 0", "\tFlags:        none", "|", "\tMin key size: -1",
        "\tMax key size: 2048", "\tFlags:        CKF_HW Unknown CKF_EXTENSION "}},
      {__LINE__, [&] { TraceTokenInfo(&token); },
       {"\tLabel:                \"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345\"",
        "\tManufacturer:         \"Zwmware                         \"",
        "\tModel:                \"Model 7         \"",
        "\tSerial number:        \"0123456789ABCDEF\"",
        "\tFlags:                CKF_RNG CKF_LOGIN_REQUIRED Unknown CKF_TOKEN_INITIALIZED ",
        "\tMax PIN length:       8", "\tMin PIN length:       0", "\tTotal public memory:  -1",
        "\tFree public memory:   1", "\tTotal private memory: 1024",
        "\tFree private memory:  -2147483648", "\tHardware version:     2.17",
        "\tFirmware version:     255.0"}},
      // clang-format on
  };
  const CK_ULONG kNA = CK_UNAVAILABLE_INFORMATION;
  auto u = [](CK_ULONG value) { return std::string(reinterpret_cast<const char*>(&value), 8); };
  struct CRow {
    int line;
    CK_ATTRIBUTE_TYPE type;
    CK_ULONG length;
    std::optional<std::string> value;  // none: a null pointer
    std::string rendering;             // behind "\t<name>\tLen=<length>\t"
  };
  std::vector<CRow> rows = {
      // clang-format off
      {__LINE__, CKA_CLASS, 8, u(CKO_PRIVATE_KEY), "CKO_PRIVATE_KEY"},
      {__LINE__, CKA_CLASS, 8, u(7), "Unknown"},
      {__LINE__, CKA_CLASS, 4, "\x03\0\0\0"s, "03000000"},  // a length that does not fit: the bytes
      {__LINE__, CKA_CLASS, 0, "", "(empty)"},
      {__LINE__, CKA_CERTIFICATE_TYPE, 8, u(CKC_X_509), "CKC_X_509"},
      {__LINE__, CKA_KEY_TYPE, 8, u(CKK_RSA), "CKK_RSA"},
      {__LINE__, CKA_KEY_GEN_MECHANISM, 8, u(0x80001234), "unknown (0x80001234)"},
      {__LINE__, CXA_CONTAINER_KEYSPEC, 8, u(CXKEYSPEC_SIGNATURE), "CXKEYSPEC_SIGNATURE"},
      {__LINE__, CXA_CARD_CONTAINER, 8, u(CXC_SIGN), "CXC_SIGN (0x80000002)"},
      {__LINE__, CXA_CARD_CONTAINER, 8, u(0x1000ABCDE), "Unknown (0x000ABCDE)"},
      {__LINE__, CKA_TOKEN, 1, "\0"s, "FALSE (0)"},
      {__LINE__, CKA_PRIVATE, 1, "\xFF", "TRUE (255)"},
      {__LINE__, CKA_TOKEN, 4, "\x01\0\xAB\xCD"s, "0100ABCD"},
      {__LINE__, CKA_VALUE_LEN, 8, u(~0UL), "-1 (0xFFFFFFFF)"},
      {__LINE__, CKA_VALUE_BITS, 8, u(0x100000010), "16 (0x00000010)"},
      {__LINE__, CKA_START_DATE, 8, "20240305", "20240305"},
      {__LINE__, CKA_END_DATE, 6, "202403", "323032343033"},
      {__LINE__, CKA_LABEL, 5, "abcdefgh", "\"abcde\""},
      {__LINE__, CKA_LABEL, 0, "abc", "\"\""},
      {__LINE__, CKA_LABEL, 7, "abc\0def"s, "\"abc\""},
      {__LINE__, CKA_LABEL, 4, "%s%d", "\"%s%d\""},
      {__LINE__, CKA_LABEL, kNA, std::nullopt, "(data NULL)"},
      {__LINE__, CKA_VALUE, 0, "", "<undisclosed, length is 0>"},
      // What C_GetAttributeValue leaves for a value it cannot reveal: nothing to read.
      {__LINE__, CKA_LABEL, kNA, "abc", "(unavailable)"},
      {__LINE__, CKA_TOKEN, kNA, "\x01", "(unavailable)"},
      {__LINE__, CKA_PRIVATE_EXPONENT, kNA, "\x01", "<undisclosed, length is -1>"},
      {__LINE__, CKA_MODULUS, 256, "", ""},  // every byte, filled in below
      // clang-format on
  };
  for (int i = 0; i < 256; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02X", i);
    *rows.back().value += static_cast<char>(i), rows.back().rendering += pair;
  }
  // Every type of each kind but hexadecimal.
  const struct {
    CK_ULONG length;
    std::string value, rendering;
    std::vector<CK_ATTRIBUTE_TYPE> types;
  } kKinds[] = {
      // clang-format off
      {2, "ab", "\"ab\"", {CKA_LABEL, CKA_APPLICATION, CXA_CONTAINER_NAME}},
      {8, "\xC0\xFE\xBA\xBE\xC0\xFE\xBA\xBE", "<undisclosed, length is 8>", {CKA_VALUE,
       CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2,
       CKA_COEFFICIENT}},
      {1, "\x01", "TRUE (1)", {CKA_TOKEN, CKA_PRIVATE, CKA_TRUSTED, CKA_SENSITIVE, CKA_ENCRYPT,
       CKA_DECRYPT, CKA_WRAP, CKA_UNWRAP, CKA_SIGN, CKA_SIGN_RECOVER, CKA_VERIFY,
       CKA_VERIFY_RECOVER, CKA_DERIVE, CKA_EXTRACTABLE, CKA_LOCAL, CKA_NEVER_EXTRACTABLE,
       CKA_ALWAYS_SENSITIVE, CKA_MODIFIABLE, CKA_SECONDARY_AUTH, CKA_RESET_ON_INIT, CKA_HAS_RESET}},
      {8, u(2048), "2048 (0x00000800)", {CKA_MODULUS_BITS, CKA_PRIME_BITS, CKA_SUBPRIME_BITS,
       CKA_VALUE_BITS, CKA_VALUE_LEN, CKA_AUTH_PIN_FLAGS, CXA_VSLOT, CXA_ACTIVATE_CONTAINER_COUNT}},
      // clang-format on
  };
  for (const auto& k : kKinds) {
    for (const CK_ATTRIBUTE_TYPE type : k.types)
      rows.push_back({__LINE__, type, k.length, k.value, k.rendering});
  }
  CTestDir dir;
  CChildProcess child(Traced(dir, [&] {
    std::getchar();
    for (const auto& c : kCalls) c.call();
    std::vector<CK_ATTRIBUTE> attributes;
    for (CRow& r : rows)
      attributes.push_back({r.type, r.value ? r.value->data() : nullptr, r.length});
    auto dump = [&] {
      for (const CK_BBOOL omit : {CK_FALSE, CK_TRUE})
        TraceTemplate(attributes.data(), attributes.size(), omit);
    };
    // Lines are put together without printf unless the prefix holds a "%": the
    // main thread dumps every row, then the 14th thread, whose marker is "%".
    std::latch end(1);
    std::vector<std::jthread> threads;  // alive together, so that each has an id of its own
    dump();
    for (int i = 0; i < 13; ++i) {
      std::binary_semaphore traced(0);
      threads.emplace_back(
          [&, i] { i < 12 ? TraceString("x") : dump(), traced.release(), end.wait(); });
      traced.acquire();
    }
    end.count_down();
  }));
  // An older log under each name the session may take, which it must extend.
  const std::time_t start = std::time(nullptr);
  const std::string pid = std::to_string(child.Pid());
  for (std::time_t t = start; t <= start + 60; ++t) {
    WriteFile(
        dir.File("logs/zelph_" + Stamp(t, "%F_%H-%M-%S") + "_zelph_trace_log_test_" + pid + ".log"),
        "old\n");
  }
  child.Send("\n");
  ASSERT_TRUE(child.Finish()) << child.Describe();
  std::vector<std::string> files = LogFiles(dir.File("logs"));
  ASSERT_EQ(files.size(), 61u) << "the session opened a log under a name of its own";
  std::erase_if(files, [](const std::string& file) { return ReadFile(file) == "old\n"; });
  const std::string log = files.size() == 1 ? ReadFile(files[0]) : "";
  ASSERT_TRUE(log.starts_with("old\n")) << "the session must append to an older log";
  std::vector<CTraceSessionText> sessions = ParseLog(log.substr(4));
  ASSERT_EQ(sessions.size(), 1u);
  for (std::time_t t = start; t <= std::time(nullptr); ++t) {
    if (sessions[0].header[1] == Stamp(t, "# Starting log on %F at %T"))
      sessions[0].header[1] = "<start>";
  }
  ExpectLines(sessions[0].header,
              {kTraceRule, "<start>", "# Process ID: " + pid, "# Arch: x86_64",
               "# Executable path: " + fs::read_symlink("/proc/self/exe").string(),
               "# Middleware path: /usr/lib/Zwmware", "# Middleware version: 6.20.5.0",
               "# OS version: linux.workstation", ""},
              "header");
  ExpectLines(sessions[0].footer, {"", "# Ending log", kTraceRule}, "footer");
  EXPECT_TRUE(log.ends_with(kTraceRule + "\n"s)) << "the footer is cut";
  EXPECT_EQ(CountOf(log, "ZZ") + CountOf(log, "C0FEBA") + CountOf(log, "\xC0\xFE\xBA"), 0)
      << "key material, or a field a dump leaves out, in the log";
  const std::vector<std::string> texts = Texts(sessions[0]);
  std::size_t at = 0;
  for (const auto& c : kCalls) {
    SCOPED_TRACE(c.line);
    const std::size_t end = std::min(texts.size(), at + c.lines.size());
    ExpectLines({texts.begin() + at, texts.begin() + end}, c.lines, "lines");
    at = end;
  }
  const std::size_t n = rows.size();
  ASSERT_EQ(texts.size(), at + 4 * n + 25) << "one line per attribute";
  EXPECT_EQ(sessions[0].body.back().substr(30, 2), "% ")
      << "the 14th thread's dump was not printf's";
  for (std::size_t i = 0; i < 4 * n; ++i) {
    const CRow& r = rows[i % n];
    SCOPED_TRACE(testing::Message()
                 << "row at line " << r.line << (i < 2 * n ? "" : " through printf"));
    EXPECT_EQ(Visible(texts[i < 2 * n ? at + i : texts.size() - 4 * n + i]),
              Visible("\t"s + GetCkAttributeTypeString(r.type) +
                      "\tLen=" + std::to_string(int(r.length)) + "\t" +
                      (i % (2 * n) < n ? r.rendering
                       : r.value       ? "(data present)"
                                       : "(data NULL)")));
  }
}

TEST(TraceLogTest, ManyThreadsAtOnceKeepEveryLineWholeTheirOwnOrderAndMarker) {
  constexpr int kThreads = 68, kRounds = 50;  // the letters start again at the 68th thread
  CTestDir dir;
  CChildProcess child(Traced(dir, [] {
    std::latch start(kThreads);
    std::vector<std::jthread> workers;
    for (int i = 0; i < kThreads; ++i) {
      workers.emplace_back([&start, i] {
        const std::string name = "Worker" + std::to_string(i);
        CK_ATTRIBUTE label{CKA_LABEL, const_cast<char*>(name.data()), name.size()};
        start.arrive_and_wait();
        for (int round = 0; round < kRounds; ++round) {
          TraceEnter(name.c_str()), TraceString("round\nof %d", i), TraceTemplate(&label, 1, 0);
          TraceEnter("Inner"), TraceLeave("Inner"), TraceLeave(name.c_str());
        }
      });
    }
  }));
  const std::vector<CTraceSessionText> sessions = Sessions(child, dir);
  ASSERT_EQ(sessions.size(), 1u);
  std::map<std::string, std::vector<std::string>> byThread;  // marker, indentation, text
  std::string last;
  int blanks = 0, closed = 0;  // closed: the line before left an outermost call
  for (const std::string& line : sessions[0].body) {
    if (line.empty() && ++blanks) continue;
    const CTraceLine split = SplitTraceLine(Doubled(line));
    ASSERT_TRUE(split.valid) << "torn line: " << Visible(line);
    ASSERT_EQ(blanks, (split.thread != last) + closed)
        << "blank lines before " << line
        << ": one for a change of thread, one after an outermost call";
    last = split.thread, blanks = 0,
    closed = split.depth == 0 && split.text.starts_with("Leaving ");
    EXPECT_TRUE(byThread.count(split.thread) ||
                split.marker == MarkerOfThread(int(byThread.size())))
        << "markers go to the threads in the order of their first lines";
    byThread[split.thread].push_back(split.marker + std::string(4 * split.depth, ' ') + split.text);
  }
  ASSERT_EQ(byThread.size(), std::size_t{kThreads}) << "every thread traced";
  for (const auto& [thread, lines] : byThread) {
    const std::string name = lines[0].substr(10, lines[0].size() - 11);
    std::vector<std::string> expected;
    for (int round = 0; round < kRounds; ++round) {
      for (const std::string& text :
           {"Entering " + name + ".", "    round"s, "    of " + name.substr(6),
            "    \tCKA_LABEL\tLen=" + std::to_string(name.size()) + "\t\"" + name + "\"",
            "    Entering Inner."s, "    Leaving Inner."s, "Leaving " + name + "."}) {
        expected.push_back(lines[0][0] + text);
      }
    }
    ExpectLines(lines, expected, name);
  }
}

// Which file a process reads is the configuration's own test; here: what in
// section Quillon of that file switches tracing on.
TEST(TraceLogTest, ConfigurationDecidesWhetherTheProcessTraces) {
  const struct {
    int line;
    const char* section;  // null: no file at all
    bool traces;
  } kCases[] = {
      {__LINE__, "EnableTrace = 7\nTrace = $LOGS", true},
      {__LINE__, "EnableTrace = 1\nTrace = $LOGS/", true},
      {__LINE__, nullptr, false},
      {__LINE__, "EnableTrace = 0\nTrace = $LOGS", false},
      {__LINE__, "Trace = $LOGS", false},
      {__LINE__, "EnableTrace = 1", false},
      {__LINE__, "EnableTrace = 1\nTrace = $LOGS/missing", false},
      {__LINE__, "EnableTrace = 1\nTrace = $LOGS/file", false},
      {__LINE__, "EnableTrace = 1\nTrace = /proc", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    CTestDir dir;
    CChildOptions options = Traced(dir);
    const std::string logs = dir.File("logs");
    std::string text = c.section ? c.section : "";
    for (std::size_t at; (at = text.find("$LOGS")) != std::string::npos;) text.replace(at, 5, logs);
    WriteFile(logs + "/file", ""), fs::remove(dir.File("zelph.conf"));
    if (c.section) WriteFile(dir.File("zelph.conf"), "Quillon {\n" + text + "\n}\n");
    options.body = []() -> int {
      CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
      TraceEnter("A"), TraceString("%d", 1), TraceMechanism(&mechanism), TraceLeave("A"),
          std::exit(0);
    };
    const std::set<fs::path> before(fs::recursive_directory_iterator(logs), {});
    CChildProcess child(options);
    const std::vector<CTraceSessionText> sessions = Sessions(child, dir);
    const std::set<fs::path> after(fs::recursive_directory_iterator(logs), {});
    EXPECT_EQ(sessions.size(), c.traces ? 1u : 0u);
    EXPECT_TRUE(c.traces ? sessions.size() == 1 && !sessions[0].footer.empty() : after == before)
        << (c.traces ? "not a whole session" : "tracing off must leave no file");
  }
}

// The log a process holds open, read through /proc even when deleted.
std::string OpenLog(pid_t pid) {
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code error;
    if (fs::read_symlink(entry, error).string().find("/zelph_") != std::string::npos)
      return ReadFile(entry.path());
  }
  return "";
}

TEST(TraceLogTest, SessionWritesEachCallAtOnceAndKeepsItsFileWhateverHappensToIt) {
  for (const bool directory : {false, true}) {
    SCOPED_TRACE(directory ? "log directory removed" : "log file removed");
    CTestDir dir;
    CChildProcess child(Traced(dir, [] { Numbered(10), Pause(), Numbered(10), Pause(); }));
    ASSERT_NE(child.WaitForLine("paused"), "") << child.Describe();
    const std::vector<std::string> files = LogFiles(dir.File("logs"));
    ASSERT_EQ(files.size(), 1u);
    // What the file holds now is what a crash would leave.
    EXPECT_EQ(CountOf(ReadFile(files[0]), " fit\n"), 10)
        << "a call's lines are not in the file when it returns";
    fs::remove_all(directory ? dir.File("logs") : files[0]);
    WriteFile(dir.File("zelph.conf"), TraceConfig(dir.Path(), "0"));  // the session has decided
    child.Send("\n");
    ASSERT_NE(child.WaitForLine("paused"), "") << "the host stopped: " << child.Describe();
    EXPECT_EQ(CountOf(OpenLog(child.Pid()), " fit\n"), 20)
        << "the session writes on into its open file";
    child.Send("\n");
    EXPECT_TRUE(Sessions(child, dir).empty() && LogFiles(dir.Path()).empty())
        << "another log opened";
    EXPECT_EQ(fs::exists(dir.File("logs")), !directory) << "the directory must not come back";
  }
}

TEST(TraceLogTest, EachLoadOfTheLibraryIsASessionEndedByItsUnload) {
  ZELPH_SKIP_UNDER_TSAN("the helper unloads the library before it exits");
  CTestDir dir;
  CChildOptions options = Traced(dir);
  options.command = {ZELPH_TRACE_RELOAD, ZELPH_TRACE_LIB};
  CChildProcess child(options);
  ASSERT_NE(child.WaitForLine("unloaded 0"), "") << child.Describe();
  std::vector<CTraceSessionText> sessions = ParseLog(ReadLogs(dir.File("logs")));
  EXPECT_TRUE(sessions.size() == 1 && !sessions[0].footer.empty()) << "the unload ends the session";
  sessions = Sessions(child, dir);  // nothing may run once the library is gone
  ASSERT_EQ(sessions.size(), 3u) << "one session for each load that traced";
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    // Every load starts afresh: the first marker, the first output's blank line.
    ExpectLines(Texts(sessions[i]), {"|", std::vector{"first", "second", "third"}[i]}, "session");
    EXPECT_EQ(sessions[i].body[1].substr(30, 3), ".. ");
    EXPECT_TRUE(sessions[i].header[2] == "# Process ID: " + std::to_string(child.Pid()) &&
                !sessions[i].footer.empty());
  }
}

}  // namespace
}  // namespace zelph
