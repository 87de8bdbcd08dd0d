# tessary-install on a temporary root and tessaryd-generator into a temporary
# directory (unit tier).
add_executable(tessary_install_tests ${CMAKE_CURRENT_SOURCE_DIR}/install/install_test.cpp)
target_include_directories(tessary_install_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_install_tests PRIVATE GTest::gtest GTest::gtest_main)
target_compile_definitions(tessary_install_tests PRIVATE
  TESSARY_INSTALL="$<TARGET_FILE:tessary_install>"
  TESSARYD_GENERATOR="$<TARGET_FILE:tessaryd_generator>"
  APP_BUNDLE="${CMAKE_BINARY_DIR}/Tessary.app"
  JOB_PLIST="${PROJECT_SOURCE_DIR}/data/com.orvane.tessaryd-Launchd.plist")
add_dependencies(tessary_install_tests tessary_install tessaryd_generator tessary_app)
gtest_discover_tests(tessary_install_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

# The Debian packages (tier "package"): made by dpkg-buildpackage from this
# source tree into package/ of the build directory, whose own build there is
# kept for the next run (scripts/build-package.sh); checked by lintian; made
# a second time from nothing elsewhere and compared byte for byte. The machine
# tier installs, uses and removes the same packages.
set(TESSARY_PACKAGE_DIR ${CMAKE_BINARY_DIR}/package)
add_test(NAME package.build
  COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/build-package.sh ${TESSARY_PACKAGE_DIR})
add_test(NAME package.lintian
  COMMAND sh -c "lintian --fail-on error,warning --display-info \"$0\"/tessary_*.changes"
          ${TESSARY_PACKAGE_DIR})
add_test(NAME package.reproducible
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/install/reproducible-test.sh ${TESSARY_PACKAGE_DIR})
set_tests_properties(package.build PROPERTIES
  LABELS package FIXTURES_SETUP tessary_package PROCESSORS 2 TIMEOUT 1800)
set_tests_properties(package.reproducible PROPERTIES
  LABELS package FIXTURES_REQUIRED tessary_package PROCESSORS 2 TIMEOUT 1800)
set_tests_properties(package.lintian PROPERTIES
  LABELS package FIXTURES_REQUIRED tessary_package TIMEOUT 600)
