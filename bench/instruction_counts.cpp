// SPDX-License-Identifier: Apache-2.0
//
// What scripts/instruction_counts counts the instructions of: core operations,
// each some rounds to warm up and then some inside countedRounds(), which
// callgrind is told to look at alone. For each it prints name, rounds and
// operations a round, in the order of the calls of countedRounds(); the first,
// an empty round, is what a round costs besides its operations.
//
// All data is the same in every run. Another thread sleeps meanwhile, as libc's
// locks take short cuts while a process has a single one. A call that fails ends
// the program.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <random>
#include <string>
#include <vector>

#include "bench_idle.h"
#include "bench_wire.h"
#include "calculator_tables.h"
#include "zov.h"

using Round = void (*)(void *);

extern "C" void countedRounds(Round round, void *argument, int rounds);

void countedRounds(Round round, void *argument, int rounds) {
  for (int done = 0; done < rounds; ++done) {
    round(argument);
  }
}

namespace {

constexpr int kRounds = 1000;
constexpr int kFewRounds = 20;
constexpr int kWarmRounds = 20;
constexpr uint32_t kMemory = ZOV_FILE_MEMORY;

void need(bool holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "instruction_counts: %s went wrong\n", what);
    exit(EXIT_FAILURE);
  }
}

// Hides from the compiler where a value comes from and that nobody wants it.
template <typename Value>
void keep(Value &value) {
  asm volatile("" : "+m"(value) : : "memory");
}

// No call by this pointer is inlined, nor goes to a copy by another name.
void (*volatile runCounted)(Round, void *, int) = countedRounds;

template <typename Work>
void count(const char *name, int rounds, int perRound, Work work) {
  const Round round = [](void *argument) { (*static_cast<Work *>(argument))(); };
  for (int done = 0; done < kWarmRounds; ++done) {
    round(&work);
  }
  runCounted(round, &work, rounds);
  printf("%s %d %d\n", name, rounds, perRound);
}

template <typename Work>
void count(const char *name, Work work) {
  count(name, kRounds, 1, work);
}

// A file of libc's in memory, by a path that is the same in every run.
class TextFile {
 public:
  TextFile() : descriptor_(memfd_create("counts", 0)) {
    need(descriptor_ >= 0, "memfd_create");
    path = "/proc/self/fd/" + std::to_string(descriptor_);
  }
  TextFile(const TextFile &) = delete;
  TextFile &operator=(const TextFile &) = delete;
  ~TextFile() { close(descriptor_); }

  std::string path;

 private:
  int descriptor_;
};

// --- memory ---

void countPair(const char *name, ZOV_TAG tag, uint64_t size) {
  count(name, [=] {
    void *block = zov_getMem(size, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    keep(block);
    zov_freeMem(block, tag);
  });
}

// Takes 100 blocks and gives them back one by one or with the tag; per block.
void countMany(ZOV_TAG tag) {
  constexpr int kBlocks = 100;
  static void *blocks[kBlocks];
  const auto take = [=] {
    for (void *&block : blocks) {
      block = zov_getMem(64, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
    }
  };
  count("allocate-free-100/plain/64", kRounds, kBlocks, [=] {
    take();
    for (void *block : blocks) {
      zov_freeMem(block, tag);
    }
  });
  count("allocate-release-100/plain/64", kRounds, kBlocks, [=] {
    take();
    zov_freeTagMemory(tag, 0);
  });
}

void countPools() {
  for (const bool safe : {false, true}) {
    ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, 1, safe);
    need(pool != nullptr, "zov_allocPool");
    count(safe ? "pool-get-put/mutex/128" : "pool-get-put/plain/128", [=] {
      zov_putInPool(zov_getMemFromPool(128, pool, ZOV_MEM_PLAIN, nullptr, ZOV_HERE), pool);
    });
    zov_zFreePool(&pool);
  }
}

void countMemory() {
  const ZOV_TAG plain = zov_createTagEx(nullptr, 0, ZOV_HERE);
  countPair("allocate-free/plain/16", plain, 16);
  countPair("allocate-free/plain/64", plain, 64);
  countPair("allocate-free/plain/4096", plain, 4096);
  countPair("allocate-free/mutex/16", ZOV_DEFAULT_TAG, 16);
  countPair("allocate-free/mutex/64", ZOV_DEFAULT_TAG, 64);
  countPair("allocate-free/mutex/4096", ZOV_DEFAULT_TAG, 4096);
  countMany(plain);
  count("tag-create-delete", [] { zov_freeTagMemory(zov_createTagEx(nullptr, 0, ZOV_HERE), 1); });
  countPools();
}

// --- threads ---

void countSync() {
  const ZOV_SYNC mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  need(mutex != ZOV_NO_SYNC && event != ZOV_NO_SYNC, "zov_syncCreate_check");
  const auto enterAndExit = [=] {
    zov_syncEnterExcl(mutex);
    zov_syncExitExcl(mutex);
  };
  count("mutex-enter-exit", enterAndExit);
  zov_syncEnterExcl(mutex);
  count("mutex-reenter-exit", enterAndExit);
  zov_syncExitExcl(mutex);
  count("mutex-create-delete",
        [] { zov_syncDelete(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE)); });
  count("event-reset-signal-wait", [=] {
    zov_syncStart(event);
    zov_syncResume(event);
    need(zov_syncWait(event, ZOV_WAIT_FOREVER) == ZOV_OKAY, "zov_syncWait");
  });
  zov_syncDelete(event);
  zov_syncDelete(mutex);
}

