// SPDX-License-Identifier: Apache-2.0
//
// The formatter: by table where it differs from libc, elsewhere against libc.
// localeconv() beneath the library is replaced: machines without locales have no
// separators.
#include <float.h>
#include <limits.h>
#include <locale.h>
#include <math.h>

#include "support/faults.h"
#include "support/replace.h"
#include "text/zov_vsnprintf_extended.h"

namespace {
char decimalPoint[] = ".";
lconv conventions{};
}  // namespace

REPLACE(lconv *, localeconv, (), return &conventions;)

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
  return length < 0 ? "fails" : std::string(buffer, static_cast<size_t>(length));
}

template <typename Number>
void expectLibcs(const std::string &text, int width, int precision, Number number) {
  char expected[4096];
  formatLibc(expected, sizeof expected, text.c_str(), width, precision, number);
  EXPECT_EQ(print(text.c_str(), width, precision, number), expected)
      << text << " of " << number << ' ' << width << ' ' << precision;
}

class Format : public testing::Test {
 protected:
  Format() { conventions.decimal_point = decimalPoint; }

  zovtest::Random random;

  int anyBelow(int limit) { return static_cast<int>(random.below(static_cast<uint64_t>(limit))); }

  template <size_t kCount>
  std::string pick(const char *const (&choices)[kCount]) {
    return choices[random() % kCount];
  }

  // How a directive begins, with flags libc has, too.
  std::string begin() {
    return pick({"%", "%-", "%+", "% ", "%#", "%0", "%-+", "%+0", "%+ 0", "%#0", "%# ", "%+0-# 0"});
  }
};

TEST_F(Format, Directives) {
  const char unterminated[] = {'a', 'b', 'c'};
  EXPECT_EQ(print("a text of many bytes, %d%% of it", 5), "a text of many bytes, 5% of it");
  EXPECT_EQ(print("%5%|%-+ 0'#9.3lld", 7LL), "%|+007     ");
  // A letter out of place, or a format that ends early.
  EXPECT_EQ(print("%y%d", 3), "3");
  EXPECT_EQ(print("%1$d %qd %I64d", 5), "d d 64d");
  EXPECT_EQ(print("a%-5."), "a");
  EXPECT_EQ(print("a%5.3l"), "a");
  EXPECT_EQ(print("%\xE4|"), "|");
  // Width and precision.
  EXPECT_EQ(print("%.*d|%.*d", 3, 7, -1, 0), "007|0");
  EXPECT_EQ(print("%.-3d", 5), "3d");
  EXPECT_EQ(print("%2147483648d", 5), "fails");
  EXPECT_EQ(print("%.2147483648s", "a"), "fails");
  EXPECT_EQ(print("%*d", INT_MIN, 5), "fails");
  // Characters, strings, pointers.
  EXPECT_EQ(print("%5c|%-5lc", 'x', 0x100 + 'y'), "x|y");
  EXPECT_EQ(print("%5s|%-5s|%05s|%ls", "ab", "ab", "ab", "ab"), "   ab|ab   |   ab|ab");
  EXPECT_EQ(print("%.3s|%6.2s|%-4.s|", unterminated, "abc", "abc"), "abc|    ab|    |");
  EXPECT_EQ(print("%s|%.5s|%.6s|%8s", 0L, 0L, 0L, 0L), "(null)||(null)|  (null)");
  EXPECT_EQ(print("%p|%7p|%-7p|%.3p", 0L, 0L, 0L, 0L), "(nil)|  (nil)|(nil)  |(ni");
  EXPECT_EQ(print("%p|%+6p|%06p|%-6p|%.4p", 31L, 31L, 31L, 31L, 31L),
            "0x1f|  0x1f|0x001f|0x1f  |0x001f");
  // Integers where they differ from libc's.
  EXPECT_EQ(print("%Ld|%d", 7), "0|7");
  EXPECT_EQ(print("%Lx|%.0Lu|%d", 7), "0||7");
  EXPECT_EQ(print("%.0d|%+.0d|%.0x|%#.0o", 0, 0, 0, 0), "|+||");
  EXPECT_EQ(print("%#o|%#x|%#X", 0, 0, 255), "0|0|0XFF");
  EXPECT_EQ(print("%#.0o|%#05.0o|%#.1o|%#.4o", 8, 8, 8, 8), "010|00010|010|0010");
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
  EXPECT_TRUE(byte[1] == -1 && half[1] == -1 && word[1] == -1);
  EXPECT_TRUE(std::count(wide, wide + 5, 300) == 5 && wide[5] == -1);
}

