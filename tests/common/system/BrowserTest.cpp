// End to end in a real browser: a page of one local origin fetches from the
// responder on another port, which works only because the responder echoes
// the page's origin.
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"
#include "SystemTestSupport.h"
#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

constexpr char kChromium[] = "/usr/bin/chromium";

TEST(Browser, CrossOriginFetchSucceedsBecauseTheOriginIsEchoed) {
  if (access(kChromium, X_OK) != 0) {
    GTEST_SKIP() << kChromium << " is not installed (apt-get install chromium)";
  }
  const CWatchdog watchdog(150);
  CRequestLog fetches;
  CTestServer data(PlainHandler([&fetches](CHttpConnection& connection) {
    fetches.Read(connection);
    SendTextResponse(connection, "text/plain", "served by zelph");
  }));
  // The script writes what it fetched, or why it failed, into the DOM.
  const std::string page =
      "<!DOCTYPE html><html><body><p id=\"out\">waiting</p><script>\n"
      "const out = document.getElementById('out');\n"
      "fetch('" +
      data.Url("/data") +
      "').then(r => r.text())\n"
      "  .then(t => { out.textContent = 'fetched:' + t.trim(); })\n"
      "  .catch(e => { out.textContent = 'failed:' + e; });\n"
      "</script></body></html>";
  CTestServer pages(PlainHandler([&page](CHttpConnection& connection) {
    ReadHttpRequest(connection);
    SendResponseHead(connection, "text/html", static_cast<int>(page.size()), true);
    connection.SendBytes(page.data(), page.size());
  }));

  const CTempDir profile;
  CChildProcess browser({kChromium, "--headless", "--no-sandbox", "--disable-gpu",
                         "--disable-background-networking", "--disable-component-update",
                         "--disable-sync", "--no-first-run", "--user-data-dir=" + profile.Path(),
                         "--virtual-time-budget=10000", "--dump-dom", pages.Url("/index.html")},
                        profile.Path());
  const std::string dom = browser.Finish(90);
  EXPECT_NE(dom.find("<p id=\"out\">fetched:served by zelph</p>"), std::string::npos)
      << "the page could not read the answer:\n"
      << dom;
  ASSERT_EQ(fetches.All().size(), 1u) << "the browser did not ask the responder once";
  EXPECT_EQ(fetches.All()[0].origin, pages.Url()) << "the browser names the page's origin";
}

}  // namespace
}  // namespace zelph
