# The built daemon against a real systemd and polkitd in a private namespace
# (tier "e2e", needs root): with-systemd.sh makes the namespace, /run private
# first; daemon-sandbox.sh adds the system bus, polkitd, the app and the
# daemon, then runs the test binary.
add_executable(tessary_e2e_tests ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon_e2e_test.cpp)
target_include_directories(tessary_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_e2e_tests PRIVATE tessary_client GTest::gtest GTest::gtest_main)
add_dependencies(tessary_e2e_tests tessaryd)

add_test(NAME e2e.daemon
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh
          $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
          ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
          $<TARGET_FILE:tessary_e2e_tests>)
set_tests_properties(e2e.daemon PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 300)

# The app's fate, with the daemon as a unit that systemd restarts always.
add_executable(tessary_lifecycle_e2e_tests ${CMAKE_CURRENT_SOURCE_DIR}/e2e/lifecycle_e2e_test.cpp)
target_include_directories(tessary_lifecycle_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_lifecycle_e2e_tests PRIVATE tessary_client GTest::gtest GTest::gtest_main)
add_dependencies(tessary_lifecycle_e2e_tests tessaryd)

add_test(NAME e2e.lifecycle
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh --as-service
          $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
          ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
          $<TARGET_FILE:tessary_lifecycle_e2e_tests>)
set_tests_properties(e2e.lifecycle PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 300)

# Sixteen clients at once, and the daemon killed under load.
add_executable(tessary_load_client ${CMAKE_CURRENT_SOURCE_DIR}/e2e/load_client.cpp)
target_link_libraries(tessary_load_client PRIVATE tessary_client Threads::Threads)

add_test(NAME e2e.load
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh
          $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
          ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/load.sh $<TARGET_FILE:tessary_load_client>)
set_tests_properties(e2e.load PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 1200)

add_test(NAME e2e.kill
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh --as-service
          $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
          ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/kill.sh $<TARGET_FILE:tessary_load_client>)
set_tests_properties(e2e.kill PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 600)

add_test(NAME e2e.faults
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh
          $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
          ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
          bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/faults.sh $<TARGET_FILE:tessaryctl>)
set_tests_properties(e2e.faults PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 600)
