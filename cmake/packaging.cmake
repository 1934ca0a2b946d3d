# Debian packages through CPack (`make deb`): the runtime library, the
# development files and the tool, one package per install component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vekutil)
set(CPACK_PACKAGE_VENDOR "vekutil developers")
set(CPACK_PACKAGE_CONTACT "vekutil developers <vekutil@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "utility runtime for long-running Linux services")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvekutil${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libssl3 (>= 3.0.0), libc6")
# SQLite is opened at run time, only by programs that use it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "libsqlite3-0")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "vekutil runtime library
 Accounted memory, instrumented containers and locks, threads, sockets with
 TLS, HTTP and FTP, statsd and syslog, JSON, SQLite access and file helpers.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvekutil-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvekutil${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "vekutil development files
 Headers, the unversioned link, pkg-config and CMake package files.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vekutil)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libvekutil${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libc6")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "vekutil command-line tool
 Sub-commands for the library's modules: JSON, checksums, encodings,
 networking, FTP, HTTP, SQLite and syslog.")

include(CPack)
