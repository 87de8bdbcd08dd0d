# The Linux backends of the request channel, authorization, code identity and
# product and bundle information against the real kernel interfaces (sockets,
# /proc, ELF files) on temporary paths.
add_executable(tessary_info_carrier ${CMAKE_CURRENT_SOURCE_DIR}/backends/info_carrier.cpp)

add_executable(tessary_backend_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/backends/message_service_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/backends/authorization_test.cpp)
target_link_libraries(tessary_backend_tests PRIVATE tessary_polkit tessary_test_support)
target_compile_definitions(tessary_backend_tests PRIVATE
  INFO_CARRIER="$<TARGET_FILE:tessary_info_carrier>")
add_dependencies(tessary_backend_tests tessary_info_carrier)
gtest_discover_tests(tessary_backend_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)
