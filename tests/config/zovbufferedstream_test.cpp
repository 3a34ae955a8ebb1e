// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers: random sequences of items against the encoding written out, and
// the ways a channel can fail.
#include <sys/mman.h>

#include "support/faults.h"

namespace {

// Both ends of a channel; how it behaves is the test's to set.
struct Channel {
  std::string bytes;        // written
  size_t taken = 0;         // of them, read again
  uint32_t step = 5000;     // bytes per read
  uint32_t overReport = 0;  // bytes claimed beyond those delivered
  int32_t status = 0;       // what the callbacks return
  uint32_t waitMs = 0;      // of the last timed read
};

int32_t readChannel(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Channel &channel = *static_cast<Channel *>(context);
  EXPECT_EQ(*delivered, 0u);
  const size_t count = channel.bytes.copy(static_cast<char *>(buffer),
                                          std::min(capacity, channel.step), channel.taken);
  *delivered = static_cast<uint32_t>(count) + channel.overReport;
  channel.taken += channel.status == 0 ? count : 0;
  return channel.status != 0 ? channel.status : count == 0 ? -1 : 0;
}

int32_t timedReadChannel(void *context, void *buffer, uint32_t capacity, uint32_t *delivered,
                         uint32_t waitMs) {
  static_cast<Channel *>(context)->waitMs = waitMs;
  return readChannel(context, buffer, capacity, delivered);
}

int32_t writeChannel(void *context, const void *data, uint32_t length) {
  Channel &channel = *static_cast<Channel *>(context);
  channel.bytes.append(static_cast<const char *>(data), channel.status == 0 ? length : 0);
  return channel.status;
}

class Buffers : public zovtest::Started {
 protected:
  Buffers() { open(0); }

  void open(int32_t swap) {
    zov_inputBuffDestroy(input);
    zov_outputBuffDestroy(output);
    channel = Channel{};
    ASSERT_EQ(zov_inputBuffCreate(readChannel, timedReadChannel, &channel, swap, &input), 0);
    ASSERT_EQ(zov_outputBuffCreate(writeChannel, &channel, swap, &output), 0);
  }

  Channel channel;
  ZOV_INPUTBUFF input = nullptr;
  ZOV_OUTPUTBUFF output = nullptr;
};

// A run of random items, the same for the same seed: put, when there is an output
// buffer, else got and compared.
struct Items {
  ZOV_OUTPUTBUFF output;
  ZOV_INPUTBUFF input;
  bool swap;
  std::mt19937_64 random;
  std::string bytes{};  // what the items are on the wire

  template <typename Value, typename Put>
  void value(Put put, int32_t (*get)(ZOV_INPUTBUFF, Value *)) {
    const uint64_t bits = random();
    std::string sent(reinterpret_cast<const char *>(&bits), sizeof(Value));
    Value value;
    memcpy(&value, sent.data(), sizeof value);
    ASSERT_EQ(output != nullptr ? put(output, value) : get(input, &value), 0);
    EXPECT_EQ(memcmp(&value, sent.data(), sizeof value), 0) << sizeof value << " bytes";
    bytes += swap ? std::string(sent.rbegin(), sent.rend()) : sent;
  }

  // A string, or null; without room it is got as a block.
  void string(const char *text, size_t room) {
    const std::string copy(text == nullptr ? "" : text);
    const uint32_t length = text == nullptr ? UINT32_MAX : static_cast<uint32_t>(copy.size());
    const uint32_t wire = swap ? zov_swaporder32(length) : length;
    bytes += std::string(reinterpret_cast<const char *>(&wire), sizeof wire) + copy;
    std::string got(room, '#');
    char *block = nullptr;
    if (output != nullptr) {
      EXPECT_EQ(zov_outputBuffPutStringWithLength(output, text), 0);
    } else if (room == 0) {
      EXPECT_EQ(zov_inputBuffGetString(input, &block), 0);
      EXPECT_TRUE(text == nullptr ? block == nullptr : block == copy);
    } else {
      EXPECT_EQ(zov_inputBuffGetStringWithLength(input, got.data(), room),
                copy.size() < room ? 0 : ZOV_BUFF_TRUNCATED);
      EXPECT_EQ(got.c_str(), copy.substr(0, room - 1));
    }
  }

  void raw(const std::string &text, bool direct) {
    std::string got = output != nullptr ? text : std::string(text.size(), '#');
    const auto put = direct ? zov_outputBuffSendDirect : zov_outputBuffPutBytes;
    EXPECT_EQ(output != nullptr ? put(output, text.data(), text.size())
                                : zov_inputBuffGetBytes(input, got.data(), text.size()),
              0);
    EXPECT_EQ(got, text);
    bytes += text;
  }

