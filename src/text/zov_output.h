// SPDX-License-Identifier: Apache-2.0
//
// The message path: where every module sends what it has to say. It never
// jumps and never fails the caller.
#ifndef ZOV_TEXT_ZOV_OUTPUT_H
#define ZOV_TEXT_ZOV_OUTPUT_H

#include "zov.h"

extern "C" {

// Writes a message of the library, or an error message. The text carries its
// own line end. Returns the number of characters written to the console.
int32_t zov_log(const char *format, ...) ZOV_PRINTF(1, 2);
int32_t zov_log_err(const char *format, ...) ZOV_PRINTF(1, 2);
}

#endif
