// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers. The items that an input stands for are put, and come back; and items are
// got from the input itself. Bytes arrive in pieces of a size that the input chooses.
#include "support/fuzz.h"

namespace {

using std::string;
using zovtest::require;

struct Channel {
  string bytes;
  size_t delivered;
  size_t step;
};

int32_t readChannel(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Channel &channel = *static_cast<Channel *>(context);
  const size_t count = channel.bytes.copy(
      static_cast<char *>(buffer), std::min<size_t>(capacity, channel.step), channel.delivered);
  channel.delivered += count;
  *delivered = static_cast<uint32_t>(count);
  return count == 0 ? 1 : 0;
}

int32_t writeChannel(void *context, const void *data, uint32_t length) {
  return static_cast<Channel *>(context)->bytes.append(static_cast<const char *>(data), length), 0;
}

// Both ends, of which one is null. What is got is compared where the items are known.
struct Items {
  FuzzedDataProvider input;
  ZOV_OUTPUTBUFF out;
  ZOV_INPUTBUFF in;
  bool areKnown;

  template <typename Value, typename Put>
  bool pass(int32_t (*put)(ZOV_OUTPUTBUFF, Put), int32_t (*get)(ZOV_INPUTBUFF, Value *)) {
    Value sent = {}, got = {};
    input.ConsumeData(&sent, sizeof sent);
    const int32_t status = out != nullptr ? put(out, sent) : get(in, &got);
    require(!areKnown || status == 0);
    require(!areKnown || out != nullptr || memcmp(&sent, &got, sizeof sent) == 0);
    return status == 0;
  }

  bool passText() {
    const string sent = input.ConsumeRandomLengthString(5000).c_str();
    const uint64_t room = input.ConsumeIntegralInRange<uint64_t>(1, 6000);
    if (out != nullptr) {
      require(zov_outputBuffPutStringWithLength(out, sent.c_str()) == 0);
      require(zov_outputBuffPutStringWithLength(out, sent.empty() ? nullptr : sent.c_str()) == 0);
      return zov_outputBuffPutBytes(out, sent.data(), sent.size()) == 0;
    }
    string got(room, '#');
    string raw(sent.size(), '#');
    char *own = nullptr;
    const int32_t status = zov_inputBuffGetStringWithLength(in, got.data(), room);
    require(status == 1 || memchr(got.data(), 0, room) != nullptr);
    const bool isWhole = zov_inputBuffGetString(in, &own) == 0 &&
                         zov_inputBuffGetBytes(in, raw.data(), raw.size()) == 0;
    if (areKnown) {
      require(isWhole && status == (sent.size() < room ? 0 : ZOV_BUFF_TRUNCATED));
      require(got.c_str() == sent.substr(0, room - 1) && raw == sent);
      require((own == nullptr) == sent.empty() && (own == nullptr || own == sent));
    }
    zov_freeMem(own, ZOV_DEFAULT_TAG);
    return isWhole;
  }

  void passAll() {
    for (bool goesOn = true; goesOn && input.remaining_bytes() > 0;) {
      const uint32_t kind = input.ConsumeIntegralInRange(0u, 6u);
      goesOn = kind == 0   ? pass(zov_outputBuffPutChar, zov_inputBuffGetChar)
               : kind == 1 ? pass(zov_outputBuffPutInt16, zov_inputBuffGetInt16)
               : kind == 2 ? pass(zov_outputBuffPutInt32, zov_inputBuffGetInt32)
               : kind == 3 ? pass(zov_outputBuffPutInt64, zov_inputBuffGetInt64)
               : kind == 4 ? pass(zov_outputBuffPutFloat32, zov_inputBuffGetFloat32)
               : kind == 5 ? pass(zov_outputBuffPutFloat64, zov_inputBuffGetFloat64)
                           : passText();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider input(data, size);
  const int32_t swap = input.ConsumeBool() ? 1 : 0;
  Channel channel = {{}, 0, input.ConsumeIntegral<uint8_t>() + size_t{1}};
  ZOV_OUTPUTBUFF out = nullptr;
  ZOV_INPUTBUFF in = nullptr;
  zov_init();
  require(zov_outputBuffCreate(writeChannel, &channel, swap, &out) == 0);
  require(zov_inputBuffCreate(readChannel, nullptr, &channel, swap, &in) == 0);
  Items{{data, size}, out, nullptr, true}.passAll();
  require(zov_outputBuffFlush(out) == 0);
  Items{{data, size}, nullptr, in, true}.passAll();
  zov_inputBuffReset(in);
  channel.bytes.assign(reinterpret_cast<const char *>(data), size);
  channel.delivered = 0;
  Items{{data, size}, nullptr, in, false}.passAll();
  zov_inputBuffDestroy(in);
  zov_outputBuffDestroy(out);
  zov_term();
  return 0;
}
