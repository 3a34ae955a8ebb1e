// SPDX-License-Identifier: Apache-2.0
//
// Stands in for a function beneath the library, for test programs linked with
// WRAP and its name. The body may call __real_NAME.
#ifndef TESTS_SUPPORT_REPLACE_H
#define TESTS_SUPPORT_REPLACE_H

#define REPLACE(Result, name, parameters, ...) \
  extern "C" Result __real_##name parameters;  \
  extern "C" Result __wrap_##name parameters;  \
  extern "C" Result __wrap_##name parameters { \
    __VA_ARGS__                                \
  }

#endif
