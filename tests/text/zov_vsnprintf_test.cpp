// SPDX-License-Identifier: Apache-2.0
//
// The formatter: its grammar by table; integers against libc, which they agree
// with outside the rows of the table; floating point against a model that does
// the arithmetic step by step in long double, and against libc where rounding
// cannot tell them apart.
//
// localeconv() beneath the library is replaced, so that there are separators
// whatever locales the machine has.
#include <gtest/gtest.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/alloc_failure.h"
#include "zov.h"

namespace {

char decimalPoint[] = ".";
lconv conventions{};

}  // namespace

extern "C" {
lconv *__wrap_localeconv(void);
lconv *__wrap_localeconv() {
  return &conventions;
}
}

namespace {

// Out of sight of the compiler, which would check the arguments: many formats
// are wrong on purpose.
int32_t (*volatile format)(char *, uint64_t, const char *, ...) = zov_snprintf;
int (*volatile formatLibc)(char *, size_t, const char *, ...) = snprintf;

// The text, or "fails".
template <typename... Arguments>
std::string print(const char *text, Arguments... arguments) {
  char buffer[4096];
  const int32_t length = format(buffer, sizeof buffer, text, arguments...);
  if (length < 0) {
    return "fails";
  }
  const std::string printed(buffer, static_cast<size_t>(length));
  return buffer[length] == '\0' ? printed : printed + " not terminated";
}

template <typename... Arguments>
std::string printLibc(const std::string &text, Arguments... arguments) {
  char buffer[4096];
  formatLibc(buffer, sizeof buffer, text.c_str(), arguments...);
  return buffer;
}

struct Row {
  int line;
  std::string printed;
  std::string expected;
};

void check(const std::vector<Row> &rows) {
  for (const Row &row : rows) {
    EXPECT_EQ(row.printed, row.expected) << "row at line " << row.line;
  }
}

class Format : public testing::Test {
 protected:
  Format() { conventions.decimal_point = decimalPoint; }
  ~Format() override {
    if (HasFailure()) {
      printf("seed %u\n", seed);
    }
  }

  const uint32_t seed = std::random_device{}();
  std::mt19937_64 random{seed};

  template <size_t kCount>
  std::string pick(const char *const (&choices)[kCount]) {
    return choices[random() % kCount];
  }

  // Those libc knows too.
  std::string anyFlags() {
    std::string flags;
    for (char flag : {'-', '+', ' ', '#', '0'}) {
      flags += anyBelow(3) == 0 ? std::string(1, flag) : "";
    }
    return flags;
  }

  int anyBelow(int limit) { return static_cast<int>(random() % static_cast<uint64_t>(limit)); }

