# The Debian package: `cpack -G DEB` in a build tree writes pointlane_<version>_<arch>.deb,
# installing under /usr with its library dependencies worked out by dpkg-shlibdeps.

set(POINTLANE_MAINTAINER "Pointlane developers <pointlane@example.org>"
    CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pointlane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Pointlane developers")
set(CPACK_PACKAGE_CONTACT ${POINTLANE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "planning-poker server for a team on the local network")
set(CPACK_PACKAGE_DESCRIPTION
    "Pointlane serves team estimation games (planning poker) to client apps on the local\n"
    "network. It sits in the desktop tray or runs headless as a user service, listens on\n"
    "TCP port 50000 and advertises itself with DNS-SD. Games, deals and elected cards are\n"
    "kept in SQLite under ~/.Pointlane, and a monitor window shows players and history.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})

# Installed files go to /usr; staged through DESTDIR, so install-time code sees that prefix.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${POINTLANE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Without the daemon the server still serves; it just isn't advertised.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS avahi-daemon)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

include(CPack)
