// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers: random sequences of items against the encoding written out, and
// the ways a channel can fail.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/alloc_failure.h"
#include "zov.h"

namespace {

// Both ends of a channel; how it behaves is the test's to set.
struct Channel {
  std::string bytes;        // written
  size_t taken = 0;         // of them, read again
  uint32_t step = 5000;     // bytes per read
  int32_t status = 0;       // what the callbacks return
  uint32_t overReport = 0;  // bytes claimed beyond those delivered
  uint32_t waitMs = 0;      // of the last timed read
  std::vector<uint32_t> writes;
};

int32_t readChannel(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Channel &channel = *static_cast<Channel *>(context);
  EXPECT_EQ(*delivered, 0u);
  const size_t count = std::min<size_t>(channel.step, channel.bytes.size() - channel.taken);
  *delivered = static_cast<uint32_t>(std::min<size_t>(count, capacity)) + channel.overReport;
  if (channel.status == 0) {
    channel.taken += channel.bytes.copy(static_cast<char *>(buffer), count, channel.taken);
    return count == 0 ? -1 : 0;
  }
  return channel.status;
}

int32_t timedReadChannel(void *context, void *buffer, uint32_t capacity, uint32_t *delivered,
                         uint32_t waitMs) {
  static_cast<Channel *>(context)->waitMs = waitMs;
  return readChannel(context, buffer, capacity, delivered);
}

int32_t writeChannel(void *context, const void *data, uint32_t length) {
  Channel &channel = *static_cast<Channel *>(context);
  if (channel.status == 0) {
    channel.bytes.append(static_cast<const char *>(data), length);
    channel.writes.push_back(length);
  }
  return channel.status;
}

class Buffers : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    open(0);
  }
  void TearDown() override { zov_term(); }

  void open(int32_t swap) {
    zov_inputBuffDestroy(input);
    zov_outputBuffDestroy(output);
    channel = Channel{};
    ASSERT_EQ(zov_inputBuffCreate(readChannel, timedReadChannel, &channel, swap, &input), 0);
    ASSERT_EQ(zov_outputBuffCreate(writeChannel, &channel, swap, &output), 0);
    swapping = swap != 0;
    expected.clear();
    checks.clear();
  }

  // Each of these puts one item, notes its bytes and how to check it when read.
  template <typename Value, typename Put>
  void addValue(Put put, int32_t (*get)(ZOV_INPUTBUFF, Value *)) {
    const uint64_t bits = random();
    Value value;
    memcpy(&value, &bits, sizeof value);
    ASSERT_EQ(put(output, value), 0);
    expect(&value, sizeof value);
    checks.push_back([=, this] {
      Value got;
      ASSERT_EQ(get(input, &got), 0);
      EXPECT_EQ(memcmp(&got, &value, sizeof value), 0) << sizeof value << " bytes";
    });
  }

  void addString(const char *text, uint32_t length, size_t room) {
    ASSERT_EQ(zov_outputBuffPutStringWithLength(output, text), 0);
    expect(&length, sizeof length);
    expected += text == nullptr ? "" : text;
    const std::string copy(text == nullptr ? "" : text);
    checks.push_back([=, this] {
      std::string got(room, '#');
      char *block = nullptr;
      if (room == 0) {
        ASSERT_EQ(zov_inputBuffGetString(input, &block), 0);
        EXPECT_EQ(block == nullptr, length == UINT32_MAX);
        EXPECT_EQ(block == nullptr ? "" : block, copy);
        zov_freeMem(block, ZOV_DEFAULT_TAG);
        return;
      }
      EXPECT_EQ(zov_inputBuffGetStringWithLength(input, got.data(), room),
                copy.size() < room ? 0 : ZOV_BUFF_TRUNCATED);
      EXPECT_EQ(got.c_str(), copy.substr(0, room - 1));
    });
  }

  void addBytes(const std::string &text) {
    ASSERT_EQ(zov_outputBuffPutBytes(output, text.data(), text.size()), 0);
    ASSERT_EQ(zov_outputBuffPutString(output, text.c_str()), 0);
    ASSERT_EQ(zov_outputBuffSendDirect(output, text.data(), text.size()), 0);
    expected += text + text + text;
    checks.push_back([=, this] {
      std::string got(text.size() * 3, '#');
      ASSERT_EQ(zov_inputBuffGetBytes(input, got.data(), got.size()), 0);
      EXPECT_EQ(got, text + text + text);
    });
  }

  void expect(const void *value, size_t size) {
    const std::string item(static_cast<const char *>(value), size);
    expected += swapping ? std::string(item.rbegin(), item.rend()) : item;
  }

  Channel channel;
  ZOV_INPUTBUFF input = nullptr;
  ZOV_OUTPUTBUFF output = nullptr;
  bool swapping = false;
  std::string expected;
  std::vector<std::function<void()>> checks;
  std::mt19937_64 random{std::random_device{}()};
};

