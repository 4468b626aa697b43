# Debian packages, made with `cpack -G DEB` in the build tree:
#   korvane-bayeux          the server, its page, the shared library it runs on, the
#                           systemd unit and its default file /etc/default/korvane-bayeux
#   libkorvane-bayeux-dev   the library's link, the host library, the headers and the
#                           CMake package files
# Their dependencies on other packages come from dpkg-shlibdeps.

# The unit and its default file are the package's alone (`make install` leaves /etc and
# the service manager be); the unit names the server where the package puts it.
set(KORVANE_PACKAGE_PREFIX /usr)
set(KORVANE_PACKAGE_BINDIR ${KORVANE_PACKAGE_PREFIX}/${CMAKE_INSTALL_BINDIR})
configure_file(${PROJECT_SOURCE_DIR}/packaging/korvane-bayeux.service.in
  ${PROJECT_BINARY_DIR}/packaging/korvane-bayeux.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/korvane-bayeux.service
  DESTINATION lib/systemd/system COMPONENT server EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/korvane-bayeux.default
  DESTINATION /etc/default RENAME korvane-bayeux COMPONENT server EXCLUDE_FROM_ALL)
# The default file is the operator's: an upgrade keeps their changes.
file(WRITE ${PROJECT_BINARY_DIR}/packaging/conffiles "/etc/default/korvane-bayeux\n")

set(CPACK_PACKAGE_NAME korvane-bayeux)
set(CPACK_PACKAGE_VENDOR korvane)
set(CPACK_PACKAGE_CONTACT "korvane-bayeux maintainers <korvane-bayeux@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Bayeux publish/subscribe server over long-polling and WebSocket")
set(CPACK_PACKAGING_INSTALL_PREFIX ${KORVANE_PACKAGE_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL server dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The build keeps its debug information; the packages do not.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME korvane-bayeux)
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkorvane-bayeux-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# What the installed CMake package file asks for when a program builds against it.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-log1.74-dev, libboost-thread1.74-dev, libssl-dev, liburing-dev")
set(CPACK_COMPONENT_SERVER_DESCRIPTION "Bayeux publish/subscribe server over long-polling and WebSocket")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Embeddable Bayeux server library: headers and CMake package")
set(CPACK_COMPONENT_DEV_DEPENDS server)
include(CPack)
