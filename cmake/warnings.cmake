# SPDX-License-Identifier: Apache-2.0
# zov_warnings(TARGET): the warnings every target of this project is built
# with, all of them errors.
function(zov_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wcast-align -Wundef -Wvla -Wformat=2
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wlogical-op -Wduplicated-cond>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Wthread-safety-beta>)
endfunction()
