# The app-bundle and power watchers, on the roles' interfaces: the backends
# they run on (inotify, logind) are the daemon's to hand them.
add_library(tessary_watchers STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/app_watcher.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/watchers/power_watcher.cpp)
target_link_libraries(tessary_watchers PUBLIC tessary_platform)
