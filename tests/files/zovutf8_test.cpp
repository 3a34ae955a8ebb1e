// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 and wide strings: the edges of the grammar and of the buffers, code
// points, random text against a model, and the forms that allocate.
#include "support/test.h"
#include "support/utf8_model.h"

namespace {

constexpr uint32_t kModes[] = {ZOV_UTF8_STRICT, ZOV_UTF8_REPLACE, 2, UINT32_MAX};

TEST(Utf8, DecodesTheEdgesOfTheGrammar) {
  const struct {
    std::string bytes;
    std::wstring replaced;
  } rows[] = {
      {"", L""},
      {"\x7F\xC2\x80\xDF\xBF", L"\x7F\x80\x7FF"},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", L"\x800\xD7FF\xE000\xFFFD"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\x10000\x10FFFF"},
      {"\xEF\xB7\x90\xF0\x9F\xBF\xBE", L"\xFDD0\x1FFFE"},
      {"\xC0\x80\xC1\xBF", L"????"},
      {"\xE0\x80\x80", L"???"},
      {"\xE0\x9F\xBF", L"???"},
      {"\xED\xA0\x80", L"???"},
      {"\xEF\xBF\xBE\xEF\xBF\xBF", L"??????"},
      {"\xF0\x8F\xBF\xBF", L"????"},
      {"\xF4\x90\x80\x80", L"????"},
      {"\xF5\x80", L"??"},
      {"\xC3\x41", L"??"},
      {"\xE2\x82\xC3\xA9", L"????"},
      {std::string("\xC3\0z", 3), L"??z"},
      {"\xE2\x82", L"??"},
      {"a\xF0\x90\x80", L"a???"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    wchar_t out[16];
    const uint32_t length = static_cast<uint32_t>(row.bytes.size());
    EXPECT_EQ(zov_utf8_to_wchar_len(out, 16, row.bytes.data(), length, ZOV_UTF8_REPLACE),
              row.replaced.size() + 1);
    EXPECT_EQ(out, row.replaced);
    EXPECT_EQ(
        zov_utf8_to_wchar_len(out, 16, row.bytes.data(), length, ZOV_UTF8_STRICT),
        row.replaced.find(L'?') == std::wstring::npos ? row.replaced.size() + 1 : ZOV_UTF8_FAILED);
    // Among other text it is met by the code that converts many bytes at once.
    for (const char *before : {"", "\xD0\xB0", "ab\xE2\x82\xAC", "abcdefghijklm"}) {
      const std::string text = before + row.bytes + std::string(100, 'x');
      EXPECT_TRUE(zovtest::decodingAgrees(text, 200, ZOV_UTF8_STRICT));
      EXPECT_TRUE(zovtest::decodingAgrees(text, 200, ZOV_UTF8_REPLACE));
    }
  }
}

// Every code point of the first plane and around the last, and some of those
// between, which are all alike.
TEST(Utf8, CodePoints) {
  const auto isEdge = [](uint32_t value) { return value < 0x10800 || value > 0x10F000; };
  std::wstring chars;
  std::string bytes;
  std::string expected;
  for (uint32_t value = 0; value < 0x110800; value += isEdge(value) ? 1 : 0x101) {
    char out[4];
    uint32_t length = 9;
    zov_utf8_codes(value, out, &length);
    bytes.append(out, length);
    expected += value > 0x10FFFF ? "" : zovtest::encoded(value);
    chars += static_cast<wchar_t>(value);
    if (chars.size() == 0x50) {
      ASSERT_EQ(bytes, expected) << value;
      ASSERT_TRUE(zovtest::encodingAgrees(chars, 200, ZOV_UTF8_REPLACE)) << value;
      ASSERT_TRUE(zovtest::decodingAgrees(bytes, 200, ZOV_UTF8_REPLACE)) << value;
      chars.clear();
      bytes.clear();
      expected.clear();
    }
  }
  zov_utf8_codes('a', nullptr, nullptr);
}

// Text of runs long enough for the fast paths, and now and then for more than
// one piece, broken up here and there, at every length and against every room. Half
// of the long ones have no zero in them.
TEST(Utf8, RandomTextAgreesWithAModel) {
  zovtest::Random random;
  const auto below = [&](uint32_t limit) { return random.below(limit); };
  const uint32_t limits[] = {0x80, 0x800, 0x10000, 0x110000, 0x800, UINT32_MAX};
  for (int round = 0; round < 10000; ++round) {
    std::wstring chars;
    std::string bytes;
    for (uint32_t runs = below(5); runs > 0; --runs) {
      const uint32_t limit = limits[below(6)];
      for (uint32_t count = below(round % 256 == 0 ? 9000 : 50); count > 0; --count) {
        const uint32_t value = below(limit) + (round % 512 == 0 ? 1 : 0);
        chars += static_cast<wchar_t>(value);
        bytes += value > 0x10FFFF ? "\xFF" : zovtest::encoded(value);
      }
    }
    for (uint32_t breaks = below(3); breaks > 0 && !bytes.empty(); --breaks) {
      bytes[below(static_cast<uint32_t>(bytes.size()))] = static_cast<char>(below(256));
    }
    bytes.resize(bytes.size() - std::min<size_t>(bytes.size(), below(4)));
    const uint32_t mode = kModes[below(4)];
    const uint32_t size = below(static_cast<uint32_t>(bytes.size()) + 8);
    ASSERT_TRUE(zovtest::decodingAgrees(bytes, size, mode)) << testing::PrintToString(bytes);
    ASSERT_TRUE(zovtest::encodingAgrees(chars, size, mode)) << testing::PrintToString(chars);
  }
}

using Utf8Allocated = zovtest::Started;

TEST_F(Utf8Allocated, ConvertsIntoMemoryOfItsOwn) {
  EXPECT_STREQ(zov_convertToUTF8(L"\x20AC uro", ZOV_UTF8_STRICT), "\xE2\x82\xAC uro");
  EXPECT_STREQ(zov_convertToWchar("\xE2\x82\xAC\xFF", ZOV_UTF8_REPLACE), L"\x20AC?");
  const wchar_t surrogate[] = {0xD800, 0};
  EXPECT_EQ(zov_convertToUTF8(surrogate, ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToWchar("\xFF", ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToUTF8(nullptr, ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToWchar(nullptr, ZOV_UTF8_STRICT), nullptr);
}

TEST_F(Utf8Allocated, ArgumentListsConvertWholeOrNotAtAll) {
  wchar_t first[] = L"\xE9";
  wchar_t surrogate[] = {0xDFFF, 0};
  wchar_t *arguments[] = {first, nullptr, first, surrogate};
  char *other = nullptr;
  char **strings = &other;
  EXPECT_EQ(zov_convertArgvToUTF8(4, arguments, &strings), ZOV_ERROR);
  EXPECT_EQ(strings, nullptr);
  EXPECT_EQ(zov_convertArgvToUTF8(-1, arguments, &strings), ZOV_ERROR);
  ASSERT_EQ(zov_convertArgvToUTF8(3, arguments, &strings), ZOV_OKAY);
  EXPECT_STREQ(strings[0], "\xC3\xA9");
  EXPECT_EQ(strings[1], nullptr);
  EXPECT_STREQ(strings[2], "\xC3\xA9");
  ASSERT_EQ(zov_convertArgvToUTF8(0, nullptr, &strings), ZOV_OKAY);
  EXPECT_NE(strings, nullptr);
}

}  // namespace