  long double anyMagnitude();
};

TEST_F(Format, Directives) {
  const char unterminated[] = {'a', 'b', 'c'};
  check({
      {__LINE__, print(""), ""},
      {__LINE__, print("a text longer than sixteen bytes %d%% of it", 5),
       "a text longer than sixteen bytes 5% of it"},
      {__LINE__, print("%5%|%-+ 0'#9.3lld", 7LL), "%|+007     "},
      // A letter out of place, or a format that ends early.
      {__LINE__, print("%y%d", 3), "3"},
      {__LINE__, print("%1$d", 5), "d"},
      {__LINE__, print("%qd", 5), "d"},
      {__LINE__, print("%I64d", 5), "64d"},
      {__LINE__, print("%0-5"), ""},
      {__LINE__, print("a%"), "a"},
      {__LINE__, print("a%."), "a"},
      {__LINE__, print("a%*", 5), "a"},
      {__LINE__, print("a%5.3l"), "a"},
      {__LINE__, print("%\xE4|"), "|"},
      // Width and precision.
      {__LINE__, print("%*d|%*d|", 4, 7, -4, 7), "   7|7   |"},
      {__LINE__, print("%.*d|%.*d", 3, 7, -1, 0), "007|0"},
      {__LINE__, print("%.-3d", 5), "3d"},
      {__LINE__, print("%2147483648d", 5), "fails"},
      {__LINE__, print("%.2147483648s", "a"), "fails"},
      {__LINE__, print("%.2147483647s", "a"), "a"},
      {__LINE__, print("%*d", INT_MIN, 5), "fails"},
      // Characters, strings, pointers.
      {__LINE__, print("%5c|%-5lc", 'x', 0x100 + 'y'), "x|y"},
      {__LINE__, print("%c", 0), std::string(1, '\0')},
      {__LINE__, print("%5s|%-5s|%05s|%ls", "ab", "ab", "ab", "ab"), "   ab|ab   |   ab|ab"},
      {__LINE__, print("%.3s|%6.2s|%-4.s|", unterminated, "abc", "abc"), "abc|    ab|    |"},
      {__LINE__, print("%s|%.5s|%.6s|%8s", nullptr, nullptr, nullptr, nullptr),
       "(null)||(null)|  (null)"},
      {__LINE__, print("%p|%7p|%-7p|%.3p", nullptr, nullptr, nullptr, nullptr),
       "(nil)|  (nil)|(nil)  |(ni"},
      {__LINE__, print("%p|%+8p|%08p|%-8p|%.4p", 31L, 31L, 31L, 31L, 31L),
       "0x1f|    0x1f|0x00001f|0x1f    |0x001f"},
      // Integers where they differ from libc's.
      {__LINE__, print("%Ld|%d", 7), "0|7"},
      {__LINE__, print("%Lx|%.0Lu|%d", 7), "0||7"},
      {__LINE__, print("%.0d|%+.0d|%.0x|%#.0o", 0, 0, 0, 0), "|+||"},
      {__LINE__, print("%#o|%#x|%#X", 0, 0, 255), "0|0|0XFF"},
      {__LINE__, print("%#.0o|%#05.0o|%#.1o|%#.4o", 8, 8, 8, 8), "010|00010|010|0010"},
  });
}

TEST_F(Format, CountsStoreThePosition) {
  int8_t byte[2] = {-1, -1};
  int16_t half[2] = {-1, -1};
  int32_t word[2] = {-1, -1};
  int64_t wide[6] = {-1, -1, -1, -1, -1, -1};
  char small[3];
  EXPECT_EQ(format(small, sizeof small, "%300d%hhn%hn%n%ln%lln%zn%tn%jn%Ln%d", 1, byte, half, word,
                   &wide[0], &wide[1], &wide[2], &wide[3], &wide[4], 7),
            301);
  EXPECT_TRUE(byte[0] == 300 - 256 && half[0] == 300 && word[0] == 300);
  EXPECT_TRUE(byte[1] == -1 && half[1] == -1 && word[1] == -1 && wide[5] == -1);
  EXPECT_EQ(std::count(wide, wide + 5, 300), 5);
}

TEST_F(Format, IntegersAreLibcs) {
  for (int round = 0; round < 200000; ++round) {
    const std::string letter = pick({"d", "i", "u", "o", "x", "X"});
    const std::string text =
        "%" + anyFlags() + "*.*" + pick({"", "hh", "h", "l", "ll", "z", "t", "j"}) + letter + "|";
    const int width = anyBelow(60) - 20;
    int precision = anyBelow(30) - 1;
    // The one disagreement, in the table above.
    precision += letter == "o" && precision == 0 ? 1 : 0;
    const int64_t value = static_cast<int64_t>(random()) >> random() % 64;
    ASSERT_EQ(print(text.c_str(), width, precision, value),
              printLibc(text, width, precision, value))
        << text << " of " << value << ' ' << width << ' ' << precision;
  }
}

// What follows restates the arithmetic of floating point, one operation of a
// long double at a time and with no thought of speed.

long double modelPower(int exponent) {
  long double power = 1;
  for (; exponent > 0; --exponent) {
    power *= 10;
  }
  for (; exponent < 0; ++exponent) {
    power /= 10;
  }
  return power;
}

int modelExponent(long double magnitude) {
  int exponent = 0;
  for (long double power = 1; magnitude != 0 && power > magnitude; power /= 10) {
    --exponent;
  }
  for (long double power = 10; magnitude >= power; power *= 10) {
    ++exponent;
  }
  return exponent;
}

struct ModelNumber {
  uint64_t integer;
  uint64_t fraction;
  int precision;
  int exponent;
};

bool modelSplit(long double magnitude, bool scaled, ModelNumber &number) {
  number.precision = std::min(number.precision, 19);
  magnitude = scaled ? magnitude / modelPower(number.exponent) : magnitude;
  if (magnitude >= 18446744073709551615.0L) {
    return false;
  }
  const long double integer = truncl(magnitude);
  const long double scale = modelPower(number.precision);
  const long double product = (magnitude - integer) * scale;
  const long double rest = product - truncl(product);
  number.integer = static_cast<uint64_t>(integer);
  number.fraction = static_cast<uint64_t>(truncl(product)) + (rest >= 0.5L ? 1 : 0);
  if (number.fraction >= static_cast<uint64_t>(scale)) {
    number.fraction = 0;
    ++number.integer;
    if (scaled && number.integer == 10) {
      number.integer = 1;
      ++number.exponent;
    }
  }
  return true;
}

// Prints a magnitude without padding.
std::string modelFloat(int precision, bool alternate, char letter, long double magnitude) {
  const bool general = letter == 'g';
  bool scaled = letter != 'f';
  ModelNumber number{0, 0, general ? std::max(precision, 1) - 1 : precision,
                     scaled ? modelExponent(magnitude) : 0};
  bool splits = modelSplit(magnitude, scaled, number);
  if (general && number.exponent >= -4 && number.exponent < number.precision + 1) {
    scaled = false;
    number.precision -= number.exponent;
    splits = modelSplit(magnitude, scaled, number);
  }
  if (!splits) {
    return "fails";
  }
  std::string text = printLibc("%lu.", number.integer);
  text += number.precision > 0 ? printLibc("%0*lu", number.precision, number.fraction) : "";
  if (general && !alternate) {
    text.resize(text.find_last_not_of('0') + 1);
  }
  if (text.back() == '.' && !alternate) {
    text.pop_back();
  }
  const int digits = abs(number.exponent) < 1000 ? 2 : 3;
  const char *exponent = number.exponent < 0 ? "e-%0*d" : "e+%0*d";
  return scaled ? text + printLibc(exponent, digits, abs(number.exponent) % 1000) : text;
}

// Numbers of a few digits as people write them, eighths that make ties, powers
// of ten, and any bits at all.
long double Format::anyMagnitude() {
  switch (random() % 4) {
    case 0:
      return static_cast<long double>(random() % 2000001) / modelPower(anyBelow(12));
    case 1:
      return static_cast<long double>(random() % 100001) / 8;
    case 2:
      return powl(10, anyBelow(9877) - 4945);
    default: {
      const double value = fabs(std::bit_cast<double>(random()));
      return isfinite(value) ? value : 0;
    }
  }
}

TEST_F(Format, FloatsAreTheModels) {
  for (int round = 0; round < 60000; ++round) {
    const std::string letter = pick({"f", "e", "g"});
    const std::string flag = pick({"", "#"});
    const int precision = anyBelow(25);
    const long double value = anyMagnitude();
    ASSERT_EQ(print(("%" + flag + ".*L" + letter).c_str(), precision, value),
              modelFloat(precision, flag == "#", letter[0], value))
        << flag << precision << letter << " of " << printLibc("%La", value);
    const double narrow = static_cast<double>(value);
    ASSERT_TRUE(isinf(narrow) || print(("%" + flag + ".*" + letter).c_str(), precision, narrow) ==
                                     modelFloat(precision, flag == "#", letter[0], narrow))
        << flag << precision << letter << " of " << printLibc("%a", narrow);
  }
}

// Few enough digits that the errors of the arithmetic cannot show, and too many
// behind them for a tie.
TEST_F(Format, FloatsAreLibcs) {
  for (int round = 0; round < 20000; ++round) {
    const std::string letter = pick({"f", "F", "e", "E", "g", "G"});
    const std::string text = "%" + anyFlags() + "*.*" + letter;
    const bool fixed = letter == "f" || letter == "F";
    const int exponent = fixed ? anyBelow(25) - 40 : anyBelow(550) - 300;
    const double value = static_cast<double>(static_cast<int64_t>(random())) * pow(10, exponent);
    const int width = anyBelow(30);
    const int precision = anyBelow(9);
    ASSERT_EQ(print(text.c_str(), width, precision, value),
              printLibc(text, width, precision, value))
        << text << " of " << printLibc("%a", value) << ' ' << width << ' ' << precision;
  }
}

TEST_F(Format, Floats) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  check({
      {__LINE__, print("%f|%.0f|%#.0f|%+.1f|% .2f", 1.5, 2.5, 1.0, 0.25, 0.125),
       "1.500000|3|1.|+0.3| 0.13"},
      {__LINE__, print("%f|%e|%g", -0.0, -0.0, -0.0), "0.000000|0.000000e+00|0"},
      {__LINE__, print("%+f|%05f|%-6E|%06.1G|", nan, inf, -inf, -nan), "+nan|  inf|-INF  |   NAN|"},
      {__LINE__, print("%.25f", 0.5), "0.5000000000000000000"},
      {__LINE__, print("%.25e|%#.25g", 0.5, 0.5),
       "5.0000000000000000000e-01|0.5000000000000000000"},
      {__LINE__, print("%f", 1e20), "fails"},
      {__LINE__, print("%Lf", 18446744073709551615.0L), "fails"},
      {__LINE__, print("%Lf", 18446744073709551614.0L), "18446744073709551614.000000"},
      {__LINE__, print("%.30Lg", 5e19L), "fails"},
      {__LINE__, print("%e|%g|%G", 1e20, 1e20, 1e-20), "1.000000e+20|1e+20|1E-20"},
      {__LINE__, print("%g|%g|%g|%g", 0.0001, 0.00001, 100000.0, 1000000.0),
       "0.0001|1e-05|100000|1e+06"},
      {__LINE__, print("%.0g|%.1g|%.3g|%#g", 9.5, 9.4, 999.5, 1.0), "1e+01|9|1000|1.00000"},
      {__LINE__, print("%a|%A|%.1A", 1.5, 1.5, nan), "1.500000|1.500000|NAN"},
      {__LINE__, print("%.1Le|%.1Le", 1e4005L, 1e-1000L), "1.0e+005|1.0e-000"},
      // Nothing is left of the power such a number would be divided by.
      {__LINE__, print("%Le", std::numeric_limits<long double>::denorm_min()), "fails"},
      {__LINE__, print("%-9.2e|%09.2f|%-09.2f|", 12345.0, -1.5, -1.5),
       "1.23e+04 |-00001.50|-1.50    |"},
  });
}

