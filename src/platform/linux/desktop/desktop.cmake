# The console user's desktop: notices as desktop notifications on the user's
# session bus, and the applications of the user's sessions, both finding the
# user through logind on the system bus.
add_library(tessary_desktop STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/desktop/console_user.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/desktop/desktop_notices.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/desktop/session_applications.cpp)
target_link_libraries(tessary_desktop PUBLIC tessary_logind PkgConfig::LIBSYSTEMD)
