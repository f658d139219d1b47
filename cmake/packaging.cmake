# Installation (GNUInstallDirs) and the Debian package (CPack):
#   cmake --install build --prefix DIR      cd build && cpack
include(GNUInstallDirs)

install(TARGETS whttpd_rest RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET wcfgctl)
    install(TARGETS wcfgctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET whttpctl)
    install(TARGETS whttpctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
# The data-model definition and default configuration are compiled into the
# programs; installed beside them as the reference of what the device holds.
install(FILES data/datamodel.def data/defaults.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/whttpd)
install(FILES README.md DEVELOPERS.md docs/openapi.yaml DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The web console, which the daemon serves from beside itself
# (../share/whttpd/console from its program's folder).
install(DIRECTORY console/ DESTINATION ${CMAKE_INSTALL_DATADIR}/whttpd/console)
install(PROGRAMS packaging/openwrt/whttpd.init
        DESTINATION ${CMAKE_INSTALL_DATADIR}/whttpd/openwrt RENAME whttpd)

install(FILES packaging/sysusers/whttpd.conf DESTINATION lib/sysusers.d)

# The unit names the programs by their installed paths, which are known only
# when installing (cpack installs below /usr, cmake --install where asked).
install(CODE "
    set(WHTTPD_SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
    set(WHTTPD_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(WHTTPD_DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
    set(unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/whttpd.service\")
    message(STATUS \"Installing: \${unit}\")
    configure_file(${CMAKE_SOURCE_DIR}/packaging/systemd/whttpd.service.in \"\${unit}\" @ONLY)
")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME whttpd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "whttpd developers <whttpd-dev@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "HTTPS REST API daemon of a home router, with its virtual-router platform")
set(CPACK_PACKAGE_DESCRIPTION
    "whttpd_rest serves the device's TR-181 data model as JSON over HTTPS to apps that log in.\n\
The package runs it as a virtual router: an embedded configuration store with a default\n\
router configuration (wcfgctl), a command-line client (whttpctl) and a systemd unit.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# Tools the daemon runs: openssl (certificate checks), unzip (firmware images).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, openssl, unzip")
if(CMAKE_CROSSCOMPILING)
    # dpkg-shlibdeps reads the libraries' symbol files from the dpkg database,
    # which holds the machine's architecture only: a cross build names the
    # libraries it links by their Debian 12 packages.
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libc6 (>= 2.36), libcrypt1, libcurl4, "
           "libatomic1, libgcc-s1, libjson-c5, libsqlite3-0, libssl3, libstdc++6")
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
