// SPDX-License-Identifier: Apache-2.0
//
// Text streams beside libc's: a megabyte of lines is read or written whole in
// every iteration, file opened and closed, and counted by the byte. libc runs
// with its own buffer size and with that of a stream's block, which tells what
// the calls cost from what the transfers cost. The files are in memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <iconv.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#if defined(ZOV_HAVE_FMT)
#include <fmt/os.h>
#endif

#include "bench_seed.h"
#include "zov.h"

namespace {

constexpr size_t kTextBytes = 1 << 20;
constexpr int kLibcBuffer = 0;
constexpr int kBlockBuffer = 1024;

std::vector<std::string> randomLines() {
  std::mt19937_64 random(benchSeed());
  std::vector<std::string> lines;
  for (size_t bytes = 0; bytes < kTextBytes; bytes += lines.back().size()) {
    lines.emplace_back(random() % 100, static_cast<char>('a' + random() % 26));
    lines.back() += '\n';
  }
  return lines;
}

// The text, and a file to read it from or write it to.
struct Setting {
  explicit Setting(int32_t encoding = ZOV_ENC_BYTES) {
    zov_init();
    for (const std::string &line : lines) {
      textBytes += line.size();
      for (const char byte : line) {
        sum += static_cast<uint32_t>(byte);
      }
    }
    const ZOV_STREAM stream = zov_fopen(path.c_str(), "w", encoding);
    for (const std::string &line : lines) {
      for (const char byte : line) {
        zov_fputc(byte, stream);
      }
    }
    zov_fclose(stream);
  }
  Setting(const Setting &) = delete;
  ~Setting() {
    close(descriptor);
    zov_term();
  }

  FILE *openLibc(const benchmark::State &state, const char *mode) {
    FILE *file = fopen(path.c_str(), mode);
    if (state.range(0) != kLibcBuffer) {
      setvbuf(file, buffer, _IOFBF, static_cast<size_t>(state.range(0)));
    }
    return file;
  }
  void check(benchmark::State &state, size_t found) const {
    if (found != lines.size()) {
      state.SkipWithError("lines are missing");
    }
  }
  void checkSum(benchmark::State &state, uint32_t found) const {
    if (found != sum) {
      state.SkipWithError("another text");
    }
  }
  // What every line was written with takes room as well.
  void checkSize(benchmark::State &state, size_t extraBytes) const {
    struct stat status;
    if (fstat(descriptor, &status) != 0 ||
        static_cast<size_t>(status.st_size) != textBytes + lines.size() * extraBytes) {
      state.SkipWithError("another length");
    }
  }
  void count(benchmark::State &state) const {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(textBytes));
  }

  const int descriptor = memfd_create("bench", 0);
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const std::vector<std::string> lines = randomLines();
  size_t textBytes = 0;
  uint32_t sum = 0;
  char buffer[kBlockBuffer];
};

void bufferSizes(benchmark::internal::Benchmark *bench) {
  bench->Arg(kLibcBuffer)->Arg(kBlockBuffer);
}

template <typename Get>
void libcReadBytes(benchmark::State &state, Get get) {
  Setting setting;
  for (auto _ : state) {
    FILE *file = setting.openLibc(state, "r");
    uint32_t sum = 0;
    for (int c = get(file); c != EOF; c = get(file)) {
      sum += static_cast<uint32_t>(c);
    }
    setting.checkSum(state, sum);
    fclose(file);
  }
  setting.count(state);
}

// Where the compiler can see into the loop, libc's reading of a byte is no call
// at all.
void LibcGetcInline(benchmark::State &state) {
  libcReadBytes(state, [](FILE *file) { return getc_unlocked(file); });
}
BENCHMARK(LibcGetcInline)->Name("get-char/libc-inline")->Apply(bufferSizes);

void LibcGetcCalled(benchmark::State &state) {
  int (*volatile called)(FILE *) = fgetc_unlocked;
  libcReadBytes(state, [get = called](FILE *file) { return get(file); });
}
BENCHMARK(LibcGetcCalled)->Name("get-char/libc")->Apply(bufferSizes);

