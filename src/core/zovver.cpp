// SPDX-License-Identifier: Apache-2.0
//
// The library's version at run time; the header's macros give the version a
// program was compiled against.
#include "zov.h"

extern "C" void zov_version(uint16_t *major, uint16_t *minor, uint16_t *build) {
  if (major != nullptr) {
    *major = ZOV_VERSION_MAJOR;
  }
  if (minor != nullptr) {
    *minor = ZOV_VERSION_MINOR;
  }
  if (build != nullptr) {
    *build = ZOV_VERSION_BUILD;
  }
}
