// A SoftHSM2 token store for tests that need a real PKCS#11 module.
#pragma once

#include <string>

#include "TestFiles.h"

namespace zelph {

inline constexpr char kSoftHsmModule[] = "/usr/lib/softhsm/libsofthsm2.so";

// Makes a token "zelph" with the user PIN "1234" in `dir`; returns the
// configuration file to name in SOFTHSM2_CONF.
std::string SoftHsmStore(const CTestDir& dir);

}  // namespace zelph