void countQueue() {
  need(zov_queueInit(0) == ZOV_OKAY, "zov_queueInit");
  const ZOV_QUEUE queue = zov_queueCreate("counts");
  count("queue-write-read", [=] {
    uint64_t data = 0;
    zov_queueWrite(queue, 7, 1, 2, 0);
    zov_queueRead(queue, &data, nullptr, nullptr, ZOV_WAIT_FOREVER);
    need(data == 7, "zov_queueRead");
  });
  zov_queueDelete(queue);
  zov_queueTerm(0);
}

// --- files ---

// Operations on one of a thousand names in a directory in memory.
void countMemoryNames() {
  for (int number = 0; number < 1000; ++number) {
    zov_mfClose(zov_mfOpen(("/names/file" + std::to_string(number)).c_str(), O_CREAT));
  }
  count("memory-open-close/1000-names", [] {
    const ZOV_MFILE file = zov_mfOpen("/names/file500", 0);
    need(file != nullptr, "zov_mfOpen");
    zov_mfClose(file);
  });
  count("memory-create-remove/1000-names", [] {
    zov_mfClose(zov_mfOpen("/names/one more", O_CREAT));
    need(zov_mfRemove("/names/one more") == ZOV_OKAY, "zov_mfRemove");
  });
  count("memory-rename/1000-names", kRounds, 2, [] {
    need(zov_mfRename("/names/file500", "/names/renamed") == ZOV_OKAY, "zov_mfRename");
    need(zov_mfRename("/names/renamed", "/names/file500") == ZOV_OKAY, "zov_mfRename");
  });
}

template <uint32_t kLength>
void countTransfers(const char *readName, const char *writeName, ZOV_FILE file) {
  constexpr int64_t kLast = 15;
  static char buffer[kLength];
  need(file != nullptr, "zov_fileOpen");
  zov_fileSeekWrite(file, kLast * kLength, buffer, kLength);
  count(readName, [file, block = int64_t{0}]() mutable {
    block = (block + 1) & kLast;
    need(zov_fileSeekRead(file, block * kLength, buffer, kLength) == kLength, "zov_fileSeekRead");
  });
  count(writeName, [file, block = int64_t{0}]() mutable {
    block = (block + 1) & kLast;
    need(zov_fileSeekWrite(file, block * kLength, buffer, kLength) == kLength, "zov_fileSeekWrite");
  });
  zov_fileClose(file);
}

void countFiles() {
  const TextFile disk;
  countMemoryNames();
  countTransfers<512>("memory-read/512", "memory-write/512",
                      zov_fileOpen("/transfers", O_RDWR | O_CREAT, kMemory));
  countTransfers<4096>("disk-read/4096", "disk-write/4096",
                       zov_fileOpen(disk.path.c_str(), O_RDWR, 0));
}

// --- text ---

// Lines of 0 to 99 bytes, all of them letters.
std::vector<std::string> makeLines() {
  std::mt19937 random(620);
  std::vector<std::string> lines;
  for (int number = 0; number < 1000; ++number) {
    lines.emplace_back(random() % 100, static_cast<char>('a' + random() % 26));
    lines.back() += '\n';
  }
  return lines;
}