void readBytes(benchmark::State &state, int32_t encoding) {
  Setting setting(encoding);
  for (auto _ : state) {
    const ZOV_STREAM stream = zov_fopen(setting.path.c_str(), "r", 0);
    uint32_t sum = 0;
    for (int32_t c = zov_fgetc(stream); c != -1; c = zov_fgetc(stream)) {
      sum += static_cast<uint32_t>(c);
    }
    setting.checkSum(state, sum);
    zov_fclose(stream);
  }
  setting.count(state);
}

void Fgetc(benchmark::State &state) {
  readBytes(state, ZOV_ENC_BYTES);
}
BENCHMARK(Fgetc)->Name("get-char/zov");

void FgetcUtf16(benchmark::State &state) {
  readBytes(state, ZOV_ENC_UTF16);
}
BENCHMARK(FgetcUtf16)->Name("get-char-utf16/zov");

void LibcFgets(benchmark::State &state) {
  Setting setting;
  char line[256];
  for (auto _ : state) {
    FILE *file = setting.openLibc(state, "r");
    size_t lines = 0;
    while (fgets(line, sizeof line, file) != nullptr) {
      ++lines;
    }
    fclose(file);
    setting.check(state, lines);
  }
  setting.count(state);
}
BENCHMARK(LibcFgets)->Name("get-line-fixed/libc")->Apply(bufferSizes);

void Fgets(benchmark::State &state) {
  Setting setting;
  char line[256];
  for (auto _ : state) {
    const ZOV_STREAM stream = zov_fopen(setting.path.c_str(), "r", 0);
    size_t lines = 0;
    while (zov_fgets(line, sizeof line, stream) != nullptr) {
      ++lines;
    }
    zov_fclose(stream);
    setting.check(state, lines);
  }
  setting.count(state);
}
BENCHMARK(Fgets)->Name("get-line-fixed/zov");

void LibcGetline(benchmark::State &state) {
  Setting setting;
  char *line = nullptr;
  size_t sizeBytes = 0;
  for (auto _ : state) {
    FILE *file = setting.openLibc(state, "r");
    size_t lines = 0;
    while (getline(&line, &sizeBytes, file) != -1) {
      ++lines;
    }
    fclose(file);
    setting.check(state, lines);
  }
  free(line);
  setting.count(state);
}
BENCHMARK(LibcGetline)->Name("get-line/libc")->Apply(bufferSizes);

void GetLine(benchmark::State &state) {
  Setting setting;
  char *line = nullptr;
  uint32_t sizeBytes = 0;
  for (auto _ : state) {
    const ZOV_STREAM stream = zov_fopen(setting.path.c_str(), "r", 0);
    size_t lines = 0;
    while (zov_fGetLine(stream, &line, &sizeBytes) != nullptr) {
      ++lines;
    }
    zov_fclose(stream);
    setting.check(state, lines);
  }
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  setting.count(state);
}
BENCHMARK(GetLine)->Name("get-line/zov");

void GetLineUtf16(benchmark::State &state) {
  Setting setting(ZOV_ENC_UTF16);
  char *line = nullptr;
  uint32_t sizeBytes = 0;
  size_t lines = 0;
  for (auto _ : state) {
    const ZOV_STREAM stream = zov_fopen(setting.path.c_str(), "r", 0);
    for (lines = 0; zov_fGetLine(stream, &line, &sizeBytes) != nullptr; ++lines) {
    }
    zov_fclose(stream);
  }
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  setting.check(state, lines);
  setting.count(state);
}
BENCHMARK(GetLineUtf16)->Name("get-line-utf16/zov");