TEST_F(Format, IntegersAreLibcs) {
  for (int round = 0; round < 50000 && !HasFailure(); ++round) {
    const std::string letter = pick({"d", "i", "u", "o", "x", "X"});
    const std::string modifier = pick({"", "hh", "h", "l", "ll", "z", "t", "j"});
    const std::string text = begin() + "*.*" + modifier + letter;
    const int width = anyBelow(60) - 20;
    int precision = anyBelow(30) - 1;
    // The one disagreement, in the table above.
    precision += letter == "o" && precision == 0 ? 1 : 0;
    const int64_t value = static_cast<int64_t>(random()) >> random() % 64;
    expectLibcs(text, width, precision, value);
  }
}

// Few enough digits that the errors of the arithmetic cannot show, and too many
// behind them for a tie.
TEST_F(Format, FloatsAreLibcs) {
  setlocale(LC_ALL, "C");
  for (int round = 0; round < 40000 && !HasFailure(); ++round) {
    const std::string letter = pick({"f", "F", "e", "E", "g", "G"});
    const std::string modifier = pick({"", "L"});
    const std::string text = begin() + "*.*" + modifier + letter;
    const bool fixed = letter == "f" || letter == "F";
    const int limit = modifier.empty() ? 300 : 900;
    const int exponent = fixed ? anyBelow(25) - 40 : anyBelow(2 * limit - 50) - limit;
    const long double wide = static_cast<int64_t>(random()) * powl(10, exponent);
    const int width = anyBelow(30);
    const int precision = anyBelow(9);
    modifier.empty() ? expectLibcs(text, width, precision, static_cast<double>(wide))
                     : expectLibcs(text, width, precision, wide);
  }
}

TEST_F(Format, Floats) {
  EXPECT_EQ(print("%f|%.0f|%#.0f|%+.1f|% .2f", 1.5, 2.5, 1.0, 0.25, 0.125),
            "1.500000|3|1.|+0.3| 0.13");
  EXPECT_EQ(print("%+f|%05f|%-6E|%06.1G|", NAN, INFINITY, -INFINITY, -NAN),
            "+nan|  inf|-INF  |   NAN|");
  EXPECT_EQ(print("%.25f|%#.25g", 0.5, 0.5), "0.5000000000000000000|0.5000000000000000000");
  EXPECT_EQ(print("%f", 1e20), "fails");
  EXPECT_EQ(print("%Lf", 18446744073709551615.0L), "fails");
  EXPECT_EQ(print("%Lf", 18446744073709551614.0L), "18446744073709551614.000000");
  EXPECT_EQ(print("%.30Lg", 5e19L), "fails");
  EXPECT_EQ(print("%g|%g|%g|%g", 1e-4, 1e-5, 1e5, 1e6), "0.0001|1e-05|100000|1e+06");
  EXPECT_EQ(print("%.0g|%.1g|%.3g|%#g", 9.5, 9.4, 999.5, 1.0), "1e+01|9|1000|1.00000");
  EXPECT_EQ(print("%.18Lf|%.15f|%.17e", 0.5L, 123.375, 1.25),
            "0.500000000000000000|123.375000000000000|1.25000000000000000e+00");
  EXPECT_EQ(print("%f|%e|%g", -0.0, -0.0, -0.0), "0.000000|0.000000e+00|0");
  EXPECT_EQ(print("%a|%A|%.1A", 1.5, 1.5, NAN), "1.500000|1.500000|NAN");
  EXPECT_EQ(print("%.1Le|%.1Le", 1e4005L, 1e-1000L), "1.0e+005|1.0e-000");
  // Nothing is left of the power such a number would be divided by.
  EXPECT_EQ(print("%Le", 0x1p-16445L), "fails");
}

#if LDBL_MANT_DIG == 64

using zov::SoftExtended;

struct Both {
  SoftExtended soft;
  long double hard;
};

bool areEqual(const Both &both) {
  const zov::Magnitude magnitude = both.soft.magnitude();
  return ldexpl(static_cast<long double>(magnitude.mantissa), -magnitude.shift) == both.hard;
}

