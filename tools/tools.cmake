# The client library (one request, one reply over the daemon's socket) and
# tessaryctl on top of it.
include(GNUInstallDirs)

add_library(tessary_client STATIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/client/tessary_client.cpp)
target_include_directories(tessary_client PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools)
target_link_libraries(tessary_client PUBLIC tessary_linux_ipc)

add_executable(tessaryctl ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessaryctl.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/terminal_authorization.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/unit_states.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/json_text.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/job_check.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/service_details.cpp)
target_link_libraries(tessaryctl PRIVATE
  tessary_client tessary_polkit tessary_prefs tessary_systemd tessary_platform_linux)

install(TARGETS tessaryctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/polkit-1/actions)
# Its man page and bash completion are installed by the package's debhelper
# tools (debian/tessary.manpages, debian/tessary.bash-completion).

# The installed product's version and the oldest the daemon works with, which
# the daemon compares at start (an older product loads no service). An
# administrator who installs an older product writes its version here.
file(WRITE ${CMAKE_BINARY_DIR}/product/version "${PROJECT_VERSION}\n")
file(WRITE ${CMAKE_BINARY_DIR}/product/minimum-version "5.0\n")
install(FILES ${CMAKE_BINARY_DIR}/product/version ${CMAKE_BINARY_DIR}/product/minimum-version
        DESTINATION /etc/tessary)

# The small commands the daemon's clean-up jobs call by name: jobtool (removes
# a job through the systemd backend) and syslog (one line into the system
# log). They go into the project's own directory, which the backend puts first
# on the PATH of every job it submits (src/daemon/main.cpp), not onto the
# system's PATH: their names are too common for that.
add_executable(jobtool ${CMAKE_CURRENT_SOURCE_DIR}/tools/jobtool.cpp)
target_link_libraries(jobtool PRIVATE tessary_systemd tessary_polkit tessary_platform_linux)

add_executable(syslog_command ${CMAKE_CURRENT_SOURCE_DIR}/tools/syslog_command.cpp)
set_target_properties(syslog_command PROPERTIES OUTPUT_NAME syslog)

install(TARGETS jobtool syslog_command RUNTIME DESTINATION lib/tessary/bin)
