# The Tessary page of the Cockpit web console (web/): its npm packages are
# installed from the lock file into web/ of the build directory, and the page
# is bundled into web/dist there, then installed where Cockpit finds its
# packages (share/cockpit/tessary). The same packages carry the browser
# tests' automation library (tests/machine).
option(TESSARY_BUILD_WEB "Build the Cockpit page (needs node and npm)" ON)
if(NOT TESSARY_BUILD_WEB)
  return()
endif()

include(GNUInstallDirs)
find_program(TESSARY_NODE node REQUIRED)
find_program(TESSARY_NPM npm REQUIRED)

set(TESSARY_WEB_DIR ${CMAKE_BINARY_DIR}/web)
set(TESSARY_WEB_MODULES ${TESSARY_WEB_DIR}/node_modules)
set(web_source ${CMAKE_CURRENT_SOURCE_DIR}/web)
set(web_installed ${TESSARY_WEB_DIR}/installed.stamp)

add_custom_command(OUTPUT ${web_installed}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${TESSARY_WEB_DIR}
  COMMAND ${CMAKE_COMMAND} -E copy ${web_source}/package.json ${web_source}/package-lock.json
          ${TESSARY_WEB_DIR}
  COMMAND ${TESSARY_NPM} ci --no-audit --no-fund --loglevel=error
  COMMAND ${CMAKE_COMMAND} -E touch ${web_installed}
  WORKING_DIRECTORY ${TESSARY_WEB_DIR}
  DEPENDS ${web_source}/package.json ${web_source}/package-lock.json
  COMMENT "Installing the page's npm packages from the lock file"
  VERBATIM)

file(GLOB web_sources CONFIGURE_DEPENDS ${web_source}/src/*)
set(web_dist ${TESSARY_WEB_DIR}/dist)
add_custom_command(OUTPUT ${web_dist}/index.js.gz ${web_dist}/index.css.gz
  COMMAND ${TESSARY_NODE} ${web_source}/build.mjs --outdir ${web_dist} --modules ${TESSARY_WEB_MODULES}
  DEPENDS ${web_installed} ${web_source}/build.mjs ${web_sources}
  COMMENT "Bundling the Cockpit page"
  VERBATIM)
# debian/copyright names the npm packages the page bundles, with the lock
# file's licences: checked at every build that bundles the page.
set(web_copyright_checked ${TESSARY_WEB_DIR}/copyright.stamp)
add_custom_command(OUTPUT ${web_copyright_checked}
  COMMAND ${TESSARY_NODE} ${web_source}/check-copyright.mjs ${web_source}/package-lock.json
          ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright ${web_copyright_checked}
  DEPENDS ${web_source}/check-copyright.mjs ${web_source}/package-lock.json
          ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright
  COMMENT "Checking debian/copyright against the page's lock file"
  VERBATIM)
add_custom_target(tessary_web ALL DEPENDS ${web_dist}/index.js.gz ${web_copyright_checked})

install(DIRECTORY ${web_dist}/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/cockpit/tessary)
