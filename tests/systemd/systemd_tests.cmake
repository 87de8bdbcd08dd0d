# The systemd backend's tests: the translation of job dictionaries on its own
# (unit tier), and the backend, the daemon's clean-up jobs, jobtool and syslog
# against a real systemd user manager (tier "systemd", needs root).
add_executable(tessary_systemd_unit_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/systemd/unit_translation_test.cpp)
target_link_libraries(tessary_systemd_unit_tests PRIVATE tessary_systemd tessary_test_support)
gtest_discover_tests(tessary_systemd_unit_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

# The program the real-systemd tests submit as a job.
add_executable(tessary_systemd_job_probe ${CMAKE_CURRENT_SOURCE_DIR}/systemd/job_probe.cpp)

add_executable(tessary_systemd_integration_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/systemd/systemd_service_manager_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/systemd/cleanup_jobs_test.cpp)
target_link_libraries(tessary_systemd_integration_tests PRIVATE
  tessary_systemd tessary_test_support Threads::Threads)
target_compile_definitions(tessary_systemd_integration_tests PRIVATE
  JOB_PROBE="$<TARGET_FILE:tessary_systemd_job_probe>"
  JOBTOOL="$<TARGET_FILE:jobtool>"
  SYSLOG_COMMAND="$<TARGET_FILE:syslog_command>")
add_dependencies(tessary_systemd_integration_tests tessary_systemd_job_probe jobtool syslog_command)

# One private manager for the whole binary, with a private /Library (the
# uninstall job's script names paths there) and a /dev/log of the test's.
# The wrapper exits 77 when it cannot run (not root), which CTest reports as
# skipped.
add_test(NAME systemd.service_manager
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-private-library.sh
          $<TARGET_FILE:tessary_systemd_integration_tests>)
set_tests_properties(systemd.service_manager PROPERTIES
  LABELS systemd SKIP_RETURN_CODE 77 TIMEOUT 300)
