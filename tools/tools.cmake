# The client library (one request, one reply over the daemon's socket) and
# tessaryctl on top of it.
include(GNUInstallDirs)

add_library(tessary_client STATIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/client/tessary_client.cpp)
target_include_directories(tessary_client PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools)
target_link_libraries(tessary_client PUBLIC tessary_peer_identity)

add_executable(tessaryctl ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessaryctl.cpp)
target_link_libraries(tessaryctl PRIVATE tessary_client)

install(TARGETS tessaryctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/tools/tessaryctl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/data/polkit/com.orvane.tessaryd.policy
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/polkit-1/actions)
