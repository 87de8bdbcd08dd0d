# The desktop and logind backends: the unit-name rules alone, then notices,
# running applications, the sleep notifier and power assertions against
# stand-ins for logind and a notification server on private dbus-daemons
# (Debian package dbus-daemon; the notice test needs root to run the session
# bus as another user, and skips otherwise).
# The stand-ins are one program; scripts/demo.sh builds it by this name.
add_executable(tessary_login1_standin ${CMAKE_CURRENT_SOURCE_DIR}/desktop/bus_standin.cpp)
target_link_libraries(tessary_login1_standin PRIVATE PkgConfig::LIBSYSTEMD)

add_executable(tessary_desktop_tests ${CMAKE_CURRENT_SOURCE_DIR}/desktop/desktop_test.cpp)
target_link_libraries(tessary_desktop_tests PRIVATE
  tessary_desktop tessary_watchers tessary_test_support)
target_compile_definitions(tessary_desktop_tests PRIVATE
  BUS_STANDIN="$<TARGET_FILE:tessary_login1_standin>")
add_dependencies(tessary_desktop_tests tessary_login1_standin)
gtest_discover_tests(tessary_desktop_tests TEST_FILTER "DesktopNames.*"
  DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)
gtest_discover_tests(tessary_desktop_tests TEST_FILTER "DesktopBuses.*"
  DISCOVERY_TIMEOUT 60 PROPERTIES LABELS logind)
