// Headless Chromium: a page of one loopback origin fetches from the responder
// on another port, which works only because the responder echoes the origin.
#include <gtest/gtest.h>
#include <unistd.h>

#include "CChildProcess.h"
#include "CLoopbackListener.h"
#include "TestFiles.h"
#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

TEST(Browser, CrossOriginFetchSucceedsBecauseTheOriginIsEchoed) {
  if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "/usr/bin/chromium is not installed";
  std::string origin;  // written by the data listener, read after WaitServed
  const auto serve = [](std::string body, std::string* origin) {
    return [body, origin](int descriptor) {
      CHttpConnection connection(descriptor);
      ReadHttpRequest(connection);
      if (origin != nullptr) *origin = connection.GetName().View();
      SendTextResponse(connection, "text/html", body.c_str());
    };
  };
  CLoopbackListener dataServer(serve("served by zelph", &origin));
  const std::string page = "<p id=o></p><script>fetch('" + dataServer.Url() +
                           "').then(r => r.text()).then(t => o.textContent = 'got ' + t)</script>";
  CLoopbackListener pageServer(serve(page, nullptr));
  const CTestDir profile("chromium");
  CChildOptions options;
  options.command = {"/bin/sh", "-c",
                     "exec /usr/bin/chromium --headless --no-sandbox --dump-dom "
                     "--virtual-time-budget=10000 --user-data-dir=" +
                         profile.Path() + " " + pageServer.Url()};
  CChildProcess browser(std::move(options));
  browser.Finish(90);
  EXPECT_NE(browser.Output().find(">got served by zelph"), std::string::npos) << browser.Describe();
  ASSERT_TRUE(dataServer.WaitServed(1)) << "the browser never asked the responder";
  EXPECT_EQ(origin, pageServer.Url()) << "the browser names the page's origin";
}

}  // namespace
}  // namespace zelph
