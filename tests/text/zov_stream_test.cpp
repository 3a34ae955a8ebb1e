// SPDX-License-Identifier: Apache-2.0
//
// Text streams: marks, modes and codecs by table, a random walk beside a
// model, and what fails: writes, allocations, opening.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include "support/faults.h"
#include "text/zov_stream_private.h"
#include "text/zov_stream_walk.h"

using std::string;
using namespace std::string_literals;

namespace {

class Stream : public zovtest::Started {
 protected:
  ZOV_STREAM open(const char *mode, int32_t encoding) const {
    return zov_fopen(file.path.c_str(), mode, encoding);
  }
  zovtest::ScratchFile file;
};

string readAll(ZOV_STREAM stream) {
  string text;
  for (int32_t c = zov_fgetc(stream); c >= 0; c = zov_fgetc(stream)) {
    text += static_cast<char>(c);
  }
  return text;
}

TEST_F(Stream, TakesTheEncodingFromTheMark) {
  const struct {
    int line;
    string file;
    int32_t encoding;
    string text;
  } rows[] = {
      {__LINE__, "\xEF\xBB\xBFx\0yz"s, 0, "x\0yz"s},
      {__LINE__, "\xEF\xBB", 0, "\xEF\xBB"},
      {__LINE__, "\xEF\xFFx\0"s, 1, "x"},
      {__LINE__, "\xFF\xFE\x41\0\xE9\0"s, 1, "A\xC3\xA9"},
      {__LINE__, "\xFE\xFFx\0"s, 1, "x"},
      {__LINE__, "\xFE\xFE", 2, "\xFE\xFE"},
      {__LINE__, "\xEF", 1, "\xEF"},
      {__LINE__, "\xFF\xFEx\0y"s, 1, "x"},
      {__LINE__, "\xFF\xFE\0\xDCx\0"s, 1, ".x"},
      {__LINE__, "\xFF\xFE\xFF\xDB\x41\0x\0"s, 1, "\xF4\x8F\xB1\x81x"},
      {__LINE__, "\xFF\xFE\x3D\xD8x", 1, ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    ASSERT_TRUE(file.fill(row.file));
    const ZOV_STREAM stream = open("r", row.encoding);
    ASSERT_NE(stream, nullptr);
    if (row.encoding != 1) {
      zov_fgetc(stream);
      EXPECT_EQ(zov_fseek(stream, 0, 0), ZOV_OKAY);
    }
    EXPECT_EQ(readAll(stream), row.text);
    zov_fclose(stream);
  }
}

TEST_F(Stream, AnUndecidedEncodingYieldsZerosButNoLines) {
  ASSERT_TRUE(file.fill("\xEF"));
  const ZOV_STREAM stream = open("r", 0);
  char *buffer = nullptr;
  uint32_t sizeBytes = 7;
  EXPECT_EQ(zov_fgetc(stream), 0);
  EXPECT_EQ(zov_fGetLine(stream, &buffer, &sizeBytes), nullptr);
  EXPECT_EQ(sizeBytes, 100u);
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  for (int32_t value = 1; value <= 20; ++value) {
    EXPECT_EQ(zov_fungetc(value, stream), value);
  }
  EXPECT_EQ(zov_fungetc(21, stream), -1);
  char text[2] = "x";
  EXPECT_EQ(zov_fgets(text, 1, stream), text);
  EXPECT_EQ(text[0], '\0');
  EXPECT_EQ(zov_fgetc(stream), 20);
  zov_fclose(stream);
}

// Writes one N to a file that holds "old".
TEST_F(Stream, ModesDecideWhatAWriteDoes) {
  const struct {
    int line;
    const char *mode;
    int32_t encoding;
    bool opens;
    string file;
  } rows[] = {
      {__LINE__, "r", 1, true, "old"},   {__LINE__, nullptr, 1, true, "old"},
      {__LINE__, "w", 0, true, "N"},     {__LINE__, "w", 2, true, "\xFF\xFEN\0"s},
      {__LINE__, "a", 0, true, "oldN"},  {__LINE__, "a", 2, true, "old\xFF\xFEN\0"s},
      {__LINE__, "w+", 1, true, "N"},    {__LINE__, "a+", 1, true, "oldN"},
      {__LINE__, "r+", 1, true, "oldN"}, {__LINE__, "wr", 1, true, "old"},
      {__LINE__, "w", 3, true, ""},      {__LINE__, "rrwb", 1, true, "N"},
      {__LINE__, "rb", 1, false, "old"}, {__LINE__, "wt", 1, false, "old"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    ASSERT_TRUE(file.fill("old"));
    const ZOV_STREAM stream = open(row.mode, row.encoding);
    ASSERT_EQ(stream != nullptr, row.opens);
    if (stream != nullptr) {
      EXPECT_EQ(zov_fputc('N' + 0x100, stream), row.encoding < 2 ? 1 : 0);
      EXPECT_EQ(zov_fseek(stream, 0, 3), ZOV_ERROR);
      zov_fclose(stream);
    }
    EXPECT_EQ(file.contents(), row.file);
  }
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
  EXPECT_EQ(file.contents(),
            "\xFF\xFE"
            "A\0\xE9\0\x3D\xD8\0\xDE\0\xD8\xAC\x20\xE9\0"s);
}

TEST_F(Stream, AgreesWithTheModel) {
  zovtest::Random random;
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> bytes(random() % 10000);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    ASSERT_STREQ(zovtest::StreamWalk(bytes.data(), bytes.size()).run(), nullptr)
        << "round " << round;
  }
}

void limitFiles(rlim_t sizeBytes) {
  const rlimit limit = {sizeBytes, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

// Nothing that a disk takes before it is full is lost or written twice.
TEST_F(Stream, FailedWritesAreToldAndTriedAgain) {
  const string block = string(600, 'a') + string(424, 'b');
  signal(SIGXFSZ, SIG_IGN);
  const ZOV_STREAM stream = open("w", ZOV_ENC_BYTES);
  EXPECT_EQ(zov_fputs(block.c_str(), stream), 1024);
  limitFiles(600);
  EXPECT_EQ(zov_fputc('1', stream), 0) << "the disk takes 600 bytes";
  EXPECT_EQ(zov_fflush(stream), 0) << "and no more";
  EXPECT_EQ(zov_fprintf(stream, "%s", block.c_str()), -1);
  limitFiles(RLIM_INFINITY);
  EXPECT_EQ(zov_fputc('2', stream), 1);
  EXPECT_EQ(zov_fflush(stream), 0);
  EXPECT_EQ(file.contents(), block + block.substr(0, 600) + "2");
  zov_rdonly();
  EXPECT_EQ(zov_fputs(string(3000, 'x').c_str(), stream), 3000) << "dropped by the flag";
  zov_fclose(stream);
  EXPECT_EQ(file.contents().size(), 1625u);
}

// A handle stays its owner's until a stream is there.
TEST_F(Stream, OpensOnAHandle) {
  ASSERT_TRUE(file.fill("\xFF\xFEx\0"s));
  const ZOV_FILE handle = zov_fileOpen(file.path.c_str(), O_RDONLY, 0);
  EXPECT_EQ(zov::streamOpenOn(handle, "rb", 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  zovtest::failAllocationAfter(0);
  EXPECT_EQ(zov::streamOpenOn(handle, "r", 0), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(zovtest::stopFailing());
  const ZOV_STREAM stream = zov::streamOpenOn(handle, "r", 0);
  EXPECT_EQ(readAll(stream), "x");
  zov_fclose(stream);
}

TEST_F(Stream, StandardStreams) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(dup2(ends[0], 0), 0);
  const ZOV_STREAM input = zov_fopen_std("stdin");
  for (const char *part : {"a", "b"}) {
    ASSERT_EQ(write(ends[1], part, 1), 1);
    EXPECT_EQ(zov_fgetc(input), part[0]) << "reads what is there";
  }
  zov_fclose(input);
  EXPECT_EQ(zovtest::outputOf([] {
              const ZOV_STREAM output = zov_fopen("stdout", "w", ZOV_ENC_BYTES);
              EXPECT_EQ(zov_fprintf(output, "%c%4d", 0, 42), 5);
              zov_fclose(output);
            }),
            "\0  42"s);
}

// Null also when the call jumps out of it.
char *armedGetLine(ZOV_STREAM stream, char **buffer, uint32_t *sizeBytes) {
  jmp_buf recovery;
  char *volatile line = nullptr;
  if (setjmp(recovery) == 0) {
    zov_resetTag(&recovery, ZOV_DEFAULT_TAG);
    line = zov_fGetLine(stream, buffer, sizeBytes);
  }
  zov_resetTag(nullptr, ZOV_DEFAULT_TAG);
  return line;
}

// Fails every allocation in turn, by return and by jump: a line ends early and
// goes on with the next call.
TEST_F(Stream, RunningOutOfMemoryLosesNothing) {
  const string text = string(350, 'l') + "\n";
  ASSERT_TRUE(file.fill(text + "end"));
  for (const auto getLine : {zov_fGetLine, armedGetLine}) {
    const auto readLine = [&] {
      char *buffer = nullptr;
      uint32_t sizeBytes = 0;
      const ZOV_STREAM stream = open("r+", ZOV_ENC_BYTES);
      if (stream != nullptr) {
        getLine(stream, &buffer, &sizeBytes);
        string line = buffer == nullptr ? "" : buffer;
        line += line == text ? "" : zov_fGetLine(stream, &buffer, &sizeBytes);
        zov_fprintf(stream, "%d", 1);
        EXPECT_EQ(line, text);
        zov_freeMem(buffer, ZOV_DEFAULT_TAG);
        zov_fclose(stream);
      }
    };
    zovtest::failEachAllocation(readLine, [](bool) {});
  }
}

}  // namespace
