# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where, in two components: Runtime is the shared
# library alone, Development what a program is built with. CPack makes the
# Debian packages libzov11 and libzov-dev of them. Everything found by a
# consumer is relative to the place it is found in, so that the installed tree
# may be moved.
include(CMakePackageConfigHelpers)

set(ZOV_RUNTIME_PACKAGE libzov${PROJECT_VERSION_MAJOR})
set(ZOV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zov)

install(TARGETS zov EXPORT zovTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/zov.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)

# find_package(zov)
install(EXPORT zovTargets NAMESPACE zov:: DESTINATION ${ZOV_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zovConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zovConfig.cmake
  INSTALL_DESTINATION ${ZOV_CMAKE_DIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zovConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zovConfig.cmake
  ${PROJECT_BINARY_DIR}/zovConfigVersion.cmake
  ${CMAKE_CURRENT_LIST_DIR}/zov_grammar.cmake
  DESTINATION ${ZOV_CMAKE_DIR} COMPONENT Development)

# What zov_add_grammar() runs, where bison and Python are present.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/tools/zov-tables
  DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Development)

# The commands for gdb, which looks for them by the place of the library.
install(FILES ${PROJECT_SOURCE_DIR}/tools/gdb/zov-gdb.py
  RENAME libzov.so.${PROJECT_VERSION}-gdb.py
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}
  COMPONENT Development)

# pkg-config zov
set(ZOV_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ZOV_PC_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZOV_PC_PREFIX "${ZOV_PC_PREFIX}")
file(RELATIVE_PATH ZOV_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH ZOV_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zov.pc.in ${PROJECT_BINARY_DIR}/zov.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zov.pc DESTINATION ${ZOV_PC_DIR} COMPONENT Development)

# Each Debian package carries its licence under the name Debian looks for.
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZOV_RUNTIME_PACKAGE} COMPONENT Runtime)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libzov-dev COMPONENT Development)
install(FILES
  ${PROJECT_SOURCE_DIR}/README.md
  ${PROJECT_SOURCE_DIR}/ARCHITECTURE.md
  ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libzov-dev COMPONENT Development)
# The manual pages are there once the docs target has been built. Doxygen makes
# pages for members of records as well, under names as common as "error".
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/man/
  DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT Development OPTIONAL
  FILES_MATCHING
    REGEX "/(zov|ZOV)[^/]*\\.3$"
    REGEX "/(deviceHead|deviceSem|server_name|strlwr|strupr|wcslwr|wcsupr)\\.3$")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zov)
set(CPACK_PACKAGE_VENDOR "The libzov authors")
set(CPACK_PACKAGE_CONTACT "The libzov authors <libzov@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZOV_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzov-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${ZOV_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libc6-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "bison, python3")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "This package holds the header, the link to the shared library, what CMake
and pkg-config need to find them, and zov-tables, which makes parse tables.")
include(CPack)