TEST_F(Format, SeparatorsComeFromTheLocale) {
  char comma[] = ",";
  conventions.thousands_sep = comma;
  check({
      {__LINE__, print("%'d|%'d|%'d", 999, 1000, -1234567), "999|1,000|-1,234,567"},
      {__LINE__, print("%'llx|%'.2f|%'e", 0xABCDEF1LL, 1234567.891, 1e9),
       "a,bcd,ef1|1,234,567.89|1.000000e+09"},
      {__LINE__, print("%'10d|%'-10d|%'010d|", 1234, 1234, 1234),
       "     1,234|1,234     |000001,234|"},
      // Separators count against the precision, and once more in the total.
      {__LINE__, print("%'.6d|%'8.6d|%'9.6d", 1234, 1234, 1234), "01,234| 01,234|  01,234"},
      {__LINE__, print("%'.0d", 0), " 0"},
      {__LINE__, print("%'012.1f|%'g", 12345.67, 123456.0), "000012,345.7|123,456"},
      {__LINE__, print("%'f", std::numeric_limits<double>::infinity()), "inf"},
  });
  char wide[] = "<->";
  char point[] = "::";
  conventions.thousands_sep = wide;
  conventions.decimal_point = point;
  EXPECT_EQ(print("%'14d|%'15.1f|%.0f", 1234567, -1234.5, 1.0), " 1<->234<->567|    -1<->234::5|1");
  conventions = lconv{};
  EXPECT_EQ(print("%'d|%.1f", 1234, 1.5), "1,234|1.5");
}

