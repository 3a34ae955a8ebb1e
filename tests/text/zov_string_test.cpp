// SPDX-License-Identifier: Apache-2.0
//
// String helpers against libc and by table, random numbers against the standard
// library's MT19937.
#include <locale.h>

#include <limits>
#include <numeric>

#include "support/test.h"

namespace {

TEST(Case, ConvertsWhatTheLocaleClassifies) {
  EXPECT_TRUE(strupr(nullptr) == nullptr && strlwr(nullptr) == nullptr);
  EXPECT_TRUE(wcsupr(nullptr) == nullptr && wcslwr(nullptr) == nullptr);
  std::string bytes(255, '\1');
  std::iota(bytes.begin(), bytes.end(), '\1');
  std::string upper = bytes;
  std::string lower = bytes;
  EXPECT_EQ(strupr(upper.data()), upper.data());
  EXPECT_EQ(strlwr(lower.data()), lower.data());
  for (size_t at = 0; at < bytes.size(); ++at) {
    const char byte = bytes[at];
    EXPECT_EQ(upper[at], byte >= 'a' && byte <= 'z' ? byte - 32 : byte);
    EXPECT_EQ(lower[at], byte >= 'A' && byte <= 'Z' ? byte + 32 : byte);
  }
  ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
  wchar_t wide[] = L"a\u00e9\u0416\U00010428!";
  EXPECT_STREQ(wcsupr(wide), L"A\u00c9\u0416\U00010400!");
  EXPECT_STREQ(wcslwr(wide), L"a\u00e9\u0436\U00010428!");
}

template <typename Char>
void checkCopies(Char *(*copy)(Char *, const Char *, uint64_t), const Char *text, size_t length) {
  for (uint64_t size = 0; size <= 10; ++size) {
    Char place[11];
    std::fill_n(place, 11, Char{'#'});
    EXPECT_EQ(copy(place, length == 0 ? nullptr : text, size), place);
    for (uint64_t at = 0; at < 11; ++at) {
      const Char inside = at < length && at + 1 < size ? text[at] : Char{};
      EXPECT_EQ(place[at], at < size ? inside : Char{'#'}) << "byte " << at << " of " << size;
    }
  }
}

TEST(Copy, AlwaysTerminatesAndFillsWithZeros) {
  checkCopies(zov_strncpyZ, "abcdef", 6);
  checkCopies(zov_strncpyZ, "", 0);
  checkCopies(zov_wcsncpyZ, L"abcdef", 6);
  checkCopies(zov_wcsncpyZ, L"", 0);
}

TEST(Round, HalvesGoAwayFromZero) {
  const double rows[][2] = {
      {2.5, 3},       {-2.5, -3}, {-0.5, -1}, {-0.4, 0}, {2.4, 2}, {0.49999999999999994, 1},
      {1e300, 1e300},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(zov_round(row[0]), row[1]) << row[0];
  }
  const double nan = zov_round(std::numeric_limits<double>::quiet_NaN());
  EXPECT_NE(nan, nan);
}

using Random = zovtest::Started;

TEST_F(Random, IsTheStandardSequence) {
  const ZOV_RAND generator = zov_randCreate(0);
  ASSERT_NE(generator, nullptr);
  std::mt19937 reference(0x8DF1337C);
  for (const uint32_t seed : {0x8DF1337Cu, 5489u, 0u, 1u, UINT32_MAX}) {
    SCOPED_TRACE(seed);
    const auto next = [&] { return static_cast<uint32_t>(reference()); };
    for (int step = 0; step < 2000; ++step) {
      ASSERT_EQ(zov_randGetNext(generator), next()) << "step " << step;
      ASSERT_EQ(zov_randGet(generator), static_cast<int32_t>(next() % 0x80000000));
      const uint64_t high = next();
      ASSERT_EQ(zov_randGetUInt64(generator), high << 32 | next());
      ASSERT_EQ(zov_randGetDouble(generator), next() / 4294967295.0);
      ASSERT_EQ(zov_randGetUInt32(generator), next());
    }
    (seed % 2 == 0 ? zov_randSetSeed : zov_randResetSeed)(generator, seed);
    reference.seed(seed);
  }
  zov_randDestroy(generator);
}

}  // namespace
