#include "common/base/CException.h"

#include <gtest/gtest.h>

#include <string_view>
#include <type_traits>

namespace zelph {
namespace {

using namespace std::string_view_literals;

// Throws `Thrown` and reports whether a handler for `Caught` takes it.
template <class Thrown, class Caught>
bool IsCaughtAs() {
  try {
    throw Thrown();
  } catch (const Caught&) {
    return true;
  } catch (...) {
    return false;
  }
}

TEST(CExceptionTree, CatchRelations) {
  EXPECT_TRUE((IsCaughtAs<EASN1InvalidData, EASN1>()));
  EXPECT_TRUE((IsCaughtAs<EASN1InvalidData, CException>()));
  EXPECT_TRUE((IsCaughtAs<EASN1UnsupportedFormat, EASN1>()));
  EXPECT_TRUE((IsCaughtAs<EASN1BufferTooSmall, EASN1>()));
  EXPECT_TRUE((IsCaughtAs<CHttpException, ENetwork>()));
  EXPECT_TRUE((IsCaughtAs<EIOCancelled, EIOError>()));
  EXPECT_TRUE((IsCaughtAs<EIOTimedOut, EIOError>()));
  EXPECT_TRUE((IsCaughtAs<EIOSocketClosed, EIOError>()));
  EXPECT_TRUE((IsCaughtAs<EIOSocketBusy, EIOError>()));
  EXPECT_TRUE((IsCaughtAs<EIOSocketNoListener, CException>()));
  EXPECT_TRUE((IsCaughtAs<CXMLException, CException>()));
  EXPECT_TRUE((IsCaughtAs<EThreadError, CException>()));
  EXPECT_TRUE((IsCaughtAs<EService, CException>()));
  EXPECT_FALSE((IsCaughtAs<EIOTimedOut, ENetwork>())) << "IO errors are not network errors";
  EXPECT_FALSE((IsCaughtAs<ENetwork, CHttpException>()));
  EXPECT_FALSE((IsCaughtAs<EASN1, EASN1InvalidData>()));
  EXPECT_FALSE((IsCaughtAs<CXMLException, EIOError>()));
  EXPECT_FALSE((std::is_base_of_v<std::exception, CException>))
      << "the root stands apart from the standard exceptions";
}

TEST(CExceptionText, FreeTextIsKeptVerbatim) {
  EXPECT_EQ(CException(CUTF8String("Disk full")).GetEvent().GetText().View(), "Disk full"sv);
  const EIOError e(CUTF8String("50%1"));
  EXPECT_EQ(e.GetEvent().GetText().View(), "50%1"sv) << "free text must not be formatted";
  EXPECT_EQ(e.GetEvent().GetIdentifier(), kEvtFreeText);
  EXPECT_EQ(e.GetEvent().GetCategory(), kCategorySystem);
  EXPECT_TRUE(EASN1InvalidData().GetEvent().IsNull());
  EXPECT_EQ(EASN1InvalidData().GetEvent().GetText().View(), ""sv);
}

TEST(CExceptionText, EventIsCopiedIntoANewRecordSharingArguments) {
  const CEventMessage event(kEvtServiceFailed, kCategoryService,
                            CUTF8FmtArgs().Add("cache").Add("crashed"));
  const EService e(event);
  EXPECT_NE(e.GetEvent().GetReferences(), 0);
  EXPECT_EQ(event.GetReferences(), 1) << "the exception gets its own record";
  EXPECT_EQ(e.GetEvent().GetArgs().GetRecord(), event.GetArgs().GetRecord())
      << "the argument list is shared, not copied";
  EXPECT_EQ(e.GetEvent().GetText().View(),
            "The service \"cache\" has encountered a problem. The service has been stopped.\n"
            "crashed"sv);

  try {
    throw e;
  } catch (const CException& caught) {
    EXPECT_EQ(caught.GetEvent().GetIdentifier(), kEvtServiceFailed);
    EXPECT_EQ(caught.GetEvent().GetText(), e.GetEvent().GetText());
  }
}

}  // namespace
}  // namespace zelph
