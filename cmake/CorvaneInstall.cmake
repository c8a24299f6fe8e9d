# Installs the shared library (component "runtime"), the headers under
# include/corvane/, a CMake package (find_package(corvane CONFIG) ->
# corvane::corvane) and corvane.pc (component "dev"), and describes the Debian
# packages that `make package` builds from the same components. Every installed
# path is relative, so a prefix can be moved (cmake --install --prefix, dpkg -x).
include(CMakePackageConfigHelpers)

configure_file(cmake/version.h.in ${PROJECT_BINARY_DIR}/generated/corvane/version.h @ONLY)

install(TARGETS corvane
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES corvane.h ${PROJECT_BINARY_DIR}/generated/corvane/version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane COMPONENT dev)
# Headers under an "internal" folder stay private to the library. Public
# headers include each other by relative paths, so nothing below
# include/corvane needs to be on a host's include path.
install(DIRECTORY zullog utils lua DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane COMPONENT dev
        FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)

set(CORVANE_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
configure_package_config_file(cmake/corvane-config.cmake.in
  ${PROJECT_BINARY_DIR}/corvane-config.cmake
  INSTALL_DESTINATION ${CORVANE_CONFIG_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvane-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corvane-config.cmake
              ${PROJECT_BINARY_DIR}/corvane-config-version.cmake
        DESTINATION ${CORVANE_CONFIG_DIR} COMPONENT dev)

# The prefix as seen from the folder of corvane.pc.
set(CORVANE_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH CORVANE_PC_TO_PREFIX /root/${CORVANE_PC_DIR} /root)
string(REGEX REPLACE "/$" "" CORVANE_PC_TO_PREFIX "${CORVANE_PC_TO_PREFIX}")
configure_file(cmake/corvane.pc.in ${PROJECT_BINARY_DIR}/corvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corvane.pc DESTINATION ${CORVANE_PC_DIR} COMPONENT dev)

# Debian packages: libcorvane0, libcorvane-dev and corvane (the runner), each
# stripped, with its debug information in a -dbgsym package beside it.
# dpkg-shlibdeps derives the shared-library dependencies.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "corvane developers <corvane@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Lua 5.3 scripting runtime with native libraries for C++ hosts")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev runner)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(corvane_runtime_dependency "libcorvane${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcorvane${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libcorvane-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers use Lua's, jsoncpp's and Boost's interfaces inline.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${corvane_runtime_dependency}, liblua5.3-dev, libjsoncpp-dev, libboost-dev, pkg-config")
set(CPACK_DEBIAN_RUNNER_PACKAGE_NAME corvane)
set(CPACK_DEBIAN_RUNNER_PACKAGE_SECTION interpreters)
set(CPACK_DEBIAN_RUNNER_PACKAGE_DEPENDS "${corvane_runtime_dependency}")
# Lets dpkg-shlibdeps find the library the runner links in the build tree; that
# dependency is the exact-version one above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
# The runner trusts the system store at /etc/ssl/certs by default.
set(CPACK_DEBIAN_RUNNER_PACKAGE_RECOMMENDS ca-certificates)
include(CPack)
