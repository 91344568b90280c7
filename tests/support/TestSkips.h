// Skips for tests that cannot run in some builds, so that each test says for
// itself where it does not run instead of a list kept elsewhere.
#pragma once

#include <gtest/gtest.h>

namespace zelph {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool kUnderThreadSanitizer = true;
#else
inline constexpr bool kUnderThreadSanitizer = false;
#endif

}  // namespace zelph

// ThreadSanitizer's runtime cannot be loaded with dlopen (so not into a
// program such as pkcs11-tool), and its atexit interceptor breaks programs
// that unload the library before they exit.
#define ZELPH_SKIP_UNDER_TSAN(why) \
  if (::zelph::kUnderThreadSanitizer) GTEST_SKIP() << "skipped under ThreadSanitizer: " << why
