// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers: random walks of items against the encoding written out, and the
// ways a channel can fail.
#include <sys/mman.h>

#include "config/zovbuffer_walk.h"
#include "support/faults.h"

namespace {

class Buffers : public zovtest::Started, protected zovtest::BufferEnds {
 protected:
  Buffers() : BufferEnds(0) {}
};

TEST_F(Buffers, RandomSequencesArriveAsSent) {
  zovtest::Random random;
  for (const uint32_t pieces : {1u, 7u, 5000u}) {
    for (const bool swap : {false, true}) {
      const std::vector<uint8_t> dice = random.bytes(10000);
      BufferEnds ends(swap ? 0x10000 : 0);  // a flag of 16 bits would miss it
      ends.step = pieces;
      EXPECT_TRUE(zovtest::itemsArrive(dice.data(), dice.size(), swap, ends)) << pieces << swap;
    }
  }
}

TEST_F(Buffers, SendsFullBuffersOnly) {
  constexpr uint64_t kLarge = (uint64_t{1} << 32) + 5;
  void *data = mmap(nullptr, kLarge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(data, MAP_FAILED);
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 5000), 0);
  EXPECT_EQ(bytes.size(), 0u);
  EXPECT_EQ(zov_outputBuffPutBytes(output, data, 1000), 0);
  EXPECT_EQ(bytes.size(), 5000u);
  EXPECT_EQ(zov_outputBuffPutString(output, "abc"), 0);
  EXPECT_EQ(zov_outputBuffSendDirect(output, data, 6000), 0);
  EXPECT_EQ(bytes.size(), 12003u);
  EXPECT_EQ(bytes.substr(6000, 3), "abc");

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
  status = 77;
  EXPECT_EQ(zov_outputBuffFlush(output), 77);
  EXPECT_EQ(zov_outputBuffSendDirect(output, "direct", 6), 77);
  int32_t value = -1;
  bytes = "wxyz";
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 77) << "what a failure claims does not count";
  bytes.clear();
  status = 0;
  EXPECT_EQ(zov_outputBuffPutInt32(output, 2), 0);
  EXPECT_EQ(zov_outputBuffFlush(output), 0);
  EXPECT_EQ(zov_inputBuffGetInt32(input, &value), 0);
  EXPECT_EQ(value, 1);
  status = 79;
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 0) << "buffered";
  EXPECT_EQ(waitMs, 0u);
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 5), 79);
  EXPECT_EQ(waitMs, 5u);
  waitMs = 6;
  EXPECT_EQ(zov_inputBuffGetInt32Timeout(input, &value, 0), 79);
  EXPECT_EQ(waitMs, 6u) << "no wait, plain callback";
  EXPECT_EQ(value, 2) << "untouched by a failure";
  char text[9] = "####";
  char *block = text;
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, text, 9), 79);
  EXPECT_EQ(zov_inputBuffGetString(input, &block), 79);
  EXPECT_TRUE(text[0] == '#' && block == nullptr);
  const std::string full(5000, 'f');
  EXPECT_EQ(zov_outputBuffPutBytes(output, full.data(), 5000), 0);
  EXPECT_EQ(zov_outputBuffPutStringWithLength(output, "more"), 79);
  status = 0;
  bytes = std::string("\5\0\0\0ab", 6);
  taken = 0;
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, text, 9), -1) << "cut off";
  EXPECT_EQ(text[0], '\0');
}

TEST_F(Buffers, HostileInputStaysWithinBounds) {
  bytes = "ab";
  overReport = UINT32_MAX - 10;
  std::string got(5000, '#');
  EXPECT_EQ(zov_inputBuffGetBytes(input, got.data(), 5000), 0);
  EXPECT_EQ(got.substr(0, 2), "ab");
  overReport = 0;
  bytes += std::string("\5\0\0\0hello\3\0\0\0abc", 16) + "\xfe\xff\xff\xfftext";
  char place[4] = "###";
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, place, 0), ZOV_BUFF_TRUNCATED);
  EXPECT_EQ(place[0], '#');
  EXPECT_EQ(zov_inputBuffGetBytes(input, nullptr, 7), 0) << "dropped";
  EXPECT_EQ(zov_inputBuffGetStringWithLength(input, place, 4), -1);
  EXPECT_STREQ(place, "tex");
  char *text = nullptr;
  bytes += "\xfe\xff\xff\xff" + std::string(70000, 'x');
  EXPECT_EQ(zov_inputBuffGetString(input, &text), -1);
  EXPECT_EQ(text, nullptr);
  bytes += "yz";
  EXPECT_EQ(zov_inputBuffGetChar(input, place), 0);
  zov_inputBuffReset(input);
  EXPECT_EQ(zov_inputBuffGetChar(input, place), -1) << "the rest was discarded";
}

}  // namespace
