// SPDX-License-Identifier: Apache-2.0
//
// Byte order, alignment and version. They need no start-up.
#include <bit>

#include "support/test.h"

namespace {

TEST(Align, LettersSelectTheirClass) {
  const char letters[] = "cCvVnsilLdaDbfFgx\xC4";
  const char classes[] = "0202113353555460000";
  for (size_t index = 0; index < sizeof letters; ++index) {
    EXPECT_EQ(zov_alignType(letters[index]), static_cast<uint32_t>(classes[index] & 7)) << index;
    EXPECT_EQ(zov_alignType(letters[index] + 0x100), zov_alignType(letters[index])) << index;
  }
}

TEST(Align, RoundsUpToTheNextMultiple) {
  const uint16_t rows[][3] = {{13, 0, 13},        {13, 1, 14}, {14, 1, 14}, {13, 2, 16},
                              {17, 3, 20},        {17, 4, 20}, {17, 5, 24}, {24, 6, 24},
                              {UINT16_MAX, 5, 0}, {13, 7, 13}};
  for (const auto &[offset, alignClass, expected] : rows) {
    EXPECT_EQ(zov_align(offset, alignClass), expected) << offset << " class " << alignClass;
  }
  EXPECT_EQ(zov_align(5, UINT32_MAX), 5);
}

TEST(Swap, ReversesBytes) {
  EXPECT_EQ(zov_swaporder16(0x1122), 0x2211);
  EXPECT_EQ(zov_swaporder32(0x11223344), 0x44332211u);
  EXPECT_EQ(zov_swaporder64(0x1122334455667788), 0x8877665544332211u);
  // The pattern of 1.0 reversed is a denormal; as a number it must survive.
  EXPECT_EQ(std::bit_cast<uint32_t>(zov_swaporderf32(1.0f)), 0x0000803Fu);
  EXPECT_EQ(zov_swaporderf32(zov_swaporderf32(1.0f)), 1.0f);
  EXPECT_EQ(std::bit_cast<uint64_t>(zov_swaporderf64(-2.5)), 0x00000000000004C0u);
}

TEST(Version, StoresWhatIsAskedFor) {
  uint16_t parts[] = {0, 9, 0};
  zov_version(nullptr, nullptr, nullptr);
  zov_version(&parts[0], &parts[1], &parts[2]);
  EXPECT_EQ(testing::PrintToString(parts), "{ 11, 0, 620 }");
}

}  // namespace
