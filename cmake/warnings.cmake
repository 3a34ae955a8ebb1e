# SPDX-License-Identifier: Apache-2.0
# zov_warnings(TARGET): the warnings every target of this project is built with.
# They are errors in the presets, by CMAKE_COMPILE_WARNING_AS_ERROR.
function(zov_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-align -Wundef -Wvla -Wformat=2
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wlogical-op -Wduplicated-cond>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Wthread-safety-beta>)
endfunction()
