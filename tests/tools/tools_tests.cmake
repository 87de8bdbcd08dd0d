# tessaryctl against a stand-in daemon (unit tier).
add_executable(tessary_tools_tests ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessaryctl_test.cpp)
target_link_libraries(tessary_tools_tests PRIVATE tessary_linux_ipc tessary_test_support)
target_compile_definitions(tessary_tools_tests PRIVATE TESSARYCTL="$<TARGET_FILE:tessaryctl>")
add_dependencies(tessary_tools_tests tessaryctl)
gtest_discover_tests(tessary_tools_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)
