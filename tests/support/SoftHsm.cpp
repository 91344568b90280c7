#include "SoftHsm.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "CChildProcess.h"

namespace zelph {

std::string SoftHsmStore(const CTestDir& dir) {
  mkdir(dir.File("tokens").c_str(), 0700);
  WriteFile(dir.File("softhsm2.conf"),
            "directories.tokendir = " + dir.File("tokens") + "\nlog.level = ERROR\n");
  const std::string token = RunToEnd({{"/usr/bin/softhsm2-util", "--init-token", "--free",
                                       "--label", "zelph", "--so-pin", "87654321", "--pin", "1234"},
                                      {},
                                      {{"SOFTHSM2_CONF", dir.File("softhsm2.conf")}},
                                      {}});
  EXPECT_TRUE(token.starts_with("exit status 0;")) << token;
  return dir.File("softhsm2.conf");
}

}  // namespace zelph
