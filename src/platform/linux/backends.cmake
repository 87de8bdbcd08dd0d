# How a client names itself and how the request channel names a client: the
# authorization form, the audit token and the /proc facts behind them. Shared
# by the daemon's backends and the client.
add_library(tessary_peer_identity STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/peer_identity.cpp)
target_link_libraries(tessary_peer_identity PUBLIC tessary_plist)

# The Linux backends of the request channel, authorization, code identity,
# product information and bundle information.
add_library(tessary_linux_backends STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/unix_message_service.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/polkit/polkit_authorization_service.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/ipc/proc_code_signing_service.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/file_product_info.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/fs/file_bundle_info.cpp)
target_link_libraries(tessary_linux_backends PUBLIC
  tessary_peer_identity tessary_platform_linux PkgConfig::LIBSYSTEMD)
