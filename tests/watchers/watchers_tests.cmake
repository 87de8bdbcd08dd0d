# The watchers against the doubles (virtual time, no sleeping), and the
# inotify backend against a real temporary directory on the real main queue.
add_executable(tessary_watchers_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/app_watcher_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/power_watcher_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/inotify_file_events_test.cpp)
target_link_libraries(tessary_watchers_tests PRIVATE tessary_watchers tessary_test_support)
gtest_discover_tests(tessary_watchers_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

