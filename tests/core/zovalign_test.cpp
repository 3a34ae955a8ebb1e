// SPDX-License-Identifier: Apache-2.0
//
// Byte order, alignment and version. They need no start-up.
#include <bit>

#include <gtest/gtest.h>

#include "zov.h"

namespace {

TEST(Align, LettersSelectTheirClass) {
  const char letters[] = "cCvVnsilLdaDbfFgx\xC4";
  const char classes[] = "0202113353555460000";
  for (size_t index = 0; index < sizeof letters; ++index) {
    EXPECT_EQ(zov_alignType(letters[index]), static_cast<uint32_t>(classes[index] & 7)) << index;
    EXPECT_EQ(zov_alignType(letters[index] + 0x100), zov_alignType(letters[index])) << index;
  }
}

// Walks every offset of every class against the definition: the smallest
// multiple that is not below the offset, in 16 bits.
TEST(Align, RoundsUpToTheNextMultiple) {
  const uint32_t alignment[] = {1, 2, 4, 4, 4, 8, 8};
  for (uint32_t alignClass = 0; alignClass < 7; ++alignClass) {
    for (uint32_t offset = 0; offset <= UINT16_MAX; ++offset) {
      uint32_t expected = offset;
      while (expected % alignment[alignClass] != 0) {
        ++expected;
      }
      ASSERT_EQ(zov_align(static_cast<uint16_t>(offset), alignClass),
                static_cast<uint16_t>(expected))
          << "offset " << offset << " class " << alignClass;
    }
  }
  EXPECT_EQ(zov_align(5, 7), 5) << "a class that does not exist aligns nothing";
  EXPECT_EQ(zov_align(5, UINT32_MAX), 5);
}

TEST(Swap, ReversesBytes) {
  EXPECT_EQ(zov_swaporder16(0x1122), 0x2211);
  EXPECT_EQ(zov_swaporder32(0x11223344), 0x44332211u);
  EXPECT_EQ(zov_swaporder64(0x1122334455667788), 0x8877665544332211u);
  // The pattern of 1.0 reversed is a denormal; as a number it must survive.
  const float swapped32 = zov_swaporderf32(1.0f);
  EXPECT_EQ(std::bit_cast<uint32_t>(swapped32), 0x0000803Fu);
  EXPECT_EQ(zov_swaporderf32(swapped32), 1.0f);
  const double swapped64 = zov_swaporderf64(-2.5);
  EXPECT_EQ(std::bit_cast<uint64_t>(swapped64), 0x00000000000004C0u);
  EXPECT_EQ(zov_swaporderf64(swapped64), -2.5);
}

TEST(Version, StoresWhatIsAskedFor) {
  uint16_t major = 0;
  uint16_t minor = 9;
  uint16_t build = 0;
  zov_version(&major, &minor, &build);
  EXPECT_EQ(major, 11);
  EXPECT_EQ(minor, 0);
  EXPECT_EQ(build, 620);
  major = 0;
  zov_version(&major, nullptr, nullptr);
  EXPECT_EQ(major, ZOV_VERSION_MAJOR);
  zov_version(nullptr, nullptr, nullptr);
}

}  // namespace
