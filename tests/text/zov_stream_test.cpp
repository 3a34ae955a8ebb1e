// SPDX-License-Identifier: Apache-2.0
//
// Text streams: marks, modes and codecs by table, random walks beside models,
// and what fails: writes and allocations.
#include "support/faults.h"
#include "support/route_file.h"
#include "text/zov_stream_walk.h"

using std::string;
using zovtest::Call;
using zovtest::Fault;
using namespace std::string_literals;

namespace {

class Stream : public zovtest::Started {
 protected:
  ZOV_STREAM open(const char *mode, int32_t encoding) const {
    return zov_fopen(file.path.c_str(), mode, encoding);
  }
  zovtest::ScratchFile file;
};

TEST_F(Stream, TakesTheEncodingFromTheMark) {
  string units = "\xFF\xFE";  // two blocks
  while (units.size() < 2000) {
    units += "u\0"s;
  }
  const std::tuple<int, string, int32_t, string> rows[] = {
      {__LINE__, units, 0, string(999, 'u')}, {__LINE__, "\xEF\xBB\xBFx\0yz"s, 0, "x\0yz"s},
      {__LINE__, "\xEF\xBB", 0, "\xEF\xBB"},  {__LINE__, "\xEF\xFFx\0"s, 1, "x"},
      {__LINE__, "\xFE\xFFx\0"s, 1, "x"},     {__LINE__, "\xFE\xFE", 2, "\xFE\xFE"},
      {__LINE__, "\xEF", 1, "\xEF"},
  };
  for (const auto &[line, bytes, encoding, expected] : rows) {
    SCOPED_TRACE(line);
    ASSERT_TRUE(zovtest::putFile(file.path, bytes, 0));
    const ZOV_STREAM stream = open("r", encoding);
    ASSERT_NE(stream, nullptr);
    if (encoding != 1) {
      zov_fgetc(stream);
      EXPECT_EQ(zov_fseek(stream, 0, 0), ZOV_OKAY);
    }
    string text;
    for (int32_t byte; (byte = zov_fgetc(stream)) >= 0;) {
      text += static_cast<char>(byte);
    }
    EXPECT_EQ(text, expected);
    zov_fclose(stream);
  }
}

TEST_F(Stream, AnUndecidedEncodingYieldsZerosButNoLines) {
  ASSERT_TRUE(zovtest::putFile(file.path, "\xEF", 0));
  const ZOV_STREAM stream = open("r", 0);
  char *buffer = nullptr;
  uint32_t sizeBytes = 7;
  EXPECT_EQ(zov_fgetc(stream), 0);
  EXPECT_EQ(zov_fGetLine(stream, &buffer, &sizeBytes), nullptr);
  EXPECT_EQ(sizeBytes, 100u);
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  char text[2] = "x";
  EXPECT_EQ(zov_fgets(text, 1, stream), text);
  EXPECT_EQ(text[0], '\0');
  EXPECT_TRUE(zov_fgets(nullptr, 9, stream) == nullptr && zov_fgets(text, 0, stream) == nullptr);
  EXPECT_TRUE(zov_fGetLine(nullptr, &buffer, &sizeBytes) == nullptr &&
              zov_fGetLine(stream, nullptr, &sizeBytes) == nullptr &&
              zov_fGetLine(stream, &buffer, nullptr) == nullptr);
  EXPECT_EQ(zov_fseek(stream, 0, -1), ZOV_ERROR);
  zov_fclose(stream);
}

// Writes one N to a file that holds "old", on disk and in memory: the mode, the
// encoding, the result or -1 where the file does not open, and what it holds then.
TEST_F(Stream, ModesDecideWhatAWriteDoes) {
  const std::tuple<int, const char *, int32_t, int32_t, string> rows[] = {
      {__LINE__, "r", 1, 0, "old"},   {__LINE__, nullptr, 1, 0, "old"},
      {__LINE__, "w", 0, 1, "N"},     {__LINE__, "w", 2, 0, "\xFF\xFEN\0"s},
      {__LINE__, "a", 0, 1, "oldN"},  {__LINE__, "a", 2, 0, "old\xFF\xFEN\0"s},
      {__LINE__, "w+", 1, 1, "N"},    {__LINE__, "a+", 1, 1, "oldN"},
      {__LINE__, "r+", 1, 1, "oldN"}, {__LINE__, "wr", 1, 0, "old"},
      {__LINE__, "w", 3, 0, ""},      {__LINE__, "rrwb", 1, 1, "N"},
      {__LINE__, "rb", 1, -1, "old"}, {__LINE__, "wt", 1, -1, "old"},
  };
  for (const uint32_t route : {0u, ZOV_FILE_MEMORY}) {
    const string path = route == 0 ? file.path : "/modes";
    for (const auto &[line, mode, encoding, result, after] : rows) {
      SCOPED_TRACE(line);
      ASSERT_TRUE(zovtest::putFile(path, "old", route));
      const int lowest = dup(STDIN_FILENO);
      close(lowest);
      errno = 0;
      const ZOV_STREAM stream = zov_fopenEx(path.c_str(), mode, encoding, route);
      ASSERT_EQ(stream == nullptr, result < 0);
      if (stream != nullptr) {
        EXPECT_EQ(fcntl(lowest, F_GETFD), route == 0 ? FD_CLOEXEC : -1);
        EXPECT_EQ(zov_fputc('N' + 0x100, stream), result);
        EXPECT_EQ(zov_fseek(stream, 0, 3), ZOV_ERROR);
        zov_fclose(stream);
      } else {
        EXPECT_EQ(errno, EINVAL);
      }
      EXPECT_EQ(zovtest::getFile(path, route), after);
    }
    const ZOV_STREAM streams[] = {zov_fopenEx(path.c_str(), "a", 1, route),
                                  zov_fopenEx(path.c_str(), "a", 1, route)};
    for (const char *text : {"1", "2", "3"}) {
      zov_fputs(text, streams[*text % 2]);
      zov_fflush(streams[*text % 2]);
    }
    zov_fclose(streams[0]);
    zov_fclose(streams[1]);
    EXPECT_EQ(zovtest::getFile(path, route), "old123");
  }
  for (const char *name : {static_cast<const char *>(nullptr), "stdout"}) {
    errno = 0;
    EXPECT_EQ(zov_fopen(name, "r", 1), nullptr);
    EXPECT_EQ(errno, EINVAL) << "no name, or not started";
    zov_term();
  }
  EXPECT_EQ(zov_init() + zov_init(), ZOV_OKAY);
}

// The text holds bytes that cannot begin, or go on, a character.
TEST_F(Stream, Utf16OutputGathersCharacters) {
  const ZOV_STREAM stream = open("w", ZOV_ENC_UTF16);
  string results;
  for (const char byte :
       "A\xC3\xA9\x80\xC1\xF5\xFF\xF0\x9F\x98\x80\xED\xA0\x80\xE2"
       "A\x82"s) {
    results += static_cast<char>('0' + zov_fputc(byte, stream));
  }
  EXPECT_EQ(results, "01000001110110101");
  EXPECT_EQ(zov_fflush(stream), -1);
  EXPECT_EQ(zov_fputs("\xAC-", stream), -1) << "ends with the first unit";
  EXPECT_EQ(zov_fprintf(stream, "%s", "\xC3\xA9-"), -1);
  EXPECT_EQ(zov_fflush(stream), 0);
  zov_fclose(stream);
  EXPECT_EQ(zovtest::getFile(file.path, 0),
            "\xFF\xFE"
            "A\0\xE9\0\x3D\xD8\0\xDE\0\xD8\xAC\x20\xE9\0"s);
}

// A character that finds no room leaves no byte, and errno tells of it.
TEST_F(Stream, Utf16CharactersAreWrittenWhole) {
  const ZOV_STREAM stream = open("w", ZOV_ENC_UTF16);
  for (int unit = 1; unit < 511; ++unit) {
    zov_fputc('u', stream);  // room for one more is left behind these and the mark
  }
  errno = 0;
  zovtest::errorsOf([&] {
    const Fault full(Call::write, 1, ENOSPC, true);
    zov_fputs("\xF0\x9F\x98\x80", stream);
  });
  EXPECT_EQ(errno, ENOSPC);
  zov_fclose(stream);
  EXPECT_EQ(zovtest::getFile(file.path, 0).size(), 1022u);
}

// In most rounds a disk is full at times and takes a little at a time, or
// memory is short at times.
TEST_F(Stream, AgreesWithTheModel) {
  constexpr uint32_t kNever = UINT32_MAX;
  zovtest::Random random;
  for (int round = 0; round < zovtest::rounds(800); ++round) {
    const uint32_t route = round % 2 == 0 ? 0 : ZOV_FILE_MEMORY;
    const auto around = [&](const std::function<void()> &call) {
      const Fault pieces(Call::write, random.below(2) == 0 ? kNever : 1,
                         zovtest::Limit{1 + random.below(random.below(2) == 0 ? 20 : 1500)}, true);
      const Fault failure(route == 0 ? Call::write : Call::allocation,
                          random.below(4) == 0 ? 1 + random.below(3) : kNever,
                          route == 0 ? ENOSPC : ENOMEM, true);
      call();
    };
    const bool fails = round % 8 > 1;
    const std::vector<uint8_t> bytes = random.bytes(random() % (fails ? 1000 : 10000));
    const char *failed = nullptr;
    zovtest::errorsOf([&] {
      failed = zovtest::StreamWalk(bytes.data(), bytes.size(), route,
                                   fails ? around : zovtest::StreamWalk::Around())
                   .run();
    });
    ASSERT_STREQ(failed, nullptr) << "round " << round;
  }
}

// The end of the input is asked for once in the search for a mark.
TEST_F(Stream, StandardStreams) {
  int ends[2];
  const std::pair<string, uint32_t> rows[] = {
      {"", 1}, {"x", 1}, {"\xEF", 2}, {"\xEF\xBB", 2}, {"\xFF\xFE", 1}};
  for (const auto &[bytes, reads] : rows) {
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[0], 0), 0);
    ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
    close(ends[0]);
    close(ends[1]);
    const Fault asked(Call::read);
    zov_fclose(zov_fopen("stdin", "r", 0));
    EXPECT_EQ(asked.uses(), reads) << bytes;
  }
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(dup2(ends[0], 0), 0);
  const ZOV_STREAM input = zov_fopen_std("stdin");
  for (const char *part : {"a", "b"}) {
    ASSERT_EQ(write(ends[1], part, 1), 1);
    EXPECT_EQ(zov_fgetc(input), part[0]) << "reads what is there";
  }
  zov_fclose(input);
  close(ends[0]);
  close(ends[1]);
  const Fault asked(Call::read);
  EXPECT_EQ(zovtest::outputOf([] {
              const ZOV_STREAM output = zov_fopen_std("stdout");
              EXPECT_EQ(zov_fprintf(output, "%c%2000d", 0, 42), 2001);
              zov_fclose(output);
            }),
            "\0"s + string(1998, ' ') + "42");
  EXPECT_EQ(asked.uses(), 0u) << "a terminal would wait for input";
}

// A line that a jump ends goes on with the next call.
TEST_F(Stream, AJumpOutOfALineLosesNothing) {
  const string text = string(350, 'l') + "\n";
  ASSERT_TRUE(zovtest::putFile(file.path, text, 0));
  bool jumped = true;
  for (uint32_t passing = 0; jumped; ++passing) {
    char *buffer = nullptr;
    uint32_t sizeBytes = 0;
    const ZOV_STREAM stream = open("r", ZOV_ENC_BYTES);
    const auto getLine = [&] { zov_fGetLine(stream, &buffer, &sizeBytes); };
    jumped = zovtest::jumpOf(ZOV_DEFAULT_TAG, getLine, passing) != 0;
    string line = buffer == nullptr ? "" : buffer;
    line += jumped ? zov_fGetLine(stream, &buffer, &sizeBytes) : "";
    EXPECT_EQ(line, text);
    zov_freeMem(buffer, ZOV_DEFAULT_TAG);
    zov_fclose(stream);
    EXPECT_TRUE(jumped || passing > 1);
  }
}

}  // namespace
