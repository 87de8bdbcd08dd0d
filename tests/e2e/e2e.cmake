# The built daemon against a real systemd and polkitd in a private namespace
# (tier "e2e", needs root): with-systemd.sh makes the namespace, /run private
# first; daemon-sandbox.sh adds the system bus, polkitd, the app and the
# daemon, then runs the test's command.
#
#   add_sandbox_test(NAME TIMEOUT [AS_SERVICE] COMMAND ...)
#
# AS_SERVICE runs the daemon as a unit that systemd restarts always.
function(add_sandbox_test name timeout)
  cmake_parse_arguments(PARSE_ARGV 2 arg "AS_SERVICE" "" "COMMAND")
  set(mode "")
  if(arg_AS_SERVICE)
    set(mode --as-service)
  endif()
  add_test(NAME ${name}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/systemd/with-systemd.sh --private-run --
            bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/daemon-sandbox.sh ${mode}
            $<TARGET_FILE:tessaryd> ${CMAKE_CURRENT_SOURCE_DIR}/e2e/app
            ${PROJECT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy --
            ${arg_COMMAND})
  set_tests_properties(${name} PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT ${timeout})
endfunction()

add_executable(tessary_lifecycle_e2e_tests ${CMAKE_CURRENT_SOURCE_DIR}/e2e/lifecycle_e2e_test.cpp)
target_include_directories(tessary_lifecycle_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tessary_lifecycle_e2e_tests PRIVATE
  tessary_client GTest::gtest GTest::gtest_main)
add_dependencies(tessary_lifecycle_e2e_tests tessaryd)

# Sixteen clients at once, and the daemon killed under load.
add_executable(tessary_load_client ${CMAKE_CURRENT_SOURCE_DIR}/e2e/load_client.cpp)
target_link_libraries(tessary_load_client PRIVATE tessary_client Threads::Threads)

# The app's fate.
add_sandbox_test(e2e.lifecycle 300 AS_SERVICE COMMAND $<TARGET_FILE:tessary_lifecycle_e2e_tests>)
add_sandbox_test(e2e.load 1200
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/load.sh $<TARGET_FILE:tessary_load_client>)
add_sandbox_test(e2e.kill 600 AS_SERVICE
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/kill.sh $<TARGET_FILE:tessary_load_client>)
add_sandbox_test(e2e.faults 600
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/faults.sh $<TARGET_FILE:tessaryctl>)
# What tessaryctl says of the daemon's refusals, and list beside a label that
# can name no unit.
add_sandbox_test(e2e.client_messages 120
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/e2e/client-messages.sh $<TARGET_FILE:tessaryctl>)
