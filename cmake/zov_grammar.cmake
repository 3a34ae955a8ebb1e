# SPDX-License-Identifier: Apache-2.0
# zov_add_grammar(TARGET GRAMMAR.y [PREFIX prefix])
# Adds the tables of a grammar to a target, for zov_yyparse(). Sources of the
# target, and of what links to it, include "GRAMMAR_tables.h"; what the names in
# it begin with is PREFIX, by default GRAMMAR. Give a grammar to one target only.
#
# The tables are kept beside the grammar, in generated/, and belong into version
# control: where bison or Python is missing they are used as they are. Otherwise
# a change of the grammar makes them anew during the build, and the copy beside
# the grammar follows. Without the programs and the tables CMake stops, and names
# what is missing.
find_program(ZOV_TABLES_PROGRAM zov-tables
  HINTS ${CMAKE_CURRENT_LIST_DIR}/../tools ${PACKAGE_PREFIX_DIR}/bin)
find_package(BISON 3.0 QUIET)
find_package(Python3 QUIET COMPONENTS Interpreter)

function(zov_add_grammar target grammar)
  cmake_parse_arguments(arg "" "PREFIX" "" ${ARGN})
  get_filename_component(path ${grammar} ABSOLUTE)
  get_filename_component(folder ${path} DIRECTORY)
  get_filename_component(name ${path} NAME_WE)
  if(NOT arg_PREFIX)
    set(arg_PREFIX ${name})
  endif()
  set(kept ${folder}/generated/${name}_tables)
  set(missing)
  if(NOT ZOV_TABLES_PROGRAM)
    list(APPEND missing zov-tables)
  endif()
  if(NOT BISON_FOUND)
    list(APPEND missing "bison 3")
  endif()
  if(NOT Python3_FOUND)
    list(APPEND missing python3)
  endif()
  if(missing)
    if(NOT EXISTS ${kept}.c)
      list(JOIN missing ", " missing)
      message(FATAL_ERROR "${grammar} cannot be made into tables, as there is no ${missing}, "
        "and no tables made before, ${kept}.c")
    endif()
    target_sources(${target} PRIVATE ${kept}.c)
    target_include_directories(${target} PUBLIC ${folder}/generated)
    return()
  endif()
  set(made ${CMAKE_CURRENT_BINARY_DIR}/${target}_grammar/${name}_tables)
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/${target}_grammar ${folder}/generated)
  add_custom_command(OUTPUT ${made}.c ${made}.h
    COMMAND Python3::Interpreter ${ZOV_TABLES_PROGRAM} --bison=${BISON_EXECUTABLE}
      --prefix=${arg_PREFIX} --output=${made} ${path}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${made}.c ${kept}.c
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${made}.h ${kept}.h
    DEPENDS ${path} ${ZOV_TABLES_PROGRAM}
    COMMENT "Making the tables of ${name}.y"
    VERBATIM)
  target_sources(${target} PRIVATE ${made}.c ${made}.h)
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_BINARY_DIR}/${target}_grammar)
endfunction()
