// SPDX-License-Identifier: Apache-2.0
//
// The decoder of typed buffers on hostile bytes, delivered in pieces of a size
// that the input chooses. Each item is compared with the bytes it came from.
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

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

void expect(bool holds) {
  if (!holds) {
    abort();
  }
}

// Reads one item and returns the bytes it must have taken; 0 at the end.
size_t readItem(ZOV_INPUTBUFF input, const std::string &rest, uint8_t choice) {
  if (choice % 3 == 0) {
    int64_t value;
    const bool whole = zov_inputBuffGetInt64(input, &value) == 0;
    expect(whole == (rest.size() >= sizeof value));
    expect(!whole || memcmp(&value, rest.data(), sizeof value) == 0);
    return whole ? sizeof value : 0;
  }
  uint32_t length = 0;
  const bool known = rest.copy(reinterpret_cast<char *>(&length), 4) == 4;
  const size_t wanted = length == UINT32_MAX ? 0 : length;
  const bool whole = known && rest.size() - 4 >= wanted;
  const std::string text = whole ? rest.substr(4, wanted) : "";
  if (choice % 3 == 1 && length < 1 << 20) {
    char *got = nullptr;
    expect((zov_inputBuffGetString(input, &got) == 0) == whole);
    expect((got != nullptr) == whole);
    expect(got == nullptr || memcmp(got, text.c_str(), wanted + 1) == 0);
    zov_freeMem(got, ZOV_DEFAULT_TAG);
  } else {
    std::string got(choice, '#');
    const int32_t status = zov_inputBuffGetStringWithLength(input, got.data(), got.size());
    expect((status == 0 || status == ZOV_BUFF_TRUNCATED) == whole);
    expect(!whole || (status == 0) == (wanted < got.size()));
    const size_t kept = std::min(wanted, got.size() - std::min<size_t>(got.size(), 1));
    expect(!whole || got.compare(0, kept, text, 0, kept) == 0);
  }
  return whole ? 4 + wanted : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) {
    return 0;
  }
  const size_t step = data[0] == 0 ? 5000 : data[0];
  Source source{{reinterpret_cast<const char *>(data + 1), size - 1}, 0, step};
  zov_init();
  ZOV_INPUTBUFF input = nullptr;
  expect(zov_inputBuffCreate(readSource, nullptr, &source, 0, &input) == 0);
  size_t taken = 0;
  size_t count = 1;
  for (uint8_t choice = data[0]; count > 0; choice = static_cast<uint8_t>(choice * 5 + 1)) {
    count = readItem(input, source.bytes.substr(taken), choice);
    taken += count;
  }
  zov_term();
  return 0;
}
