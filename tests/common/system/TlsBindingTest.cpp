// OpenSSL is bound at the first TLS use, not when the library is loaded. This
// program does not link OpenSSL, so whatever maps it came from zelph.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "TraceLog.h"
#include "common/base/CException.h"
#include "common/system/CHttpsConnectionFactory.h"
#include "common/system/COpenSslLibrary.h"

// Designated initializers name only the child options a test sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace zelph {
namespace {

// The OpenSSL libraries of a /proc/<pid>/maps text, by file name, sorted.
std::string OpenSslIn(const std::string& maps) {
  std::set<std::string> names;
  for (const std::string& line : SplitLines(maps)) {
    const std::string name = line.substr(line.rfind('/') + 1);
    if (name.starts_with("libssl.") || name.starts_with("libcrypto.")) names.insert(name);
  }
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
  return text;
}

TEST(TlsBinding, LoadingTheLibraryAndTracingMapsNoOpenSsl) {
  const CTestDir dir("tls");
  ASSERT_TRUE(WriteFile(dir.File("zelph.conf"), TraceConfig(dir.File("logs"), "0")));
  CChildProcess host(
      {.command = {ZELPH_BARE_HOST, ZELPH_TRACE_LIB},
       .environment = {{"ZELPH_CONFFILE", dir.File("zelph.conf")}, {"HOME", dir.Path()}}});
  ASSERT_TRUE(host.Finish() && CountOf(host.Output(), "/libzelphtrace.so") > 0) << host.Describe();
  EXPECT_EQ(OpenSslIn(host.Output()), "") << "loading libzelphtrace.so and tracing mapped OpenSSL";
}

TEST(TlsBinding, TheFirstHttpsConnectionMapsOpenSsl) {
  EXPECT_EQ(OpenSslIn(ReadFile("/proc/self/maps")), "") << "OpenSSL mapped before any HTTPS use";
  EXPECT_NE(CHttpsConnectionFactory().CreateConnection(ParseUrl("https://127.0.0.1/")), nullptr);
  EXPECT_EQ(OpenSslIn(ReadFile("/proc/self/maps")), "libcrypto.so.3 libssl.so.3")
      << "the first HTTPS connection did not load OpenSSL 3";
}

TEST(TlsBinding, AMissingOrIncompleteOpenSslIsAnHttpErrorNamingWhatLacks) {
  for (const auto& [soname, error] : std::vector<std::pair<const char*, std::string>>{
           {"libzelph-absent.so.3", "Unable to load libzelph-absent.so.3: libzelph-absent.so.3: "},
           {"libc.so.6", "Unable to find OPENSSL_init_ssl in libc.so.6"}}) {
    std::string outcome = "<no error>";
    try {
      const COpenSslLibrary library(soname);
    } catch (const CHttpException& exception) {
      outcome = std::string(exception.GetEvent().GetText().View());
    }
    EXPECT_TRUE(outcome.starts_with(error)) << soname << " gave " << outcome;
  }
}

}  // namespace
}  // namespace zelph
