# The systemd backend's tests: the translation of job dictionaries on its own
# (unit tier), and the backend against a real systemd user manager run by
# with-systemd.sh (tier "systemd", needs root). They need only the backend,
# gtest and the header-only doubles, not the rest of the daemon.
add_library(tessary_systemd_test_support INTERFACE)
target_include_directories(tessary_systemd_test_support INTERFACE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_systemd_test_support INTERFACE
  tessary_systemd GTest::gtest GTest::gtest_main Threads::Threads)

add_executable(tessary_systemd_unit_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/systemd/unit_translation_test.cpp)
target_link_libraries(tessary_systemd_unit_tests PRIVATE tessary_systemd_test_support)
gtest_discover_tests(tessary_systemd_unit_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

# The program the real-systemd tests submit as a job.
add_executable(tessary_systemd_job_probe ${CMAKE_CURRENT_SOURCE_DIR}/systemd/job_probe.cpp)

add_executable(tessary_systemd_integration_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/systemd/systemd_service_manager_test.cpp)
target_link_libraries(tessary_systemd_integration_tests PRIVATE tessary_systemd_test_support)
target_compile_definitions(tessary_systemd_integration_tests PRIVATE
  JOB_PROBE="$<TARGET_FILE:tessary_systemd_job_probe>")
add_dependencies(tessary_systemd_integration_tests tessary_systemd_job_probe)

# One private manager for the whole binary. The wrapper exits 77 when it cannot
# run (not root), which CTest reports as skipped.
add_test(NAME systemd.service_manager
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh
          $<TARGET_FILE:tessary_systemd_integration_tests>)
set_tests_properties(systemd.service_manager PROPERTIES
  LABELS systemd SKIP_RETURN_CODE 77 TIMEOUT 300)
