// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as UTF-8, and any numbers as wide characters, against a model. The
// first two bytes choose the error mode, the size of the numbers and the room.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "support/utf8_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) {
    return 0;
  }
  const uint32_t mode = data[0] & 1;
  const uint32_t room = static_cast<uint32_t>(data[1] * (1 + size / 256));
  const std::string bytes(reinterpret_cast<const char *>(data + 2), size - 2);
  std::wstring chars(bytes.size() / sizeof(uint32_t), L'\0');
  for (size_t index = 0; index < chars.size(); ++index) {
    uint32_t unit;
    memcpy(&unit, bytes.data() + index * sizeof unit, sizeof unit);
    chars[index] = static_cast<wchar_t>(unit >> (data[0] >> 3));
  }
  if (!zovtest::decodingAgrees(bytes, room, mode) || !zovtest::encodingAgrees(chars, room, mode)) {
    abort();
  }
  return 0;
}
