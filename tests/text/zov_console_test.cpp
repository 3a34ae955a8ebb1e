// SPDX-License-Identifier: Apache-2.0
//
// Console and log: redirections, records, chunks, what happens outside the
// library's life and when writing fails, and many threads at once.
#include <locale.h>

#include <regex>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace zovtest {

namespace {

// Whether a log is of these records, each of which "@" begins.
const char kStamp[] = R"(\[\d\d-[A-Z][a-z][a-z]-\d{4} \d\d:\d\d:\d\d\]  )";
bool isLog(const std::string &text, const std::string &records) {
  return std::regex_match(text, std::regex(std::regex_replace(records, std::regex("@"), kStamp)));
}

using Console = StartedInDir;

// A "<" closes what was opened last; null and "" are silent.
TEST_F(Console, RedirectionsPileUp) {
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  const char *const steps[] = {"first", "second", "FIRST", "", nullptr, "<", "<", "<", "<"};
  std::string taken;
  for (const char *step : steps) {
    if (step != nullptr && *step == '<') {
      zov_stdout_close();
    } else {
      EXPECT_EQ(zov_stdout_open(step), ZOV_OKAY);
    }
    taken += std::to_string(zov_printf("%zu", taken.size() + 1));
  }
  EXPECT_EQ(taken, "111000111");
  EXPECT_EQ(readFile("first"), "") << "still open, for the bottom redirection";
  zov_stdout_close();
  EXPECT_EQ(readFile("first"), "1379");
  EXPECT_EQ(readFile("second"), "28");
  EXPECT_FALSE(fileExists("FIRST"));
  EXPECT_EQ(zov_stdout_open("no/file"), ZOV_ERROR);
  EXPECT_EQ(outputOf([] { zov_printf("console"), zov_flush(); }), "console");
  zov_stdout_close();
  zov_stdout_close();
  zov_log_close();
  EXPECT_EQ(zov_printf("nowhere") + zov_log("nowhere"), 0) << "empty stacks are silent";
}

TEST_F(Console, ShutDownWritesWhatIsHeld) {
  for (int life = 0; life < 2; ++life) {
    ASSERT_EQ(zov_stdout_open(at("out").c_str()) | zov_stderr_open(at("err").c_str()), ZOV_OKAY);
    EXPECT_EQ(zov_stderr_open(at("inner").c_str()), ZOV_OKAY);
    EXPECT_EQ(zov_printf("held") + zov_printfErr("inner"), 9);
    zov_stderr_close();
    EXPECT_EQ(zov_printfErr("error"), 5);
    EXPECT_EQ(readFile(at("out")) + readFile(at("err")) + readFile(at("inner")), "inner");
    zov_term();
    EXPECT_EQ(readFile(at("out")) + readFile(at("err")), "helderror");
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    EXPECT_EQ(outputOf([] { zov_log("new"); }) + errorsOf([] { zov_log_err("new"); }), "newnew");
  }
}

// A program's own stack: names but for case, users, and the lock.
TEST_F(Console, StacksServePrograms) {
  ZOV_FILE_STACK stack;
  ZOV_FILE_STACK_NODE node;
  ASSERT_EQ(zov_fileStackInit(&stack, at("a").c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_fileStackOpen(&stack, at("A").c_str()), ZOV_OKAY);
  ZOV_FILE_INFO *const info = zov_fileStackSearch(&stack, at("a").c_str());
  EXPECT_EQ(info->users, 2u);
  EXPECT_EQ(zov_getFileInfo(&stack, at("a").c_str(), &node) + int(node.info != info), ZOV_OKAY);
  EXPECT_EQ(zov_fileStackSearch(&stack, at("c").c_str()), nullptr);
  const int64_t before = standing().locks;
  zov_fileStackLock(&stack);
  EXPECT_EQ(standing().locks, before + 1);
  EXPECT_EQ(zov_fputs("text", info->stream), 4);
  zov_fileStackClose(&stack);
  zov_fileStackRelease(&stack);
  EXPECT_EQ(info->users, 1u);
  zov_fileStackTerm(&stack);
  EXPECT_TRUE(stack.top == nullptr && stack.lock == ZOV_NO_SYNC);
  EXPECT_EQ(readFile(at("a")), "text");
}

TEST_F(Console, LogRecordsCarryATimestamp) {
  setenv("TZ", "ABC-5:30", 1);
  tzset();
  const int64_t begin = time(nullptr);
  EXPECT_EQ(zov_log_create((dir.path() + "/").c_str(), "log"), ZOV_OKAY);
  zov_background = 1;  // or the console syncs too
  const Fault syncs(Call::fsync);
  zov_log("first %s\n", "line");
  zov_log_err("second\n");
  EXPECT_EQ(syncs.uses(), 2u) << "each record is synced";
  EXPECT_EQ(outputOf([] {
              EXPECT_EQ(zov_log("third%c dropped\n", 0), 0);
              zov_log_flush();
            }),
            "");
  const std::string long_line(5000, 'x');
  EXPECT_EQ(zov_log("%s\n", long_line.c_str()), 0);
  const std::string text = readFile(at("log"));
  EXPECT_TRUE(isLog(text, "@first line\n@second\n@third@x{5000}\n")) << text.substr(0, 300);
  struct tm stamp = {};
  strptime(text.c_str(), "[%d-%b-%Y %H:%M:%S]", &stamp);
  const int64_t second = mktime(&stamp);
  EXPECT_TRUE(begin <= second && second <= time(nullptr)) << text.substr(0, 30);
  EXPECT_EQ(zov_log_create("/no/such/place/", "log"), ZOV_OKAY);
}

TEST_F(Console, ChunksMakeOneRecord) {
  zov_background = 1;
  ASSERT_EQ(zov_log_open(at("log").c_str()), ZOV_OKAY);
  ZOV_LOG_CHUNK chunk = zov_log_chunk_init();
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(zov_log_chunk(chunk, "one %d, ", 1), 7);
  EXPECT_EQ(zov_log_chunk(chunk, nullptr), 0);
  EXPECT_EQ(zov_log_chunk(nullptr, "x"), 0);
  failAllocationAfter(0);
  EXPECT_EQ(zov_log_chunk(chunk, "lost"), -1);
  stopFailing();
  EXPECT_EQ(zov_log_chunk(chunk, "two, "), 5);
  zov_log_chunk_end(chunk, "three\n");
  zov_log_chunk_end(nullptr, "x");
  zov_log_chunk_end(zov_log_chunk_init(), nullptr);
  zov_log_chunk_end(zov_log_chunk_init(), "%s", "");
  zov_log_chunk_end(zov_log_chunk_init(), "alone\n");
  const std::string text = readFile(at("log"));
  EXPECT_TRUE(isLog(text, "@one 1, two, three\n@alone\n")) << text;
}

// Takes a narrow text for %ls too, so the compiler must not check the format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int32_t printTwice(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov_printfV(format, arguments) + zov_printfErrV(format, arguments);
  va_end(arguments);
  return written;
}
#pragma GCC diagnostic pop

TEST(ConsoleOutside, MessagesGoToLibc) {
  setlocale(LC_ALL, "C");
  const std::string text(600, 'w');
  for (const char *shown : {"s", text.c_str()}) {
    std::string errors;
    const std::string output = outputOf([&] {
      errors = errorsOf([&] {
        EXPECT_EQ(printTwice("%5c|%ls|%a%c", 'x', shown, 1.5, 0), 2 * (int(strlen(shown)) + 12));
      });
    });
    EXPECT_EQ(output, std::string("x|") + shown + "|1.500000" + '\0') << "the library's format";
    EXPECT_EQ(errors, output) << "and the list left as it was";
  }
  EXPECT_EQ(outputOf([] {
              EXPECT_EQ(zov_log("before %d\n", 1), 9);
              char writable[] = "%n";
              int32_t length = -1;
              int32_t (*const log)(const char *, ...) = zov_log;
              EXPECT_EQ(log(writable, &length) + length, 0) << "libc's checks stay out";
              EXPECT_EQ(zov_printf("printed\n"), 8);
              zov_flush();
              zov_log_flush();
            }),
            "before 1\nprinted\n");
  EXPECT_EQ(errorsOf([] { zov_log_err("bad\n"); }), "bad\n");
  EXPECT_EQ(zov_stdout_open("x"), ZOV_ERROR);
  EXPECT_EQ(zov_log_open("x"), ZOV_ERROR);
  EXPECT_EQ(zov_log_chunk_init(), nullptr);
  zov_stdout_close();
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  zov_term();
  EXPECT_EQ(outputOf([] { zov_log("after\n"); }), "after\n");
}

// A write that fails reports itself while the stack's lock is held: that must
// neither take a lock again nor go round in circles.
TEST_F(Console, FailingOutputReportsItselfOnce) {
  ASSERT_EQ(zov_log_open(at("log").c_str()), ZOV_OKAY);
  const std::string errors = errorsOf([] {
    outputOf([] {
      const Fault full(Call::write, 2, ENOSPC);  // the first is the console's
      zov_log("text\n");
    });
  });
  EXPECT_EQ(errors, "Write failed, errno = 28\n");
}

TEST_F(Console, ShortMemoryIsSurvived) {
  const std::string text(3000, 'y');
  EXPECT_EQ(outputOf([&] {
              failAllocationAfter(0, true);
              EXPECT_EQ(zov_log("%s", text.c_str()), 511) << "what fits without a buffer";
              EXPECT_EQ(zov_log("short\n"), 6);
              stopFailing();
            }),
            text.substr(0, 511) + "short\n");
  // The format buffer of a stream cannot grow: the message about it follows
  // when the lock is free.
  const std::string output = outputOf([&] {
    failAllocationAfter(0);
    EXPECT_EQ(zov_printf("%s", text.c_str()), -1);
    EXPECT_TRUE(stopFailing());
  });
  EXPECT_EQ(output.find("Out of memory. Called from zov_stream"), 0u) << output;
}

}  // namespace

}  // namespace zovtest
