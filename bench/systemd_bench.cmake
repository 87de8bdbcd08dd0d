# The systemd backend against a real (private) systemd user manager, next to
# systemctl. Run it with the custom target `systemd_bench`, or by hand through
# tests/systemd/with-systemd.sh (it needs root).
add_executable(tessary_systemd_bench ${CMAKE_CURRENT_SOURCE_DIR}/systemd_bench.cpp)
target_link_libraries(tessary_systemd_bench PRIVATE tessary_systemd benchmark::benchmark)
add_custom_target(systemd_bench
  COMMAND bash ${PROJECT_SOURCE_DIR}/tests/systemd/with-systemd.sh $<TARGET_FILE:tessary_systemd_bench>
  DEPENDS tessary_systemd_bench
  USES_TERMINAL)
