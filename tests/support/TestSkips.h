// Skips for tests that cannot run in some builds, so that each test says for
// itself where it does not run instead of a list kept elsewhere.
#pragma once

#include <gtest/gtest.h>

// ThreadSanitizer's runtime cannot be loaded with dlopen (so not into a
// program such as pkcs11-tool), and its atexit interceptor breaks programs
// that unload the library before they exit.
#if defined(__SANITIZE_THREAD__)
#define ZELPH_SKIP_UNDER_TSAN(why) GTEST_SKIP() << "skipped under ThreadSanitizer: " << why
#else
#define ZELPH_SKIP_UNDER_TSAN(why) static_cast<void>(0)
#endif
