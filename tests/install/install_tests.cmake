# tessary-install on a temporary root and tessaryd-generator into a temporary
# directory (unit tier); the Debian package installed, used and removed with
# dpkg inside with-systemd.sh's namespace (tier "package", needs root).
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

# Builds the package from this build directory with cpack, so it needs every
# installed target built (the default build does that).
add_test(NAME package.install_remove
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/install/package-test.sh ${CMAKE_BINARY_DIR})
set_tests_properties(package.install_remove PROPERTIES
  LABELS package SKIP_RETURN_CODE 77 TIMEOUT 600)
