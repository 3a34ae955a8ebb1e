# SPDX-License-Identifier: Apache-2.0
# How optimised builds are hardened, programs and libraries alike: a guard behind
# arrays on the stack, checks of libc calls whose sizes the compiler knows, tables
# of addresses that are read-only once the loader has filled them in. Sanitizers
# bring checks of their own, which these would hide.
option(ZOV_HARDENING "Build with stack guards, checked libc calls and read-only relocations" ON)
if(ZOV_HARDENING AND NOT ZOV_SANITIZE)
  add_compile_options(-fstack-protector-strong
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro,-z,now)
endif()

# Paths of the build machine stay out of what is built: the same sources give the
# same bytes in any folder.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