TEST_F(Buffers, RandomSequencesArriveAsSent) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE(seed);
  random.seed(seed);
  const uint32_t steps[] = {1, 7, 5000};
  for (int round = 0; round < 6; ++round) {
    open(round % 2 * 0x10000);  // nothing that is left of it in 16 bits
    for (int count = 0; count < 500; ++count) {
      std::string text(random() % (random() % 20 == 0 ? 15000 : 30), '.');
      std::generate(text.begin(), text.end(), [&] { return 1 + random() % 255; });
      addValue(zov_outputBuffPutChar, zov_inputBuffGetChar);
      addValue(zov_outputBuffPutInt16, zov_inputBuffGetInt16);
      addValue(zov_outputBuffPutInt32, zov_inputBuffGetInt32);
      addString(text.c_str(), static_cast<uint32_t>(text.size()), random() % 40);
      addValue(zov_outputBuffPutInt64, zov_inputBuffGetInt64);
      addValue(zov_outputBuffPutFloat32, zov_inputBuffGetFloat32);
      addBytes(text);
      addValue(zov_outputBuffPutFloat64, zov_inputBuffGetFloat64);
      addString(nullptr, UINT32_MAX, random() % 2);
    }
    ASSERT_EQ(zov_outputBuffFlush(output), 0);
    ASSERT_TRUE(channel.bytes == expected);
    channel.step = steps[round / 2];
    for (const auto &check : checks) {
      check();
    }
    char byte;
    EXPECT_EQ(zov_inputBuffGetChar(input, &byte), -1) << "nothing is left over";
  }
}

TEST_F(Buffers, SendsFullBuffersOnly) {
  constexpr uint64_t kLarge = (uint64_t{1} << 32) + 5;
  void *data = mmap(nullptr, kLarge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(data, MAP_FAILED);
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 5000), 0);
  EXPECT_TRUE(channel.writes.empty());
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 1000), 0);
  EXPECT_EQ(channel.writes, std::vector<uint32_t>{5000});
  EXPECT_EQ(zov_outputBuffSendDirect(output, data, 0), 0);
  EXPECT_EQ(zov_outputBuffSendDirect(output, data, 6000), 0);
  EXPECT_EQ(channel.writes, (std::vector<uint32_t>{5000, 1000, 6000}));

  uint64_t sent = 0;
  const auto count = [](void *context, const void *, uint32_t length) {
    *static_cast<uint64_t *>(context) += length;
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
  channel.status = 0;
  EXPECT_EQ(zov_outputBuffPutInt32(output, 2), 0);
  EXPECT_EQ(zov_outputBuffFlush(output), 0);
  ASSERT_EQ(channel.bytes.size(), 8u);

  int32_t value = -1;
  channel.status = 78;
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 78) << "what a failure claims does not count";
  channel.status = 0;
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 0);
  EXPECT_EQ(value, 1);
  channel.status = 79;
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 0) << "buffered";
  EXPECT_EQ(channel.waitMs, 0u);
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 79);
  EXPECT_EQ(channel.waitMs, 5u);
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 0), 79);
  EXPECT_EQ(channel.waitMs, 5u) << "no wait, plain callback";
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
  char *text = place;
  zovtest::failAllocationAfter(0);
  EXPECT_EQ(zov_inputBuffGetString(input, &text), ZOV_BUFF_NOMEMORY);
  EXPECT_TRUE(zovtest::stopFailing());
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(zov_inputBuffGetBytes(input, nullptr, 3), 0) << "the text can be skipped";
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, place, 4), -1);
  EXPECT_STREQ(place, "tex");
  channel.bytes += "yz";
  EXPECT_EQ(zov_inputBuffGetChar(input, place), 0);
  zov_inputBuffReset(input);
  EXPECT_EQ(zov_inputBuffGetChar(input, place), -1) << "the z was discarded";
}

TEST_F(Buffers, NoMemoryOwesNothing) {
  const int64_t before = zovtest::liveBlocks();
  zovtest::failAllocationAfter(0, true);
  EXPECT_EQ(zov_inputBuffCreate(readChannel, nullptr, nullptr, 0, &input), ZOV_BUFF_NOMEMORY);
  EXPECT_EQ(zov_outputBuffCreate(writeChannel, nullptr, 0, &output), ZOV_BUFF_NOMEMORY);
  EXPECT_TRUE(zovtest::stopFailing());
  EXPECT_EQ(input, nullptr);
  EXPECT_EQ(output, nullptr);
  EXPECT_EQ(zovtest::liveBlocks(), before);
}

}  // namespace
