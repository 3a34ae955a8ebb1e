// SPDX-License-Identifier: Apache-2.0
//
// File handles beside the system calls they end in. The one file is small enough
// to stay in the processor's cache, and the same for all, because where its
// pages lie costs more than what is measured. Of each pair the second is the
// bare call.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include "zov.h"

namespace {

constexpr int64_t kFileBytes = 1 << 18;
char buffer[1 << 16];

// The file, opened both ways.
class Opened {
 public:
  Opened() {
    fd = mkstemp(path);
    if (fd < 0 || zov_init() != ZOV_OKAY) {
      abort();
    }
    handle = zov_fileOpen(path, O_RDWR, 0);
    for (int64_t offset = 0; offset < kFileBytes; offset += sizeof buffer) {
      if (pwrite(fd, buffer, sizeof buffer, offset) != sizeof buffer) {
        abort();
      }
    }
  }
  ~Opened() {
    close(fd);
    zov_fileClose(handle);
    unlink(path);
    zov_term();
  }
  Opened(const Opened &) = delete;
  Opened &operator=(const Opened &) = delete;

  char path[32] = "/tmp/zovbench.XXXXXX";
  ZOV_FILE handle;
  int fd;
};

const Opened &opened() {
  static const Opened file;
  return file;
}

uint32_t lengthOf(const benchmark::State &state) {
  return static_cast<uint32_t>(state.range(0));
}

// Runs a transfer at offsets that step through the file.
template <typename Transfer>
void transfers(benchmark::State &state, Transfer transfer) {
  const uint32_t length = lengthOf(state);
  int64_t offset = 0;
  for (auto _ : state) {
    if (transfer(offset, length) != length) {
      state.SkipWithError("short transfer");
      break;
    }
    offset = (offset + length) & (kFileBytes - 1);
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void SeekReadHandle(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    return zov_fileSeekRead(file.handle, offset, buffer, length);
  });
}

void SeekReadBare(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    return pread(file.fd, buffer, length, offset);
  });
}

void SeekWriteHandle(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    return zov_fileSeekWrite(file.handle, offset, buffer, length);
  });
}

void SeekWriteBare(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    return pwrite(file.fd, buffer, length, offset);
  });
}

// The streamed calls go back to the start together with the offset.
void ReadHandle(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    if (offset == 0) {
      zov_fileSeek(file.handle, 0, SEEK_SET);
    }
    return zov_fileRead(file.handle, buffer, length);
  });
}

void ReadBare(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    if (offset == 0) {
      lseek(file.fd, 0, SEEK_SET);
    }
    return read(file.fd, buffer, length);
  });
}

void WriteHandle(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    if (offset == 0) {
      zov_fileSeek(file.handle, 0, SEEK_SET);
    }
    return zov_fileWrite(file.handle, buffer, length);
  });
}

void WriteBare(benchmark::State &state) {
  const Opened &file = opened();
  transfers(state, [&](int64_t offset, uint32_t length) {
    if (offset == 0) {
      lseek(file.fd, 0, SEEK_SET);
    }
    return write(file.fd, buffer, length);
  });
}

void OpenCloseHandle(benchmark::State &state) {
  const Opened &file = opened();
  for (auto _ : state) {
    const ZOV_FILE again = zov_fileOpen(file.path, O_RDWR, 0);
    if (again == nullptr) {
      state.SkipWithError("not opened");
      break;
    }
    zov_fileClose(again);
  }
}

void OpenCloseBare(benchmark::State &state) {
  const Opened &file = opened();
  for (auto _ : state) {
    close(open(file.path, O_RDWR));
  }
}

void LockUnlockHandle(benchmark::State &state) {
  const Opened &file = opened();
  for (auto _ : state) {
    if (zov_fileLock(file.handle) != ZOV_OKAY) {
      state.SkipWithError("not locked");
      break;
    }
    zov_fileUnlock(file.handle);
  }
}

void LockUnlockBare(benchmark::State &state) {
  const Opened &file = opened();
  for (auto _ : state) {
    flock(file.fd, LOCK_EX | LOCK_NB);
    flock(file.fd, LOCK_UN);
  }
}

BENCHMARK(SeekReadHandle)->Name("seek-read/zov")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(SeekReadBare)->Name("seek-read/posix")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(SeekWriteHandle)->Name("seek-write/zov")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(SeekWriteBare)->Name("seek-write/posix")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(ReadHandle)->Name("read/zov")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(ReadBare)->Name("read/posix")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(WriteHandle)->Name("write/zov")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(WriteBare)->Name("write/posix")->Arg(1024)->Arg(4096)->Arg(65536);
BENCHMARK(OpenCloseHandle)->Name("open-close/zov");
BENCHMARK(OpenCloseBare)->Name("open-close/posix");
BENCHMARK(LockUnlockHandle)->Name("lock-unlock/zov");
BENCHMARK(LockUnlockBare)->Name("lock-unlock/posix");

}  // namespace
