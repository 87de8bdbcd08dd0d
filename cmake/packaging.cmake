# The Debian package "tessary": `cpack -G DEB` in a build directory (a release
# one for shipping) makes build/<preset>/tessary_5.11.1_<arch>.deb.
#
# It holds every install rule of the project: the app bundle at
# /Applications/Tessary.app with the daemon inside, tessaryctl and its man page,
# the helper commands in /usr/lib/tessary/bin, tessary-install, the generator,
# the polkit action and the Tessary page of the Cockpit web console
# (/usr/share/cockpit/tessary). The page is part of this package rather than
# one of its own: it drives the daemon through this package's tessaryctl, and
# one package keeps the two at one version; without Cockpit it is a folder of
# static files that nothing reads, so Cockpit is only suggested. postinst runs tessary-install, prerm (on removal)
# tessary-install --uninstall, postrm (on purge) removes the preferences.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessary)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR Orvane)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Tessary administration app and its supervisor daemon")
set(CPACK_PACKAGE_DESCRIPTION
  "The Tessary app bundle with tessaryd, the privileged daemon that runs its background
services under systemd, tessaryctl, the daemon's command-line client, and the
Tessary page of the Cockpit web console.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})

set(TESSARY_PACKAGE_MAINTAINER "Orvane <tessary@orvane.invalid>" CACHE STRING
  "The Maintainer field of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TESSARY_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The libraries (libc6, libstdc++6, libplist3, libsystemd0, ...) come with
# their versions from dpkg-shlibdeps; polkitd answers the daemon's
# authorization questions, psmisc has the killall of the self-update's
# clean-up job.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "polkitd, psmisc")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "cockpit-ws (>= 287), cockpit-bridge (>= 287)")

set(TESSARY_INSTALL_COMMAND ${CPACK_PACKAGING_INSTALL_PREFIX}/lib/tessary/tessary-install)
foreach(script postinst prerm postrm)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${script}.in
    ${CMAKE_BINARY_DIR}/packaging/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                     WORLD_READ WORLD_EXECUTE)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/${script})
endforeach()
# The product-version files are the administrator's to change: dpkg keeps
# their edits across upgrades and removes them only on purge.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/tessary/version\n/etc/tessary/minimum-version\n")
list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
