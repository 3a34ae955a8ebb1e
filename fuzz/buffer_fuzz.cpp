// SPDX-License-Identifier: Apache-2.0
//
// Items of the typed encoding read from hostile bytes, which arrive in pieces of a
// size that the input chooses. Strings go into buffers only: a string of its own is
// of the size that the bytes ask for.
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "zov.h"

namespace {

struct Source {
  std::string bytes;
  size_t delivered;
  size_t step;
};

int32_t readSource(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Source &source = *static_cast<Source *>(context);
  const size_t count = source.bytes.copy(static_cast<char *>(buffer),
                                         std::min<size_t>(capacity, source.step), source.delivered);
  source.delivered += count;
  *delivered = static_cast<uint32_t>(count);
  return count == 0 ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  Source source{{reinterpret_cast<const char *>(data + 1), size - 1}, 0, data[0] + size_t{1}};
  zov_init();
  ZOV_INPUTBUFF input = nullptr;
  zov_inputBuffCreate(readSource, nullptr, &source, data[0] % 2, &input);
  int32_t status = 0;
  for (size_t room = data[0]; status == 0 || status == ZOV_BUFF_TRUNCATED; room = room * 5 % 251) {
    int64_t value;
    std::string text(room, '#');
    status = room % 3 == 0 ? zov_inputBuffGetInt64(input, &value)
                           : zov_inputBuffGetStringWithLength(input, text.data(), room);
    if (room % 3 != 0 && text.find('\0') == std::string::npos && status != 1) {
      abort();
    }
  }
  zov_term();
  return 0;
}