// Writes and reads a file of a thousand lines; per line.
template <typename Put>
void countLines(const char *writeName, const char *readName, int32_t encoding, Put put) {
  const TextFile file;
  const std::vector<std::string> lines = makeLines();
  const int perRound = static_cast<int>(lines.size());
  count(writeName, kFewRounds, perRound, [&] {
    const ZOV_STREAM stream = zov_fopen(file.path.c_str(), "w", encoding);
    for (const std::string &line : lines) {
      put(line.c_str(), stream);
    }
    zov_fclose(stream);
  });
  count(readName, kFewRounds, perRound, [&] {
    const ZOV_STREAM stream = zov_fopen(file.path.c_str(), "r", 0);
    int got = 0;
    char line[256];
    while (zov_fgets(line, sizeof line, stream) != nullptr) {
      ++got;
    }
    need(got == perRound, "zov_fgets");
    zov_fclose(stream);
  });
}

// Not held to formats that are literals.
constexpr int32_t (*kPrint)(char *, uint64_t, const char *, ...) = zov_snprintf;

template <typename... Arguments>
void countFormat(const char *name, const char *format, Arguments... arguments) {
  static char text[256];
  count(name, [=]() mutable {
    (keep(arguments), ...);
    need(kPrint(text, sizeof text, format, arguments...) > 0, "zov_snprintf");
  });
}

void countFormats() {
  countFormat("format/d", "%d", 12345);
  countFormat("format/x", "%x", 0xDEADBEEFu);
  countFormat("format/s", "%s", "hello world");
  countFormat("format/message", "[%02d:%02d:%02d]  table %s: page %u of %lu\n", 9, 41, 7,
              "customers", 12u, 99999ul);
  countFormat("format/f", "%.2f", 12345.678);
  countFormat("format/g", "%g", 3.25);
  countFormat("format/g-1e20", "%g", 1.5e20);
  countFormat("format/e", "%e", 12345.678);
  countFormat("format/e-1e300", "%e", 1.7e300);
}

// Converts 1000 characters there and back; per character.
void countUtf8(const char *decodeName, const char *encodeName, const std::wstring &word) {
  constexpr int kChars = 1000;
  static char bytes[4 * kChars + 1];
  static wchar_t chars[kChars + 1];
  std::wstring text;
  while (text.size() < kChars) {
    text += word;
  }
  text.resize(kChars);
  const uint32_t size =
      zov_wchar_to_utf8_len(bytes, sizeof bytes, text.data(), kChars, ZOV_UTF8_STRICT);
  need(size != ZOV_UTF8_FAILED, "zov_wchar_to_utf8_len");
  count(decodeName, kRounds, kChars, [=] {
    need(zov_utf8_to_wchar_len(chars, kChars + 1, bytes, size - 1, ZOV_UTF8_STRICT) == kChars + 1,
         "zov_utf8_to_wchar_len");
  });
  count(encodeName, kRounds, kChars, [=] {
    need(zov_wchar_to_utf8_len(bytes, sizeof bytes, chars, kChars, ZOV_UTF8_STRICT) == size,
         "zov_wchar_to_utf8_len");
  });
}

void countText() {
  countLines("stream-put-line/bytes", "stream-get-line/bytes", ZOV_ENC_BYTES, zov_fputs);
  countLines("stream-put-line/utf16", "stream-get-line/utf16", ZOV_ENC_UTF16,
             [](const char *line, ZOV_STREAM stream) {
               for (; *line != '\0'; ++line) {
                 zov_fputc(*line, stream);
               }
             });
  countFormats();
  countUtf8("utf8-decode/ascii", "utf8-encode/ascii", L"plain words ");
  countUtf8("utf8-decode/mixed", "utf8-encode/mixed",
            L"gr\u00fc\u00dfe \u4e16\u754c \U0001F600 \u0416\u0443\u043a ");
  count("match", [] { need(zov_match("employee_records.dat", "EMP*_*.d?t") != 0, "zov_match"); });
  count("path-full", [] { zov_freeMem(zov_fullpath("/usr/share/zoneinfo"), ZOV_DEFAULT_TAG); });
  count("path-split", [] {
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit("/usr/share/zoneinfo/UTC", &directory, &name);
    zov_freeMem(directory, ZOV_DEFAULT_TAG);
    zov_freeMem(name, ZOV_DEFAULT_TAG);
  });
}

// --- the rest ---

