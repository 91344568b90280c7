# HTTP, HTTPS and the update client against real peers on loopback (label http).
# The tests make their TLS servers with OpenSSL themselves; zelph_system does not link it.
find_package(OpenSSL 3 REQUIRED)
zelph_add_gtest(http_test LABEL http SOURCES HttpTest.cpp
  LIBS zelph_system zelph_trace_core OpenSSL::SSL)
# OpenSSL mapped only from the first HTTPS use on: in this program, which does
# not link it, and in a bare C host that loads the library and traces.
add_executable(bare_trace_host BareTraceHost.c)
target_link_libraries(bare_trace_host PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(bare_trace_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
zelph_add_gtest(tls_binding_test LABEL http SOURCES TlsBindingTest.cpp
  LIBS zelph_system zelph_trace_core)
target_compile_definitions(tls_binding_test PRIVATE
  ZELPH_TRACE_LIB="$<TARGET_FILE:zelphtrace>" ZELPH_BARE_HOST="$<TARGET_FILE:bare_trace_host>")
add_dependencies(tls_binding_test zelphtrace bare_trace_host)
# Headless Chromium against the responder: label browser only, so `make test` leaves it out.
zelph_add_gtest(browser_test LABEL browser TIMEOUT 150 SOURCES BrowserTest.cpp
  LIBS zelph_system zelph_trace_core)
