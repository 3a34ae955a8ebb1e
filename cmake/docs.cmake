# SPDX-License-Identifier: Apache-2.0
# The docs target: the API reference as HTML and as manual pages, in docs/ of
# the build folder, and as XML for scripts/check_exports. It fails on any warning.
if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()
find_package(Doxygen QUIET)
find_package(Python3 QUIET COMPONENTS Interpreter)
if(NOT DOXYGEN_FOUND OR NOT Python3_FOUND)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo
      "The reference needs doxygen and python3. With both installed, configure again: cmake ${PROJECT_BINARY_DIR}"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
  return()
endif()

set(ZOV_REFERENCE ${PROJECT_SOURCE_DIR}/docs/reference)
file(GLOB ZOV_DOCS_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/*.md
  ${PROJECT_SOURCE_DIR}/docs/*.md ${ZOV_REFERENCE}/*
  ${PROJECT_SOURCE_DIR}/docs/pictures/*)
set(ZOV_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
configure_file(${ZOV_REFERENCE}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_command(OUTPUT ${ZOV_DOCS_DIR}/xml/index.xml
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${ZOV_DOCS_DIR}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ZOV_DOCS_DIR}
  COMMAND Python3::Interpreter ${ZOV_REFERENCE}/names.py
    ${PROJECT_SOURCE_DIR}/include/zov.h ${ZOV_DOCS_DIR}/names.md
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  COMMAND Python3::Interpreter ${ZOV_REFERENCE}/man_pages.py
    ${ZOV_DOCS_DIR}/xml ${ZOV_DOCS_DIR}/man/man3 ${PROJECT_VERSION}
  COMMAND Python3::Interpreter ${ZOV_REFERENCE}/search_index.py
    ${ZOV_DOCS_DIR}/xml ${ZOV_DOCS_DIR}/html
  COMMAND ${CMAKE_COMMAND} -E copy_directory
    ${PROJECT_SOURCE_DIR}/docs/performance ${ZOV_DOCS_DIR}/html/performance
  DEPENDS
    ${PROJECT_BINARY_DIR}/Doxyfile
    ${PROJECT_SOURCE_DIR}/include/zov.h
    ${ZOV_DOCS_PAGES}
  COMMENT "Making the API reference"
  VERBATIM)
add_custom_target(docs DEPENDS ${ZOV_DOCS_DIR}/xml/index.xml)