// Whatever the size, the text is a prefix of the whole and the length that of
// the whole, and nothing is written beyond.
TEST_F(Format, NeverWritesBeyondTheSize) {
  char comma[] = ",";
  conventions.thousands_sep = comma;
  const char *text = "lead %'9d|%-12s|%+.3e|%#o|%c|%%|%12p|tail of more than sixteen bytes";
  const auto printInto = [&](char *buffer, uint64_t size) {
    return format(buffer, size, text, 12345, "string", -2.5, 8, 'c', nullptr);
  };
  char whole[200];
  const int32_t length = printInto(whole, sizeof whole);
  EXPECT_EQ(printInto(nullptr, 100), length);
  for (uint64_t size = 0; size < static_cast<uint64_t>(length) + 3; ++size) {
    std::string buffer(200, '~');
    ASSERT_EQ(printInto(buffer.data(), size), length);
    const uint64_t stored = std::min<uint64_t>(size, static_cast<uint64_t>(length) + 1);
    std::string expected(whole, stored);
    if (size != 0) {
      expected.back() = '\0';
    }
    ASSERT_EQ(buffer, expected + std::string(200 - stored, '~')) << "size " << size;
  }
}

TEST_F(Format, LengthsEndWhereAnIntDoes) {
  char buffer[8];
  EXPECT_EQ(format(buffer, sizeof buffer, "%*s", INT_MAX - 1, "a"), INT_MAX - 1);
  EXPECT_EQ(format(buffer, sizeof buffer, "%.*d", INT_MAX, 1), -1);
  EXPECT_STREQ(buffer, "0000000");
  EXPECT_EQ(format(buffer, sizeof buffer, "%2147483647s%-2147483647s%2147483647s", "", "", ""), -1);
  EXPECT_EQ(format(buffer, sizeof buffer, "ab%d%99999999999d", 5, 5), -1);
  EXPECT_STREQ(buffer, "ab5") << "what was printed before the failure stays";
}

