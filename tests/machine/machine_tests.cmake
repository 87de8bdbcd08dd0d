# The Debian package on a booted machine: systemd as PID 1 in a throw-away
# systemd-nspawn container over this machine's own root, from `apt-get install`
# through a reboot and an upgrade to `apt-get purge` (tier "machine", needs
# root). It installs the package tier's packages (package/ of this build
# directory); the upgrade's come from this tree at the next patch version,
# made in machine-next/ of this build directory.
math(EXPR TESSARY_NEXT_PATCH "${PROJECT_VERSION_PATCH} + 1")
add_test(NAME machine.package_lifecycle
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/machine/machine-test.sh
          ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR}
          ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${TESSARY_NEXT_PATCH})
# The notices go to a notification server of the desktop tier's stand-in,
# on the session bus of a user logged in on the machine's seat.
set_tests_properties(machine.package_lifecycle PROPERTIES
  LABELS machine SKIP_RETURN_CODE 77 TIMEOUT 1800 RUN_SERIAL TRUE
  FIXTURES_REQUIRED tessary_package
  ENVIRONMENT TESSARY_NOTIFICATION_STANDIN=$<TARGET_FILE:tessary_login1_standin>)
