// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 and wide strings: the edges of the grammar and of the buffers, code
// points, random text against a model, and the forms that allocate.
#include "support/test.h"
#include "support/utf8_model.h"

namespace {

constexpr uint32_t kModes[] = {ZOV_UTF8_STRICT, ZOV_UTF8_REPLACE, 2, UINT32_MAX};

// Every word of up to three of the bytes at the edges of the grammar, and of four behind
// a lead byte of four, at the end of a text, and among other text, where the code that
// converts many bytes at once meets it.
TEST(Utf8, DecodesTheEdgesOfTheGrammar) {
  const std::string edges("\0z\x7F\x80\x8F\x90\x9F\xA0\xBD\xBF\xC1\xC2\xDF\xE0\xED\xEF\xF0\xF4\xF5",
                          19);
  const std::string before[] = {"", "\xD0\xB0", "ab\xE2\x82\xAC", "abcdefghijklm"};
  std::vector<std::string> words = {""};
  for (size_t at = 0; at < words.size(); ++at) {
    const std::string word = words[at];
    const size_t most = static_cast<uint8_t>(word[0]) >= 0xF0 ? 4 : 3;
    for (size_t edge = 0; word.size() < most && edge < edges.size(); ++edge) {
      words.push_back(word + edges[edge]);
    }
    const std::string text = before[at % 4] + word;
    ASSERT_TRUE(zovtest::decodingAgrees(text, 200, at & 1)) << testing::PrintToString(text);
    ASSERT_TRUE(zovtest::decodingAgrees(text + std::string(40, 'x'), 200, ZOV_UTF8_REPLACE))
        << testing::PrintToString(text);
  }
}

// Every code point of the first plane and around the last, and some of those
// between, which are all alike.
TEST(Utf8, CodePoints) {
  const auto isEdge = [](uint32_t value) { return value < 0x10800 || value > 0x10F000; };
  for (uint32_t value = 0; value < 0x110800; value += isEdge(value) ? 1 : 0x1011) {
    char out[4];
    uint32_t length = 9;
    zov_utf8_codes(value, out, &length);
    const std::string bytes(out, length);
    ASSERT_EQ(bytes, value > 0x10FFFF ? "" : zovtest::encoded(value)) << value;
    const std::wstring chars(20, static_cast<wchar_t>(value));
    ASSERT_TRUE(zovtest::encodingAgrees(chars, 200, ZOV_UTF8_REPLACE)) << value;
    ASSERT_TRUE(zovtest::decodingAgrees(bytes, 200, ZOV_UTF8_REPLACE)) << value;
  }
  zov_utf8_codes('a', nullptr, nullptr);
  const std::string across = std::string(16383, 'x') + "\xC3\xA9";  // two of the decoder's pieces
  EXPECT_TRUE(zovtest::decodingAgrees(across, 20000, ZOV_UTF8_STRICT));
}

// Text of runs long enough for the fast paths, and now and then for more than
// one piece, broken up here and there, at every length and against every room. Half
// of the long ones have no zero in them.
TEST(Utf8, RandomTextAgreesWithAModel) {
  zovtest::Random random;
  const uint32_t limits[] = {0x80, 0x800, 0x10000, 0x110000, 0x800, UINT32_MAX};
  for (int round = 0; round < 10000; ++round) {
    std::wstring chars;
    std::string bytes;
    for (uint32_t runs = random.below(5); runs > 0; --runs) {
      const uint32_t limit = limits[random.below(6)];
      for (uint32_t count = random.below(round % 256 == 0 ? 9000 : 50); count > 0; --count) {
        const uint32_t value = random.below(limit) + (round % 512 == 0 ? 1 : 0);
        chars += static_cast<wchar_t>(value);
        bytes += value > 0x10FFFF ? "\xFF" : zovtest::encoded(value);
      }
    }
    for (uint32_t breaks = random.below(3); breaks > 0 && !bytes.empty(); --breaks) {
      bytes[random.below(bytes.size())] = static_cast<char>(random.below(256));
    }
    bytes.resize(bytes.size() - std::min<size_t>(bytes.size(), random.below(4)));
    const uint32_t mode = kModes[random.below(4)];
    const uint32_t size = random.below(bytes.size() + 8);
    ASSERT_TRUE(zovtest::decodingAgrees(bytes, size, mode)) << testing::PrintToString(bytes);
    ASSERT_TRUE(zovtest::encodingAgrees(chars, size, mode)) << testing::PrintToString(chars);
  }
}

using Utf8Allocated = zovtest::Started;

TEST_F(Utf8Allocated, ConvertsIntoMemoryOfItsOwn) {
  EXPECT_STREQ(zov_convertToWchar("\xC1\xBF \xED\xA0\x80 \xC3z \xF0\x90\x80", ZOV_UTF8_REPLACE),
               L"?? ??? ?? ???");
  wchar_t surrogate[] = {0xDFFF, 0};
  EXPECT_EQ(zov_convertToUTF8(surrogate, ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToWchar("\xFF", ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToUTF8(nullptr, ZOV_UTF8_STRICT), nullptr);
  EXPECT_EQ(zov_convertToWchar(nullptr, ZOV_UTF8_STRICT), nullptr);
  // A list is converted whole or not at all.
  wchar_t first[] = L"\xE9";
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
