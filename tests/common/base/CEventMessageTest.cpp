#include "common/base/CEventMessage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "common/base/CSysLog.h"

namespace zelph {
namespace {

using namespace std::string_view_literals;

CUTF8FmtArgs Args(const char* a) {
  return CUTF8FmtArgs().Add(a);
}
CUTF8FmtArgs Args(const char* a, const char* b) {
  return CUTF8FmtArgs().Add(a).Add(b);
}

TEST(CEventMessageText, CatalogueFreeTextAndUnknownIdentifiers) {
  struct Case {
    const char* name;
    CEventMessage event;
    std::string_view expected;
  };
  const Case cases[] = {
      {"system call",
       {kEvtSystemCallFailed, 1, Args("pthread_mutex_init", "Invalid argument. (22)")},
       "The call to <pthread_mutex_init> failed for the following reason: Invalid argument. (22)"sv},
      {"free text is not formatted", {kEvtFreeText, 1, Args("50%1 %%")}, "50%1 %%"sv},
      {"free text without argument", {kEvtFreeText, 1}, ""sv},
      {"template kept without arguments",
       {kEvtLogFileFailed, 6},
       "Unable to create log file %1.\n%2\nNo logs will be generated."sv},
      {"quotes and line feed",
       {kEvtServiceStatusFailed, 2, Args("svc", "why")},
       "Unable to update status of service \"svc\".\nwhy"sv},
      {"integer argument",
       {kEvtServiceInvalidOpcode, 2, CUTF8FmtArgs().Add("svc").Add(7)},
       "The service \"svc\" received an invalid opcode (7)."sv},
      {"unknown identifier", {0xC1019999, 1, Args("x")}, ""sv},
      {"identifier 0", {0, 1}, ""sv},
      {"null event", {}, ""sv},
  };
  for (const Case& c : cases) EXPECT_EQ(c.event.GetText().View(), c.expected) << c.name;
}

TEST(CEventMessageText, NamesOfSeveritiesFacilitiesAndCategories) {
  EXPECT_STREQ(CEventMessage::GetSeverityName(0), "Internal");
  EXPECT_STREQ(CEventMessage::GetSeverityName(3), "Error");
  EXPECT_EQ(CEventMessage::GetSeverityName(4), nullptr);
  EXPECT_STREQ(CEventMessage::GetFacilityName(257), "System");
  EXPECT_STREQ(CEventMessage::GetFacilityName(262), "Log");
  EXPECT_EQ(CEventMessage::GetFacilityName(256), nullptr);
  EXPECT_EQ(CEventMessage::GetFacilityName(263), nullptr);
  EXPECT_STREQ(CEventMessage::GetTemplate(3), "IO subsystem");
  EXPECT_EQ(CEventMessage::GetTemplate(0), nullptr);
  EXPECT_EQ(CEventMessage::GetTemplate(7), nullptr);
  EXPECT_EQ(CEventMessage::GetSeverity(kEvtServiceStatusFailed), 2u);
  EXPECT_EQ(CEventMessage::GetFacility(kEvtCacheConnectFailed), 0x104u);
}

TEST(CEventMessageText, ErrorNumberText) {
  EXPECT_EQ(CEventMessage::GetErrorText(EINVAL).View(), "Invalid argument. (22)"sv);
  const std::string negative(CEventMessage::GetErrorText(-5).View());
  EXPECT_TRUE(negative.ends_with(". (-5)")) << negative;

  const CEventMessage e = CEventMessage::MakeSystemCallFailure("open", ENOENT, kCategoryIO);
  EXPECT_EQ(e.GetIdentifier(), kEvtSystemCallFailed);
  EXPECT_EQ(e.GetCategory(), kCategoryIO);
  EXPECT_EQ(e.GetText().View(),
            "The call to <open> failed for the following reason: No such file or directory. (2)"sv);
}

TEST(CEventMessageRecord, CopiesShareTheRecord) {
  const CEventMessage a(kEvtIOTimedOut, kCategoryIO);
  {
    const CEventMessage b = a;
    EXPECT_EQ(a.GetReferences(), 2);
  }
  EXPECT_EQ(a.GetReferences(), 1);
  EXPECT_TRUE(CEventMessage().IsNull());
  EXPECT_EQ(CEventMessage().GetArgs().GetCount(), 0u);
}

TEST(CSysLogLine, PriorityFollowsSeverity) {
  EXPECT_EQ(CSysLog::GetPriority(kEvtServiceStatusFailed), 12);
  EXPECT_EQ(CSysLog::GetPriority(kEvtServiceStarted), 14);
  EXPECT_EQ(CSysLog::GetPriority(kEvtIOCancelled), 10) << "errors are logged as critical";
  EXPECT_EQ(CSysLog::GetPriority(kEvtServiceDescription), 10) << "severity 0 is critical too";
}

TEST(CSysLogLine, BracketHoldsTheCategoryText) {
  EXPECT_EQ(CSysLog::FormatLine(CEventMessage(kEvtIOTimedOut, kCategoryIO)).View(),
            "[IO subsystem] The input/output operation has timed out."sv);
  EXPECT_EQ(CSysLog::FormatLine(CEventMessage(kEvtFreeText, 1, Args("x"))).View(),
            "[System error] x"sv);
  EXPECT_EQ(CSysLog::FormatLine(CEventMessage(kEvtFreeText, 9, Args("x"))).View(), "[(null)] x"sv)
      << "an unknown category must be tolerated";
}

}  // namespace
}  // namespace zelph
