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
# The bundling extracts the page's strings with it (package gettext).
find_program(TESSARY_XGETTEXT xgettext REQUIRED)

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

# The page's sources, its translations (po/LANG.po) and the lint rules: the
# build lints the page with eslint and stylelint (the rules of Cockpit's
# starter kit), extracts its strings into web/tessary.pot, fails when a
# translation is incomplete, and bundles it with po.LANG.js for each language.
file(GLOB web_sources CONFIGURE_DEPENDS ${web_source}/src/* ${web_source}/po/*.po)
file(GLOB web_styles CONFIGURE_DEPENDS ${web_source}/src/*.css)
file(GLOB web_tests CONFIGURE_DEPENDS ${web_source}/test/*)
file(GLOB web_translations CONFIGURE_DEPENDS ${web_source}/po/*.po)
configure_file(${web_source}/.eslintrc.json ${TESSARY_WEB_DIR}/eslintrc.json COPYONLY)
configure_file(${web_source}/.stylelintrc.json ${TESSARY_WEB_DIR}/stylelintrc.json COPYONLY)

set(web_linted ${TESSARY_WEB_DIR}/linted.stamp)
add_custom_command(OUTPUT ${web_linted}
  COMMAND ${TESSARY_NODE} ${TESSARY_WEB_MODULES}/eslint/bin/eslint.js --no-eslintrc
          -c ${TESSARY_WEB_DIR}/eslintrc.json --ext .js,.jsx,.mjs --max-warnings 0
          ${web_source}/src ${web_source}/test ${web_source}/build.mjs
  COMMAND ${TESSARY_NODE} ${TESSARY_WEB_MODULES}/stylelint/bin/stylelint.mjs
          --config ${TESSARY_WEB_DIR}/stylelintrc.json ${web_styles}
  COMMAND ${CMAKE_COMMAND} -E touch ${web_linted}
  DEPENDS ${web_installed} ${web_sources} ${web_tests} ${web_source}/build.mjs
          ${TESSARY_WEB_DIR}/eslintrc.json ${TESSARY_WEB_DIR}/stylelintrc.json
  COMMENT "Linting the Cockpit page"
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

set(web_dist ${TESSARY_WEB_DIR}/dist)
set(web_outputs ${web_dist}/index.js.gz ${web_dist}/index.css.gz ${TESSARY_WEB_DIR}/tessary.pot)
foreach(po IN LISTS web_translations)
  get_filename_component(language ${po} NAME_WE)
  list(APPEND web_outputs ${web_dist}/po.${language}.js.gz)
endforeach()
add_custom_command(OUTPUT ${web_outputs}
  COMMAND ${TESSARY_NODE} ${web_source}/build.mjs --outdir ${web_dist} --modules ${TESSARY_WEB_MODULES}
          --pot ${TESSARY_WEB_DIR}/tessary.pot
  DEPENDS ${web_installed} ${web_linted} ${web_source}/build.mjs ${web_sources}
  COMMENT "Bundling the Cockpit page with its translations"
  VERBATIM)
add_custom_target(tessary_web ALL DEPENDS ${web_outputs} ${web_copyright_checked})

install(DIRECTORY ${web_dist}/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/cockpit/tessary)

# The page's logic that needs no browser, with node's test runner; run from
# a copy beside the installed packages, where the page's imports find them.
if(TESSARY_BUILD_TESTS)
  add_test(NAME web.page_logic
    COMMAND sh -c "rm -rf logic && mkdir logic && cp -r \"$1/src\" \"$1/test\" logic/ && \"$2\" --test logic/test/"
            - ${web_source} ${TESSARY_NODE}
    WORKING_DIRECTORY ${TESSARY_WEB_DIR})
  set_tests_properties(web.page_logic PROPERTIES LABELS unit)
endif()
