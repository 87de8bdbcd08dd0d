# The app-bundle and power watchers, with their Linux backends: inotify for
# the bundle's events, logind over the system bus for sleep and wake and for
# sleep-preventing assertions.
add_library(tessary_watchers STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/app_watcher.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/power_watcher.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/inotify_file_events.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/logind/logind_power.cpp)
target_link_libraries(tessary_watchers PUBLIC tessary_platform_linux PkgConfig::LIBSYSTEMD)
