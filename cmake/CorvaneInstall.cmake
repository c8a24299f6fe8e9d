# Installs the shared library, the public headers under include/corvane/, a CMake
# package (find_package(corvane CONFIG) -> corvane::corvane) and corvane.pc.
include(CMakePackageConfigHelpers)

install(TARGETS corvane LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES corvane.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane)
# Headers under an "internal" folder stay private to the library.
install(DIRECTORY zullog utils lua DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane
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
        DESTINATION ${CORVANE_CONFIG_DIR})

configure_file(cmake/corvane.pc.in ${PROJECT_BINARY_DIR}/corvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
