#include "common/system/UpdateClient.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"
#include "SystemTestSupport.h"
#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

// The update server: answers every request with `answer` and records it.
class CUpdateServer {
 public:
  explicit CUpdateServer(std::string answer)
      : answer_(std::move(answer)), server_(PlainHandler([this](CHttpConnection& connection) {
          log_.Read(connection);
          SendResponseHead(connection, "application/octet-stream", static_cast<int>(answer_.size()),
                           true);
          connection.SendBytes(answer_.data(), answer_.size());
        })) {}

  CISOString BaseUrl() const { return server_.Url().c_str(); }
  std::vector<CSeenRequest> Requests() const { return log_.All(); }

 private:
  std::string answer_;
  CRequestLog log_;
  CTestServer server_;
};

std::string RefusedUrl() {
  return CTestServer([](int) {}).Url();
}

TEST(UpdateClient, ListingSendsEncodedQueryAndTracesTheNames) {
  const CWatchdog watchdog;
  CUpdateServer server("[\"a b.txt\", 5, \"\", \"c\\u00e9.bin\",]");
  const std::size_t before = TraceLogText().size();
  const std::vector<CUTF8String> names =
      ListRemoteDownloadFiles(server.BaseUrl(), "my dir", "*.txt&x=1", "client \xC3\xA9");

  ASSERT_EQ(names.size(), 2u) << "strings only, empty ones skipped";
  EXPECT_EQ(names[0].View(), "a b.txt");
  EXPECT_EQ(names[1].View(), "c\xC3\xA9.bin");
  const std::string target =
      "/downloads/index.php?directory=my%20dir&pattern=*.txt%26x%3D1&clientId=client%20%C3%A9";
  ASSERT_EQ(server.Requests().size(), 1u);
  EXPECT_EQ(server.Requests()[0].target, target) << "blanks as %20; \"&\" starts no new key";

  const std::string trace = TraceLogText().substr(before);
  const std::string expected[] = {"Entering List remote download files.\n",
                                  "Asking update server: " + AsString(server.BaseUrl()) + target,
                                  "\tFound file: a b.txt\n", "\tFound file: c\xE9.bin\n",
                                  "Leaving List remote download files.\n"};
  std::size_t at = 0;
  for (const std::string& line : expected) {
    at = trace.find(line, at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "\n" << trace;
  }
  EXPECT_EQ(CountOf(trace, "Failed"), 0) << trace;
}

TEST(UpdateClient, ListingFailuresEndInOneTracedLineAndAnEmptyList) {
  const CWatchdog watchdog;
  CUpdateServer notJson("<html>oops</html>");
  struct Case {
    CISOString baseUrl;
    std::string failure;
  } cases[] = {
      {notJson.BaseUrl(), "\tFailed: The update server's answer is not JSON\n"},
      {RefusedUrl().c_str(), "\tFailed: Connection failed: Connection refused\n"},
      {"gopher://127.0.0.1", "\tFailed: Invalid protocol :gopher\n"},
  };
  for (const Case& c : cases) {
    const std::size_t before = TraceLogText().size();
    EXPECT_TRUE(ListRemoteDownloadFiles(c.baseUrl, "d", "*", "id").empty()) << c.failure;
    const std::string trace = TraceLogText().substr(before);
    EXPECT_EQ(CountOf(trace, "Failed"), 1) << trace;
    EXPECT_EQ(CountOf(trace, c.failure), 1) << trace;
    EXPECT_EQ(CountOf(trace, "Leaving List remote download files."), 1) << trace;
  }
}

TEST(UpdateClient, DownloadReplacesTheLocalFileWithTheBody) {
  const CWatchdog watchdog;
  std::string large;
  for (int i = 0; i < 3000000; ++i) large.push_back(static_cast<char>(i % 251));
  const CTempDir dir;
  const std::string path = dir.File("out.bin");
  for (const std::string& content : {large, std::string()}) {
    CUpdateServer server(content);
    WriteFile(path, std::string(10, 'o'));
    const std::size_t before = TraceLogText().size();
    DownloadFile(server.BaseUrl(), "d x", "f&g.bin", path.c_str());

    EXPECT_TRUE(ReadFile(path) == content)
        << "file of " << ReadFile(path).size() << " bytes for a body of " << content.size();
    const std::string target = "/downloads/download.php?directory=d%20x&name=f%26g.bin";
    ASSERT_EQ(server.Requests().size(), 1u);
    EXPECT_EQ(server.Requests()[0].target, target);
    EXPECT_EQ(CountOf(TraceLogText().substr(before),
                      "Downloading: " + AsString(server.BaseUrl()) + target + "\n"),
              1);
  }
}

TEST(UpdateClient, DownloadFailureThrowsAndLeavesTheFileAlone) {
  const CWatchdog watchdog;
  const CTempDir dir;
  const std::string path = dir.File("keep.bin");
  WriteFile(path, "keep me");
  EXPECT_EQ(HttpErrorOf([&] { DownloadFile(RefusedUrl().c_str(), "d", "n", path.c_str()); }),
            "Connection failed: Connection refused");
  EXPECT_EQ(ReadFile(path), "keep me");

  CUpdateServer server("data");
  EXPECT_EQ(HttpErrorOf(
                [&] { DownloadFile(server.BaseUrl(), "d", "n", dir.File("no/such/dir").c_str()); }),
            "<no exception>")
      << "a local file that cannot be opened is not an error";
}

}  // namespace
}  // namespace zelph
