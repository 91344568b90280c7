// Strings, formatting, the event catalogue, exceptions, the mutex and the system log.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <future>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "common/base/CException.h"
#include "common/base/CScopedLock.h"
#include "common/base/CSysLog.h"

namespace zelph {
namespace {

using namespace std::string_view_literals;

TEST(CTString, DecodesTextIntoUtf8AndIso) {
  const struct {
    int line;
    const char* input;
    std::string_view utf8, iso;
  } cases[] = {
      {__LINE__, "abc\xC3", "abc", "abc"},  // a sequence cut by the terminator is dropped
      {__LINE__, "a\xC3(b\xE2(\x82z\x80\xFF", "a?b?z??", "a?b?z??"},  // bad continuation, bad lead
      {__LINE__, "a\xC0\x80z", "a\0z"sv, "a\0z"sv},  // overlong NUL kept as a zero byte
      {__LINE__, "\xED\xA0\x80|\xEF\xBF\xBE", "?|?", "?|?"},
      {__LINE__, "\xC3\xA9\xE2\x82\xAC", "\xC3\xA9\xE2\x82\xAC", "\xE9?"},
      {__LINE__, "\xC3\xBF\xC4\x80\xF0\x9F\x98\x80", "\xC3\xBF\xC4\x80\xF0\x9F\x98\x80", "\xFF??"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "line " << c.line << ", input " << Visible(c.input));
    EXPECT_EQ(Visible(CUTF8String(c.input).View()), Visible(c.utf8)) << "UTF-8 decoding broke";
    EXPECT_EQ(Visible(CISOString(c.input).View()), Visible(c.iso)) << "ISO-8859-1 decoding broke";
  }
}

TEST(CTString, CompareOrdersByCharacterAgainstUtf8Text) {
  const struct {
    int line;
    const char* iso;  // null gives the null string
    const char* text;
    int expected;
  } cases[] = {{__LINE__, nullptr, "", 0},         {__LINE__, "", "x", -1},
               {__LINE__, "a", nullptr, 1},        {__LINE__, "ab", "a", 1},
               {__LINE__, "a", "ab", -1},          {__LINE__, "Ab", "ab", -1},
               {__LINE__, "a", "a\xC3", 0},        {__LINE__, "\xC3\xBF", "\xC4\x80", -1},
               {__LINE__, "?", "\xE2\x82\xAC", -1}};
  for (const auto& c : cases)
    EXPECT_EQ(CISOString(c.iso).Compare(c.text), c.expected) << "case of line " << c.line;
}

TEST(CTString, WritingOneCopyLeavesTheOther) {
  CUTF8String original("hello");
  const CUTF8String copy = original;
  original += " world";
  CUTF8String(copy).GetWritable()[0] = 'j';
  EXPECT_EQ(copy.View(), "hello") << "writing one copy changed another";
  EXPECT_EQ(original.View(), "hello world");
}

TEST(Format, TemplatesAndNumbers) {
  const CUTF8FmtArgs xy = CUTF8FmtArgs().Add("x").Add("y");
  const struct {
    int line;
    CUTF8FmtArgs args;
    const char* templ;
    std::string_view expected;
  } cases[] = {
      {__LINE__, xy, "100%% %2 %1", "100% y x"},
      {__LINE__, xy, "%10|%3|%0|[%1!s!]", "x0|||[x]"},  // one digit; strings ignore conversions
      {__LINE__, xy, "ab%1!x", "ab"},                   // an unterminated conversion ends all
      {__LINE__, xy, "a%\xC3(b\xE2\x82", "ab"},
      {__LINE__, {}, "a%1b%%", "ab%"},
      {__LINE__, CUTF8FmtArgs().Add(-1).Add(0).Add(INT32_MIN), "%1 %2 %3", "-1 0 -2147483648"},
      {__LINE__, CUTF8FmtArgs().Add(255).Add(~0UL), "%1!04X! %2", "00FF 18446744073709551615"},
      {__LINE__, CUTF8FmtArgs().Add(5), "%1!*d!", "5"}};  // unsafe conversions fall back to plain
  for (const auto& c : cases) {
    EXPECT_EQ(Visible(Format(c.templ, c.args).View()), Visible(c.expected))
        << "template \"" << Visible(c.templ) << "\" of line " << c.line;
  }
  CUTF8FmtArgs one = CUTF8FmtArgs().Add("1"), two = one;
  two.Add(2);
  EXPECT_EQ(Format("%2", one).View(), "") << "adding to a shared list changed the other holder";
}

TEST(CEventMessage, CatalogueTextsNamesAndExceptions) {
  const struct {
    int line;
    CEventMessage event;
    std::string_view expected;
  } cases[] = {
      {__LINE__, CEventMessage::MakeSystemCallFailure("open", ENOENT, kCategoryIO),
       "The call to <open> failed for the following reason: No such file or directory. (2)"},
      {__LINE__, {kEvtFreeText, 1}, ""},
      {__LINE__, {0xC1019999, 1, CUTF8FmtArgs().Add("x")}, ""}};
  for (const auto& c : cases)
    EXPECT_EQ(c.event.GetText().View(), c.expected) << "event of line " << c.line;
  EXPECT_STREQ(CEventMessage::GetFacilityName(257), "System") << "facility names shifted";
  EXPECT_TRUE(!CEventMessage::GetFacilityName(256) && !CEventMessage::GetFacilityName(263));
  const EService service(CEventMessage(kEvtIOTimedOut, kCategoryIO));
  EXPECT_EQ(service.GetEvent().GetCategory(), kCategoryIO) << "the event's category was lost";
  EXPECT_EQ(service.GetEvent().GetText().View(), "The input/output operation has timed out.");
  EXPECT_EQ(EIOError(CUTF8String("50%1")).GetEvent().GetText().View(), "50%1")
      << "free text must not be formatted";
  EXPECT_TRUE((std::is_base_of_v<EIOError, EIOSocketNoListener>));
  EXPECT_FALSE((std::is_base_of_v<ENetwork, EIOTimedOut>)) << "IO errors are not network errors";
}

TEST(CMutex, RecursiveLockIsHeldUntilTheLastRelease) {
  CMutex mutex;
  const auto tryLock = [&mutex] {
    return pthread_mutex_trylock(mutex.GetNative()) == 0 && mutex.Unlock() == 0;
  };
  auto isFree = [&] { return std::async(std::launch::async, tryLock).get(); };  // another thread
  {
    const CScopedLock outer(mutex);
    { const CScopedLock inner(mutex); }
    EXPECT_FALSE(isFree()) << "leaving the inner scope released the outer lock";
  }
  EXPECT_TRUE(isFree()) << "leaving every scope must release the mutex";
}

TEST(CSysLog, LinesReachDevLogWithPriorityIdentityAndCategory) {
  const struct {
    const char* priority;  // errors are logged as critical
    CEventMessage event;
    std::string_view text;
  } cases[] = {
      {"<14>", CEventMessage(kEvtServiceStarted, kCategoryService, CUTF8FmtArgs().Add("svc")),
       "[Service management] The service \"svc\" successfully started."},
      {"<12>",
       CEventMessage(kEvtServiceInvalidOpcode, kCategoryIO, CUTF8FmtArgs().Add("svc").Add(7)),
       "[IO subsystem] The service \"svc\" received an invalid opcode (7)."},
      {"<10>", {kEvtFreeText, 42, CUTF8FmtArgs().Add("odd")}, "[(null)] odd"},
  };
  // Nothing in this program logged before, so the child's first line connects to its /dev/log.
  CChildOptions options;
  options.body = [&cases] {
    const int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) ||
        bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return 77;
    }
    for (const auto& c : cases) CSysLog::GetInstance().Report(c.event);
    char line[512];
    for (ssize_t n; (n = recv(sock, line, sizeof line, MSG_DONTWAIT)) > 0;)
      std::printf("%.*s\n", static_cast<int>(n), line);
    return 0;
  };
  CChildProcess child(std::move(options));
  ASSERT_TRUE(child.Finish(20) || child.Status() == 77 << 8) << child.Describe();
  if (child.Status() == 77 << 8) GTEST_SKIP() << "no private /dev/log (needs CAP_SYS_ADMIN)";
  const auto lines = SplitLines(child.Output());
  ASSERT_EQ(lines.size(), std::size(cases)) << child.Describe();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].starts_with(cases[i].priority) &&
                lines[i].ends_with(" zelph: " + std::string(cases[i].text)))
        << "system log line " << i << ": " << lines[i];
  }
}

}  // namespace
}  // namespace zelph