// Blocks of 64 KiB through libc's converter, and its text cut into lines.
size_t linesByIconv(const char *path, iconv_t converter) {
  static char units[1 << 16];
  static char text[2 * sizeof units];
  size_t lines = 0;
  const int file = open(path, O_RDONLY);
  for (ssize_t count = read(file, units, sizeof units); count > 0;
       count = read(file, units, sizeof units)) {
    char *in = units;
    char *out = text;
    size_t inBytes = static_cast<size_t>(count);
    size_t outBytes = sizeof text;
    iconv(converter, &in, &inBytes, &out, &outBytes);
    const char *end = out;
    for (const void *line = text;
         (line = memchr(line, '\n', static_cast<size_t>(end - static_cast<const char *>(line)))) !=
         nullptr;
         line = static_cast<const char *>(line) + 1) {
      ++lines;
    }
  }
  close(file);
  return lines;
}

void IconvLines(benchmark::State &state) {
  Setting setting(ZOV_ENC_UTF16);
  size_t lines = 0;
  for (auto _ : state) {
    const iconv_t converter = iconv_open("UTF-8", "UTF-16");
    lines = linesByIconv(setting.path.c_str(), converter);
    iconv_close(converter);
  }
  setting.check(state, lines);
  setting.count(state);
}
BENCHMARK(IconvLines)->Name("get-line-utf16/iconv");

// `extraBytes` go before every line.
template <typename Put>
void libcWrite(benchmark::State &state, size_t extraBytes, Put put) {
  Setting setting;
  for (auto _ : state) {
    FILE *file = setting.openLibc(state, "w");
    for (const std::string &line : setting.lines) {
      put(line.c_str(), file);
    }
    fclose(file);
  }
  setting.checkSize(state, extraBytes);
  setting.count(state);
}

template <typename Put>
void zovWrite(benchmark::State &state, size_t extraBytes, Put put) {
  Setting setting;
  for (auto _ : state) {
    const ZOV_STREAM stream = zov_fopen(setting.path.c_str(), "w", ZOV_ENC_BYTES);
    for (const std::string &line : setting.lines) {
      put(line.c_str(), stream);
    }
    zov_fclose(stream);
  }
  setting.checkSize(state, extraBytes);
  setting.count(state);
}

void LibcPutc(benchmark::State &state) {
  int (*volatile called)(int, FILE *) = fputc_unlocked;
  libcWrite(state, 0, [put = called](const char *line, FILE *file) {
    for (; *line != '\0'; ++line) {
      put(*line, file);
    }
  });
}
BENCHMARK(LibcPutc)->Name("put-char/libc")->Apply(bufferSizes);

void Fputc(benchmark::State &state) {
  zovWrite(state, 0, [](const char *line, ZOV_STREAM stream) {
    for (; *line != '\0'; ++line) {
      zov_fputc(*line, stream);
    }
  });
}
BENCHMARK(Fputc)->Name("put-char/zov");

void LibcFputs(benchmark::State &state) {
  libcWrite(state, 0, [](const char *line, FILE *file) { fputs(line, file); });
}
BENCHMARK(LibcFputs)->Name("put-line/libc")->Apply(bufferSizes);

void Fputs(benchmark::State &state) {
  zovWrite(state, 0, [](const char *line, ZOV_STREAM stream) { zov_fputs(line, stream); });
}
BENCHMARK(Fputs)->Name("put-line/zov");

void LibcFprintf(benchmark::State &state) {
  libcWrite(state, 3, [](const char *line, FILE *file) { fprintf(file, "%d %s", 42, line); });
}
BENCHMARK(LibcFprintf)->Name("print-line/libc")->Apply(bufferSizes);

#if defined(ZOV_HAVE_FMT)
void FmtPrint(benchmark::State &state) {
  Setting setting;
  for (auto _ : state) {
    fmt::ostream file = fmt::output_file(setting.path);
    for (const std::string &line : setting.lines) {
      file.print("{} {}", 42, line.c_str());
    }
    file.close();
  }
  setting.checkSize(state, 3);
  setting.count(state);
}
BENCHMARK(FmtPrint)->Name("print-line/fmt");
#endif

void Fprintf(benchmark::State &state) {
  zovWrite(state, 3,
           [](const char *line, ZOV_STREAM stream) { zov_fprintf(stream, "%d %s", 42, line); });
}
BENCHMARK(Fprintf)->Name("print-line/zov");

}  // namespace