void countIni() {
  constexpr const char *kPath = "/settings.ini";
  const ZOV_STREAM stream = zov_fopenEx(kPath, "w", ZOV_ENC_BYTES, kMemory);
  for (int section = 0; section < 10; ++section) {
    zov_fprintf(stream, "[section%d]\n", section);
    for (int name = 0; name < 20; ++name) {
      zov_fprintf(stream, "parameter%d = value %d\n", name, name);
    }
  }
  zov_fclose(stream);
  count("ini-get/200", [] {
    char out[64];
    need(zov_iniGetEx(kPath, "section5", "parameter10", out, sizeof out, kMemory) == ZOV_OKAY,
         "zov_iniGetEx");
  });
  count("ini-set/200", kFewRounds, 1, [round = 0]() mutable {
    round ^= 1;
    need(zov_iniSetEx(kPath, "section5", "parameter10", round == 0 ? "this" : "that", kMemory) ==
             ZOV_OKAY,
         "zov_iniSetEx");
  });
}

// Per item.
void countBuffers() {
  ZOV_OUTPUTBUFF output = nullptr;
  ZOV_INPUTBUFF input = nullptr;
  zov_outputBuffCreate(writeWire, nullptr, 1, &output);
  zov_inputBuffCreate(readWire, nullptr, nullptr, 1, &input);
  count("buffer-put/int32", kFewRounds, kIntegers, [=] {
    for (int32_t item = 0; item < kIntegers; ++item) {
      zov_outputBuffPutInt32(output, item);
    }
    zov_outputBuffFlush(output);
  });
  count("buffer-get/int32", kFewRounds, kIntegers, [=] {
    for (int32_t item = 0; item < kIntegers; ++item) {
      int32_t got = -1;
      zov_inputBuffGetInt32(input, &got);
      need(got == item, "zov_inputBuffGetInt32");
    }
  });
  count("buffer-put/string16", kFewRounds, kStrings, [=] {
    for (int32_t item = 0; item < kStrings; ++item) {
      zov_outputBuffPutStringWithLength(output, wireString);
    }
    zov_outputBuffFlush(output);
  });
  zov_inputBuffReset(input);
  count("buffer-get/string16", kFewRounds, kStrings, [=] {
    for (int32_t item = 0; item < kStrings; ++item) {
      char got[sizeof wireString];
      need(zov_inputBuffGetStringWithLength(input, got, sizeof got) == 0,
           "zov_inputBuffGetStringWithLength");
    }
  });
  zov_inputBuffDestroy(input);
  zov_outputBuffDestroy(output);
}

constexpr int16_t kTokens[] = {calculator_NUMBER,
                               '+',
                               '(',
                               calculator_NUMBER,
                               '*',
                               calculator_NUMBER,
                               ')',
                               '-',
                               '-',
                               calculator_NUMBER,
                               '/',
                               calculator_NUMBER,
                               ';'};

// Where the driver is in the text, which repeats the line of kTokens.
struct Input {
  int line;
  size_t token;
  double sum;
};

int16_t nextToken(void *context, void *value) {
  constexpr int kLines = 100;
  Input &input = *static_cast<Input *>(context);
  if (input.token == std::size(kTokens)) {
    input.token = 0;
    ++input.line;
  }
  *static_cast<double *>(value) = 2.0;
  return input.line == kLines ? int16_t{0} : kTokens[input.token++];
}

int16_t perform(void *context, void *lastValue, int32_t rule, void *result) {
  const double *last = static_cast<double *>(lastValue);
  if (rule == calculator_line_1) {
    static_cast<Input *>(context)->sum += last[-1];
  } else {
    *static_cast<double *>(result) = last[0];
  }
  return 0;
}

void countParser() {
  count("parser-token", kFewRounds, 100 * static_cast<int>(std::size(kTokens)), [] {
    Input input{0, 0, 0};
    const ZOV_PARSE_CONTEXT context{sizeof(double), &input,  &calculator_tables, nextToken,
                                    perform,        nullptr, ZOV_DEFAULT_TAG};
    need(zov_yyparse(&context) == 0, "zov_yyparse");
  });
}

void countRandom() {
  const ZOV_RAND generator = zov_randCreate(620);
  count("random/uint32", 10 * kRounds, 1, [=] {
    uint32_t value = zov_randGetUInt32(generator);
    keep(value);
  });
  zov_randDestroy(generator);
}

}  // namespace

int main() {
  need(zov_init() == ZOV_OKAY, "zov_init");
  startIdleThread();
  count("empty", [] {});
  countMemory();
  countSync();
  countQueue();
  countFiles();
  countText();
  countIni();
  countBuffers();
  countParser();
  countRandom();
  zov_term();
  return EXIT_SUCCESS;
}
