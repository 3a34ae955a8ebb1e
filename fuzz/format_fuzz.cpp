// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a format. Every argument that is no double points to the same
// terminated string in writable memory, so that any letter takes something it
// may read and write. The format is cut so that it cannot ask for more arguments
// than there are. The text must be the same for any size, up to that size.
#include "support/fuzz.h"

namespace {

constexpr size_t kArguments = 24;

// Out of the compiler's sight, which checks formats.
int32_t (*volatile formatter)(char *, uint64_t, const char *, ...) = zov_snprintf;

int32_t print(char *buffer, uint64_t size, const char *format) {
  // The first bytes may become a count; the rest terminates it as a string.
  alignas(int64_t) static char t[16];
  memcpy(t, "target\0\0", 8);
  return formatter(buffer, size, format, 1.5, -0.0, 1e300, 1e-300, 1e20, 0.1, 999999.5,
                   __builtin_nan(""), t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t,
                   t, t, t);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const uint64_t room = data[0];
  char format[kArguments + 1] = {};
  memcpy(format, data + 1, size - 1 < kArguments ? size - 1 : kArguments);
  char whole[512];
  const int32_t length = print(whole, sizeof whole, format);
  // Exactly as large as promised, so that the sanitizer sees the byte behind.
  char *buffer = new char[room];
  zovtest::require(print(buffer, room, format) == length);
  zovtest::require(room == 0 || strncmp(buffer, whole, room - 1) == 0);
  zovtest::require(room == 0 || memchr(buffer, 0, room) != nullptr);
  delete[] buffer;
  return 0;
}
