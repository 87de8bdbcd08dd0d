# The watchers against the doubles (virtual time, no sleeping), and the
# inotify backend against a real temporary directory on the real main queue.
add_executable(tessary_watchers_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/app_watcher_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/power_watcher_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/inotify_file_events_test.cpp)
target_link_libraries(tessary_watchers_tests PRIVATE tessary_watchers tessary_test_support)
gtest_discover_tests(tessary_watchers_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

# The logind backends against a stand-in that owns org.freedesktop.login1 on
# a private dbus-daemon (Debian package dbus-daemon; the tests skip without
# it), and against no bus at all.
add_executable(tessary_login1_standin ${CMAKE_CURRENT_SOURCE_DIR}/watchers/login1_standin.cpp)
target_link_libraries(tessary_login1_standin PRIVATE PkgConfig::LIBSYSTEMD)

add_executable(tessary_logind_tests ${CMAKE_CURRENT_SOURCE_DIR}/watchers/logind_power_test.cpp)
target_link_libraries(tessary_logind_tests PRIVATE tessary_watchers tessary_test_support)
target_compile_definitions(tessary_logind_tests PRIVATE
  LOGIN1_STANDIN="$<TARGET_FILE:tessary_login1_standin>")
add_dependencies(tessary_logind_tests tessary_login1_standin)
gtest_discover_tests(tessary_logind_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS logind)
