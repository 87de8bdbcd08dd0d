# The service-manager role on systemd: the translation of job dictionaries into
# unit files, and the backend that talks to the manager over its private
# socket.
add_library(tessary_systemd STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/unit_translation.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/unit_values.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/translate_process.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/translate_restart.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/translate_sockets.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/translate_triggers.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/manager_bus.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/shared_manager_connection.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/unit_files.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/unit_loading.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/unit_picture.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/job_submission.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/job_removal.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/systemd/systemd_service_manager.cpp)
target_link_libraries(tessary_systemd PUBLIC tessary_platform tessary_base PkgConfig::LIBSYSTEMD)
