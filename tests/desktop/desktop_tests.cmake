# The desktop backends: the unit-name and version rules alone, then notices
# and running applications against stand-ins for logind and a notification
# server on private dbus-daemons (Debian package dbus-daemon; those tests
# need root to run the session bus as another user, and skip otherwise).
add_executable(tessary_desktop_standin ${CMAKE_CURRENT_SOURCE_DIR}/desktop/desktop_standin.cpp)
target_link_libraries(tessary_desktop_standin PRIVATE PkgConfig::LIBSYSTEMD)

add_executable(tessary_desktop_tests ${CMAKE_CURRENT_SOURCE_DIR}/desktop/desktop_test.cpp)
target_link_libraries(tessary_desktop_tests PRIVATE tessary_desktop tessary_test_support)
target_compile_definitions(tessary_desktop_tests PRIVATE
  DESKTOP_STANDIN="$<TARGET_FILE:tessary_desktop_standin>")
add_dependencies(tessary_desktop_tests tessary_desktop_standin)
gtest_discover_tests(tessary_desktop_tests TEST_FILTER "DesktopNames.*"
  DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)
gtest_discover_tests(tessary_desktop_tests TEST_FILTER "DesktopBuses.*"
  DISCOVERY_TIMEOUT 60 PROPERTIES LABELS logind)
