# HTTP, HTTPS and the update client against real peers on loopback (label http).
zelph_add_gtest(http_test LABEL http SOURCES HttpTest.cpp LIBS zelph_system zelph_trace_core)
# Headless Chromium against the responder: label browser only, so `make test` leaves it out.
zelph_add_gtest(browser_test LABEL browser TIMEOUT 150 SOURCES BrowserTest.cpp LIBS zelph_system)