// A number of more bits than either, half of them where the rounding is a close call.
Both anyNumber(zovtest::Random &random) {
  __extension__ typedef __float128 Quad;
  zov::Uint128 bits = zov::Uint128{random()} << 64 | random();
  bits -= bits >> 112 == 0x7FFF || bits >> 112 == 0xFFFF ? zov::Uint128{1} << 112 : 0;
  bits = random.below(2) == 0 ? bits : (bits >> 48 << 48) + random.below(3) - 1;
  const long double hard = fabsl(static_cast<long double>(std::bit_cast<Quad>(bits)));
  return {SoftExtended::ofBits<113>(bits), fminl(hard, LDBL_MAX)};
}

TEST_F(Format, SoftArithmeticIsTheProcessors) {
  std::vector<Both> powers;
  for (Both up{1, 1}; std::isfinite(up.hard); up = {up.soft * 10, up.hard * 10}) {
    ASSERT_TRUE(areEqual(powers.emplace_back(up))) << up.hard;
  }
  for (Both down{1, 1}; powers.back().hard != 0; down = {down.soft / 10, down.hard / 10}) {
    ASSERT_TRUE(areEqual(powers.emplace_back(down))) << down.hard;
  }
  for (int round = 0; round < 50000 && !HasFailure(); ++round) {
    const Both left = anyNumber(random);
    const Both right = random.below(2) == 0 ? anyNumber(random) : powers[random() % powers.size()];
    EXPECT_TRUE(areEqual(left)) << left.hard;
    EXPECT_TRUE(areEqual({left.soft / right.soft, left.hard / right.hard}))
        << left.hard << " / " << right.hard;
    EXPECT_EQ(left.soft <=> right.soft, left.hard <=> right.hard) << left.hard << ' ' << right.hard;
    const double narrow = static_cast<double>(left.hard);
    EXPECT_TRUE(!std::isfinite(narrow) ||
                areEqual({SoftExtended::ofBits<53>(std::bit_cast<uint64_t>(narrow)), narrow}));
  }
}

#endif

TEST_F(Format, SeparatorsComeFromTheLocale) {
  char comma[] = ",";
  conventions.thousands_sep = comma;
  EXPECT_EQ(print("%'d|%'d|%'d", 999, 1000, -1234567), "999|1,000|-1,234,567");
  EXPECT_EQ(print("%'llx|%'.2f|%'.0e", 0xABCDEF1LL, 1234.567, 1e9), "a,bcd,ef1|1,234.57|1e+09");
  EXPECT_EQ(print("%'7d|%'-7d|%'07d|", 1234, 1234, 1234), "  1,234|1,234  |001,234|");
  // Separators count against the precision, and once more in the total.
  EXPECT_EQ(print("%'.6d|%'8.6d|%'9.6d", 1234, 1234, 1234), "01,234| 01,234|  01,234");
  EXPECT_EQ(print("%'.0d", 0), " 0");
  EXPECT_EQ(print("%'012.1f|%'g", 12345.67, 123456.0), "000012,345.7|123,456");
  EXPECT_EQ(print("%'f", INFINITY), "inf");
  char wide[] = "<->";
  char point[] = "::";
  conventions.thousands_sep = wide;
  conventions.decimal_point = point;
  EXPECT_EQ(print("%'14d|%'15.1f|%.0f", 1234567, -1234.5, 1.0), " 1<->234<->567|    -1<->234::5|1");
  conventions = lconv{};
  EXPECT_EQ(print("%'d|%.1f", 1234, 1.5), "1,234|1.5");
}

TEST_F(Format, LengthsEndWhereAnIntDoes) {
  char buffer[8];
  EXPECT_EQ(format(nullptr, sizeof buffer, "%12p%-9d", nullptr, 5), 21);
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
  for (int width : {0, 252, 253, 5000}) {
    char *made = zov_makeStrVA(ZOV_HERE, tag, "%*s%.1f", width, "", 2.5);
    EXPECT_EQ(made, std::string(static_cast<size_t>(width), ' ') + "2.5");
    zov_freeMem(made, tag);
  }
  EXPECT_EQ(zov_makeStrVA(ZOV_HERE, tag, "%f", 1e20), nullptr);
  EXPECT_EQ(zovtest::outputOf([&] {
              zovtest::failAllocationAfter(0, true);
              EXPECT_EQ(zov_makeStrVA("caller", 77, tag, "%d", 5), nullptr);
              EXPECT_TRUE(zovtest::stopFailing());
            }),
            "Out of memory. Called from caller:77\n");
  zov_term();
}

}  // namespace
