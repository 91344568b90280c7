# Tests of src/common/system: local IPC and service control (label ipc), with
# the service that the service control tests start and stop.
add_executable(zelph_test_service TestService.cpp)
target_link_libraries(zelph_test_service PRIVATE zelph_system zelph_trace_core)
set_target_properties(zelph_test_service PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)

zelph_add_gtest(ipc_test LABEL ipc SOURCES IpcTest.cpp LIBS zelph_system zelph_trace_core)
target_compile_definitions(ipc_test PRIVATE
  ZELPH_TEST_SERVICE_PROGRAM="$<TARGET_FILE:zelph_test_service>")
add_dependencies(ipc_test zelph_test_service)
