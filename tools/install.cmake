# The install step and what puts the daemon on a machine: tessary-install (the
# daemon out of the app bundle into place, its job definition file, the polkit
# action, the job started), tessaryd-generator (the daemon's unit at boot, made
# from that file), the sandbox that systemd adds to that unit (a drop-in), and
# the sample app bundle assembled with the built daemon.

add_executable(tessary_install ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessary_install.cpp)
set_target_properties(tessary_install PROPERTIES OUTPUT_NAME tessary-install)
target_link_libraries(tessary_install PRIVATE
  tessary_client tessary_systemd tessary_polkit tessary_platform_linux)

add_executable(tessaryd_generator ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessaryd_generator.cpp)
set_target_properties(tessaryd_generator PROPERTIES OUTPUT_NAME tessaryd-generator)
target_link_libraries(tessaryd_generator PRIVATE tessary_systemd tessary_platform_linux)

# The app bundle as it ships: examples/Tessary.app with the built daemon at
# Contents/Library/LaunchServices (where installs and self-updates take it
# from) and the polkit action in Contents/Resources (for tessary-install).
# Made afresh whenever any of its parts changes, so no stale file stays in it.
set(TESSARY_APP_SOURCE ${CMAKE_CURRENT_SOURCE_DIR}/examples/Tessary.app)
set(TESSARY_APP_BUNDLE ${CMAKE_BINARY_DIR}/Tessary.app)
set(TESSARY_APP_POLICY ${CMAKE_CURRENT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy)
file(GLOB_RECURSE TESSARY_APP_SOURCES CONFIGURE_DEPENDS ${TESSARY_APP_SOURCE}/*)
# The bundle's versions are the project's: the daemon answers only beside an
# app whose short version equals its own.
set(TESSARY_APP_INFO ${CMAKE_BINARY_DIR}/Tessary.app.Info.plist)
configure_file(${TESSARY_APP_SOURCE}/Contents/Info.plist ${TESSARY_APP_INFO} @ONLY)
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/Tessary.app.stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${TESSARY_APP_BUNDLE}
  COMMAND ${CMAKE_COMMAND} -E copy_directory ${TESSARY_APP_SOURCE} ${TESSARY_APP_BUNDLE}
  COMMAND ${CMAKE_COMMAND} -E copy ${TESSARY_APP_INFO} ${TESSARY_APP_BUNDLE}/Contents/Info.plist
  COMMAND ${CMAKE_COMMAND} -E make_directory ${TESSARY_APP_BUNDLE}/Contents/Library/LaunchServices
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:tessaryd>
          ${TESSARY_APP_BUNDLE}/Contents/Library/LaunchServices/com.orvane.tessaryd
  COMMAND ${CMAKE_COMMAND} -E copy ${TESSARY_APP_POLICY} ${TESSARY_APP_BUNDLE}/Contents/Resources/
  COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_BINARY_DIR}/Tessary.app.stamp
  DEPENDS ${TESSARY_APP_SOURCES} ${TESSARY_APP_INFO} ${TESSARY_APP_POLICY} tessaryd
  COMMENT "Assembling Tessary.app"
  VERBATIM)
add_custom_target(tessary_app ALL DEPENDS ${CMAKE_BINARY_DIR}/Tessary.app.stamp)

# The app goes where the daemon looks for it, whatever the prefix; the rest
# under the prefix (/usr in the package).
install(DIRECTORY ${TESSARY_APP_BUNDLE} DESTINATION /Applications USE_SOURCE_PERMISSIONS)
install(TARGETS tessary_install RUNTIME DESTINATION lib/tessary)
install(TARGETS tessaryd_generator RUNTIME DESTINATION lib/systemd/system-generators)
# Drop-ins apply to the unit wherever it comes from: the runtime unit that
# tessary-install submits and the generator's unit at boot alike.
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/data/systemd/com.orvane.tessaryd-sandbox.conf
  DESTINATION lib/systemd/system/com.orvane.tessaryd.service.d RENAME sandbox.conf)
