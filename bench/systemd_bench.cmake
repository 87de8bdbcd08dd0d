# The systemd backend, and the supervisor on it, against a real (private)
# systemd user manager, next to systemctl and raw sd-bus. Run it with the
# custom target `systemd_bench`, or by hand through
# tests/systemd/with-systemd.sh (it needs root).
add_executable(tessary_systemd_bench ${CMAKE_CURRENT_SOURCE_DIR}/systemd_bench.cpp)
target_include_directories(tessary_systemd_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(tessary_systemd_bench PRIVATE
  tessary_systemd tessary_supervisor tessary_platform_linux benchmark::benchmark)
add_custom_target(systemd_bench
  COMMAND bash ${PROJECT_SOURCE_DIR}/tests/systemd/with-systemd.sh $<TARGET_FILE:tessary_systemd_bench>
  DEPENDS tessary_systemd_bench
  USES_TERMINAL)