TEST_F(Format, NeedsNoMemoryAndNoStart) {
  zovtest::failAllocationAfter(0, true);
  EXPECT_EQ(print("%300s|%d|%.9Lg", "a", 5, 1e4000L).size(), 309u);
  EXPECT_FALSE(zovtest::stopFailing()) << "nothing was allocated";
  EXPECT_EQ(zov_makeStrVA(ZOV_HERE, 0, "%d", 5), nullptr) << "the library is not started";
}

TEST_F(Format, MakesStrings) {
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  for (int width : {0, 1, 254, 255, 256, 5000}) {
    char *made = zov_makeStrVA(ZOV_HERE, tag, "%*s%.1f", width, "", 2.5);
    EXPECT_EQ(made, std::string(static_cast<size_t>(width), ' ') + "2.5");
    zov_freeMem(made, tag);
  }
  EXPECT_EQ(zov_makeStrVA(ZOV_HERE, tag, "%f", 1e20), nullptr);
  for (int width : {1, 5000}) {
    testing::internal::CaptureStdout();
    zovtest::failAllocationAfter(0, true);
    EXPECT_EQ(zov_makeStrVA("caller", 77, tag, "%*d", width, 5), nullptr);
    EXPECT_TRUE(zovtest::stopFailing());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Out of memory. Called from caller:77\n");
  }
  zov_term();
}

// The list is the caller's still: two calls read the same arguments.
TEST_F(Format, ConsumesACopyOfTheList) {
  const auto twice = [](const char *text, ...) {
    va_list arguments;
    va_start(arguments, text);
    char buffer[2][40];
    zov_vsnprintf(buffer[0], sizeof buffer[0], text, arguments);
    zov_vsnprintf(buffer[1], sizeof buffer[1], text, arguments);
    va_end(arguments);
    return std::string(buffer[0]) + buffer[1];
  };
  EXPECT_EQ(twice("%d %s %.1f|", 5, "a", 2.5), "5 a 2.5|5 a 2.5|");
}

}  // namespace
