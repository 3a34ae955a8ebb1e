// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers at the ends of a channel, and a walk of items through them, driven by
// bytes, which a test draws and a fuzzer finds.
#ifndef TESTS_CONFIG_ZOVBUFFER_WALK_H
#define TESTS_CONFIG_ZOVBUFFER_WALK_H

#include <string.h>

#include <algorithm>
#include <string>

#include "zov.h"

namespace zovtest {

// Both ends; how the channel behaves is the user's to set.
struct BufferEnds {
  explicit BufferEnds(int32_t swap) {
    zov_inputBuffCreate(read, readTimed, this, swap, &input);
    zov_outputBuffCreate(write, this, swap, &output);
  }
  ~BufferEnds() {
    zov_inputBuffDestroy(input);
    zov_outputBuffDestroy(output);
  }
  BufferEnds(const BufferEnds &) = delete;
  BufferEnds &operator=(const BufferEnds &) = delete;

  // What stands in `delivered` before counts, too, and should be nothing.
  static int32_t read(void *ends, void *to, uint32_t capacity, uint32_t *delivered) {
    BufferEnds &self = *static_cast<BufferEnds *>(ends);
    const size_t count =
        self.bytes.copy(static_cast<char *>(to), std::min(capacity, self.step), self.taken);
    *delivered += static_cast<uint32_t>(count) + self.overReport;
    self.taken += self.status == 0 ? count : 0;
    return self.status != 0 ? self.status : count == 0 ? -1 : 0;
  }
  static int32_t readTimed(void *ends, void *to, uint32_t capacity, uint32_t *delivered,
                           uint32_t waitMs) {
    static_cast<BufferEnds *>(ends)->waitMs = waitMs;
    return read(ends, to, capacity, delivered);
  }
  static int32_t write(void *ends, const void *data, uint32_t length) {
    BufferEnds &self = *static_cast<BufferEnds *>(ends);
    self.bytes.append(static_cast<const char *>(data), self.status == 0 ? length : 0);
    return self.status;
  }

  std::string bytes;        // written
  size_t taken = 0;         // of them, read again
  uint32_t step = 5000;     // bytes per read
  uint32_t overReport = 0;  // bytes claimed beyond those delivered
  int32_t status = 0;       // what the callbacks return
  uint32_t waitMs = 0;      // of the last timed read
  ZOV_INPUTBUFF input = nullptr;
  ZOV_OUTPUTBUFF output = nullptr;
};

// Items are put where there is an output, else got. What is got is compared where the
// channel holds the same items.
struct BufferWalk {
  const uint8_t *dice;
  size_t left;
  bool swap, areKnown;
  ZOV_OUTPUTBUFF out;
  ZOV_INPUTBUFF in;
  std::string wire = {};  // what the items are on the channel
  bool agrees = true;

  bool run() {
    for (bool goesOn = true; goesOn && left > 0;) {
      const uint64_t kind = draw(1) % 7;
      goesOn = kind == 0   ? pass(zov_outputBuffPutChar, zov_inputBuffGetChar)
               : kind == 1 ? pass(zov_outputBuffPutInt16, zov_inputBuffGetInt16)
               : kind == 2 ? pass(zov_outputBuffPutInt32, zov_inputBuffGetInt32)
               : kind == 3 ? pass(zov_outputBuffPutInt64, zov_inputBuffGetInt64)
               : kind == 4 ? pass(zov_outputBuffPutFloat32, zov_inputBuffGetFloat32)
               : kind == 5 ? pass(zov_outputBuffPutFloat64, zov_inputBuffGetFloat64)
                           : passText();
    }
    return agrees;
  }

 private:
  static constexpr size_t kLongBytes = 1 << 20;  // behind them all texts are short

  uint64_t draw(size_t count) {
    uint64_t bits = 0;
    count = std::min(count, left);
    memcpy(&bits, dice, count);
    dice += count;
    left -= count;
    return bits;
  }
  bool check(bool right) { return agrees = agrees && (right || !areKnown), right; }
  template <typename Value>
  void note(const Value &value) {
    const std::string sent(reinterpret_cast<const char *>(&value), sizeof value);
    wire += swap ? std::string(sent.rbegin(), sent.rend()) : sent;
  }

  template <typename Value, typename Put>
  bool pass(int32_t (*put)(ZOV_OUTPUTBUFF, Put), int32_t (*get)(ZOV_INPUTBUFF, Value *)) {
    const uint64_t bits = draw(sizeof(Value));
    Value sent, got = {};
    memcpy(&sent, &bits, sizeof sent);
    note(sent);
    const int32_t status = out != nullptr ? put(out, sent) : get(in, &got);
    check(out != nullptr || memcmp(&sent, &got, sizeof sent) == 0);
    return check(status == 0);
  }

  int32_t putString(const char *string) {
    note(string == nullptr ? UINT32_MAX : static_cast<uint32_t>(strlen(string)));
    wire += string == nullptr ? "" : string;
    return out == nullptr ? 0 : zov_outputBuffPutStringWithLength(out, string);
  }

  // A string or null for a place of some size, one for a block, and raw bytes.
  bool passText() {
    const uint64_t number = draw(4);
    const bool isLong = number % 8 == 0 && wire.size() < kLongBytes;
    std::string text(number / 64 % (!isLong ? 30 : number % 64 == 0 ? 140000 : 9000), '.');
    std::generate(text.begin(), text.end(),
                  [byte = number]() mutable { return static_cast<char>(1 + (byte += 37) % 255); });
    const char *const block = number % 3 == 0 ? nullptr : text.c_str();
    const char *const placed = number % 5 == 0 ? nullptr : text.c_str();
    check(putString(placed) + putString(block) == 0);
    wire += text;
    if (out != nullptr) {
      const auto put = number % 2 == 0 ? zov_outputBuffPutBytes : zov_outputBuffSendDirect;
      return check(put(out, text.data(), text.size()) == 0);
    }
    const std::string shown = placed == nullptr ? "" : text;
    const size_t room = 1 + number / 5 % (2 * text.size() + 9);
    std::string got(room, '#'), raw(text.size(), '#');
    char *own = nullptr;
    const int32_t status = zov_inputBuffGetStringWithLength(in, got.data(), room);
    agrees = agrees && (status == -1 || memchr(got.data(), 0, room) != nullptr);
    const bool isWhole = zov_inputBuffGetString(in, &own) == 0 &&
                         zov_inputBuffGetBytes(in, raw.data(), raw.size()) == 0;
    check(status == (shown.size() < room ? 0 : ZOV_BUFF_TRUNCATED) && raw == text);
    check(got.c_str() == shown.substr(0, room - 1));
    check(block == nullptr ? own == nullptr : own != nullptr && own == text);
    zov_freeMem(own, ZOV_DEFAULT_TAG);
    return check(isWhole);
  }
};

// Whether items get through fresh buffers.
inline bool itemsArrive(const uint8_t *dice, size_t count, bool swap, BufferEnds &ends) {
  BufferWalk put{dice, count, swap, true, ends.output, nullptr};
  return put.run() && zov_outputBuffFlush(ends.output) == 0 && ends.bytes == put.wire &&
         BufferWalk{dice, count, swap, true, nullptr, ends.input}.run() &&
         ends.taken == ends.bytes.size();
}

}  // namespace zovtest

#endif
