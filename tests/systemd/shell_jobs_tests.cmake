# Jobs run by /bin/sh, and the daemon's clean-up jobs. The translation of
# shell jobs on its own (unit tier); the clean-up jobs, jobtool and syslog
# against a real systemd with a private /Library (tier "systemd", needs root).
add_executable(tessary_shell_jobs_unit_tests ${CMAKE_CURRENT_SOURCE_DIR}/systemd/shell_jobs_test.cpp)
target_include_directories(tessary_shell_jobs_unit_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_shell_jobs_unit_tests PRIVATE
  tessary_systemd GTest::gtest GTest::gtest_main)
gtest_discover_tests(tessary_shell_jobs_unit_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

add_executable(tessary_cleanup_jobs_tests ${CMAKE_CURRENT_SOURCE_DIR}/systemd/cleanup_jobs_test.cpp)
target_link_libraries(tessary_cleanup_jobs_tests PRIVATE
  tessary_systemd tessary_test_support Threads::Threads)
target_compile_definitions(tessary_cleanup_jobs_tests PRIVATE
  JOBTOOL="$<TARGET_FILE:jobtool>"
  SYSLOG_COMMAND="$<TARGET_FILE:syslog_command>")
add_dependencies(tessary_cleanup_jobs_tests jobtool syslog_command)

# The wrapper exits 77 when it cannot run (not root), which CTest reports as
# skipped.
add_test(NAME systemd.cleanup_jobs
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh
          bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-private-library.sh
          $<TARGET_FILE:tessary_cleanup_jobs_tests>)
set_tests_properties(systemd.cleanup_jobs PROPERTIES
  LABELS systemd SKIP_RETURN_CODE 77 TIMEOUT 300)
