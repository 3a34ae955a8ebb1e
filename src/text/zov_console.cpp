// SPDX-License-Identifier: Apache-2.0
//
// The message path. Messages go straight to libc's own streams: what a module
// reports while the library starts or stops must reach the user whatever state
// the library is in. Takes no lock of the library, allocates from no tag and
// never jumps.
#include <stdio.h>

#include "text/zov_output.h"

extern "C" {

int32_t zov_log(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = vfprintf(stdout, format, arguments);
  va_end(arguments);
  return written;
}

int32_t zov_log_err(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = vfprintf(stderr, format, arguments);
  va_end(arguments);
  return written;
}
}
