# The Linux backends of the roles: one library for each folder of
# platform/linux, compiled from that folder's files alone.

# The system log through syslog(3).
add_library(tessary_linux_log STATIC ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/log/syslog_system_log.cpp)
target_link_libraries(tessary_linux_log PUBLIC tessary_platform)

# Files: their operations, inotify's events, product and bundle information.
add_library(tessary_linux_fs STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/posix_file_operations.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/inotify_file_events.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/file_product_info.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/file_bundle_info.cpp)
target_link_libraries(tessary_linux_fs PUBLIC tessary_platform)

# Process control and the watch of another process's exit.
add_library(tessary_linux_process STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/process/process_control.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/process/pidfd_exit_watch.cpp)
target_link_libraries(tessary_linux_process PUBLIC tessary_platform)

# The main queue on sd-event.
add_library(tessary_linux_event STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/event/sd_event_queue.cpp)
target_link_libraries(tessary_linux_event PUBLIC tessary_platform PkgConfig::LIBSYSTEMD)

# platform/linux itself holds headers only: the owners of sd-bus and sd-event
# handles and the roles' stand-ins where Linux has no such facility. Its
# library is those headers with the basics beneath it that every program of
# the project links: the system log, files, processes and the event loop.
add_library(tessary_platform_linux INTERFACE)
target_link_libraries(tessary_platform_linux INTERFACE
  tessary_linux_log tessary_linux_fs tessary_linux_process tessary_linux_event
  tessary_platform PkgConfig::LIBSYSTEMD)

# The request channel on a Unix socket, how a process is named (the
# authorization form, the audit token and the /proc facts behind them, which
# the client shares) and the code behind a token.
add_library(tessary_linux_ipc STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/peer_identity.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/unix_message_service.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/proc_code_signing_service.cpp)
target_link_libraries(tessary_linux_ipc PUBLIC tessary_platform PkgConfig::LIBSYSTEMD)

# Authorization through polkit on the system bus.
add_library(tessary_polkit STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/polkit/polkit_authorization_service.cpp)
target_link_libraries(tessary_polkit PUBLIC tessary_linux_ipc PkgConfig::LIBSYSTEMD)

# Sleep and wake, and sleep-preventing assertions, through logind on the
# system bus.
add_library(tessary_logind STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/logind/logind_power.cpp)
target_link_libraries(tessary_logind PUBLIC tessary_linux_event PkgConfig::LIBSYSTEMD)

# The service-manager role on systemd.
include(${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/systemd.cmake)
# Notices to the console user and the applications of their sessions.
include(${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/desktop/desktop.cmake)