  void run() {
    for (int count = 0; count < 500; ++count) {
      const size_t longest = random() % 20 != 0 ? 30 : random() % 10 != 0 ? 15000 : 300000;
      std::string text(random() % longest, '.');
      std::generate(text.begin(), text.end(), [&] { return 1 + random() % 255; });
      value(zov_outputBuffPutChar, zov_inputBuffGetChar);
      value(zov_outputBuffPutInt16, zov_inputBuffGetInt16);
      value(zov_outputBuffPutInt32, zov_inputBuffGetInt32);
      string(text.c_str(), random() % 40);
      value(zov_outputBuffPutInt64, zov_inputBuffGetInt64);
      value(zov_outputBuffPutFloat32, zov_inputBuffGetFloat32);
      string(nullptr, random() % 2);
      value(zov_outputBuffPutFloat64, zov_inputBuffGetFloat64);
      raw(text, count % 2 == 0);
    }
  }
};

TEST_F(Buffers, RandomSequencesArriveAsSent) {
  const zovtest::Random random;
  for (const uint32_t step : {1u, 7u, 5000u}) {
    for (const bool swap : {false, true}) {
      open(swap ? 0x10000 : 0);  // a flag of 16 bits would miss it
      Items put{output, nullptr, swap, std::mt19937_64(random.seed)};
      put.run();
      ASSERT_EQ(zov_outputBuffFlush(output), 0);
      ASSERT_TRUE(channel.bytes == put.bytes);
      channel.step = step;
      Items{nullptr, input, swap, std::mt19937_64(random.seed)}.run();
      EXPECT_EQ(channel.taken, channel.bytes.size());
    }
  }
}

TEST_F(Buffers, SendsFullBuffersOnly) {
  constexpr uint64_t kLarge = (uint64_t{1} << 32) + 5;
  void *data = mmap(nullptr, kLarge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(data, MAP_FAILED);
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 5000), 0);
  EXPECT_EQ(channel.bytes.size(), 0u);
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 1000), 0);
  EXPECT_EQ(channel.bytes.size(), 5000u);
  EXPECT_EQ(zov_outputBuffPutString(output, "abc"), 0);
  EXPECT_EQ(zov_outputBuffSendDirect(output, data, 6000), 0);
  EXPECT_EQ(channel.bytes.size(), 12003u);
  EXPECT_EQ(channel.bytes.substr(6000, 3), "abc");

  uint64_t sent = 0;
  const auto count = [](void *total, const void *, uint32_t length) {
    *static_cast<uint64_t *>(total) += length;
    return int32_t{0};
  };
  ASSERT_EQ(zov_outputBuffCreate(count, &sent, 0, &output), 0);
  EXPECT_EQ(zov_outputBuffSendDirect(output, data, kLarge), 0);
  EXPECT_EQ(sent, kLarge);
  munmap(data, kLarge);
}

TEST_F(Buffers, FailuresKeepWhatWasNotTaken) {
  EXPECT_EQ(zov_outputBuffPutInt32(output, 1), 0);
  channel.status = 77;
  EXPECT_EQ(zov_outputBuffFlush(output), 77);
  EXPECT_EQ(zov_outputBuffSendDirect(output, "direct", 6), 77);
  int32_t value = -1;
  channel.bytes = "wxyz";
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 77) << "what a failure claims does not count";
  channel = Channel{};
  EXPECT_EQ(zov_outputBuffPutInt32(output, 2), 0);
  EXPECT_EQ(zov_outputBuffFlush(output), 0);
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 0);
  EXPECT_EQ(value, 1);
  channel.status = 79;
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 0) << "buffered";
  EXPECT_EQ(channel.waitMs, 0u);
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 79);
  EXPECT_EQ(channel.waitMs, 5u);
  channel.waitMs = 6;
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 0), 79);
  EXPECT_EQ(channel.waitMs, 6u) << "no wait, plain callback";
  EXPECT_EQ(value, 2) << "untouched by a failure";
}

TEST_F(Buffers, HostileInputStaysWithinBounds) {
  channel.bytes = "ab";
  channel.overReport = UINT32_MAX - 10;
  std::string bytes(5000, '#');
  EXPECT_EQ(zov_inputBuffGetBytes(input, bytes.data(), 5000), 0);
  EXPECT_EQ(bytes.substr(0, 2), "ab");
  channel.overReport = 0;
  channel.bytes += std::string("\5\0\0\0hello\3\0\0\0abc", 16) + "\xfe\xff\xff\xfftext";
  char place[4] = "###";
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, place, 0), ZOV_BUFF_TRUNCATED);
  EXPECT_EQ(place[0], '#');
  EXPECT_EQ(zov_inputBuffGetBytes(input, nullptr, 7), 0) << "dropped";
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, place, 4), -1);
  EXPECT_STREQ(place, "tex");
  char *text = nullptr;
  channel.bytes += "\xfe\xff\xff\xff" + std::string(70000, 'x');
  EXPECT_EQ(zov_inputBuffGetString(input, &text), -1);
  EXPECT_EQ(text, nullptr);
  channel.bytes += "yz";
  EXPECT_EQ(zov_inputBuffGetChar(input, place), 0);
  zov_inputBuffReset(input);
  EXPECT_EQ(zov_inputBuffGetChar(input, place), -1) << "the rest was discarded";
}

}  // namespace
