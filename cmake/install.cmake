# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where, in components: Runtime is the shared library
# alone, Development what a program is built with, Programs what a person runs,
# Documentation what is read. CPack puts all of it into an archive; debian/ makes
# packages of it. Everything found by a consumer is relative to the place it is
# found in, so that the installed tree may be moved.
include(CMakePackageConfigHelpers)

set(ZOV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zov)

set(targets zov)
if(TARGET zov_static)
  list(APPEND targets zov_static)
endif()
install(TARGETS ${targets} EXPORT zovTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
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

# The commands for gdb, which looks for them by the place of the library.
if(BUILD_SHARED_LIBS)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/gdb/zov-gdb.py
    RENAME libzov.so.${PROJECT_VERSION}-gdb.py
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}
    COMPONENT Development)
endif()

# pkg-config zov. What the archive needs besides is told of --static; where there is
# nothing else, always.
set(ZOV_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ZOV_PC_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZOV_PC_PREFIX "${ZOV_PC_PREFIX}")
file(RELATIVE_PATH ZOV_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH ZOV_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
set(ZOV_PC_LIBS "\nLibs.private:")
if(NOT BUILD_SHARED_LIBS)
  set(ZOV_PC_LIBS "")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/zov.pc.in ${PROJECT_BINARY_DIR}/zov.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zov.pc DESTINATION ${ZOV_PC_DIR} COMPONENT Development)

# Programs, and their manual pages. zov_add_grammar() runs zov-tables, where bison and
# Python are present.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/tools/zov-tables
  DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Programs)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/zov-tables.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Programs)
if(ZOV_BUILD_EXAMPLES)
  file(RELATIVE_PATH path ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(minidb minidb-server PROPERTIES INSTALL_RPATH "$ORIGIN/${path}")
  install(TARGETS minidb minidb-server
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Programs)
  install(FILES
    ${PROJECT_SOURCE_DIR}/docs/man/minidb.1
    ${PROJECT_SOURCE_DIR}/docs/man/minidb-server.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Programs)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation)
# The reference is there once the docs target has been built.
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation OPTIONAL)
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/man/
  DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT Documentation OPTIONAL
  FILES_MATCHING PATTERN "*.3")

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()
add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
  COMMENT "Removing what was installed"
  VERBATIM)

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME libzov)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The libzov authors")
set(CPACK_PACKAGE_FILE_NAME
  libzov-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_STRIP_FILES ON)
include(CPack)
