// SPDX-License-Identifier: Apache-2.0
//
// File handles: routing, the process-wide flags, failing and short transfers,
// locks between threads and handles, lack of memory. The system calls and the
// making of sync objects are replaced beneath the library where a test says so.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/alloc_failure.h"
#include "support/temp_dir.h"
#include "zov.h"

namespace {

// What the next replaced system call of this thread does: nothing special, fail
// with an error, or transfer this many bytes.
struct Fault {
  bool armed = false;
  int error = 0;
  ssize_t result = -1;
};
thread_local Fault fault;
thread_local int calls = 0;

template <typename Call>
ssize_t replaced(Call call) {
  ++calls;
  if (!fault.armed) {
    return call(-1);
  }
  fault.armed = false;
  if (fault.result >= 0) {
    return call(fault.result);
  }
  errno = fault.error;
  return -1;
}

void failNext(int error) {
  fault = {true, error, -1};
}

bool tagsFail = false;
bool mutexesFail = false;
std::atomic<int> awaitedCreators{0};
std::atomic<int> deletions{0};

size_t shorter(ssize_t limit, size_t length) {
  return limit < 0 ? length : static_cast<size_t>(limit);
}

}  // namespace

extern "C" {
int __real_open(const char *path, int flags, mode_t mode);
ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __real_write(int fd, const void *buffer, size_t length);
ssize_t __real_pread(int fd, void *buffer, size_t length, off_t offset);
ssize_t __real_pwrite(int fd, const void *buffer, size_t length, off_t offset);
int __real_flock(int fd, int operation);
int __real_fsync(int fd);
ZOV_TAG __real_zov_createTagEx(jmp_buf *recovery, uint32_t flags, const char *name, uint32_t line);
ZOV_SYNC __real_zov_syncCreate_check(int32_t kind, const char *name, uint32_t line);
void __real_zov_syncDelete(ZOV_SYNC handle);

int __wrap_open(const char *path, int flags, mode_t mode);
ssize_t __wrap_read(int fd, void *buffer, size_t length);
ssize_t __wrap_write(int fd, const void *buffer, size_t length);
ssize_t __wrap_pread(int fd, void *buffer, size_t length, off_t offset);
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t length, off_t offset);
int __wrap_flock(int fd, int operation);
int __wrap_fsync(int fd);
ZOV_TAG __wrap_zov_createTagEx(jmp_buf *recovery, uint32_t flags, const char *name, uint32_t line);
ZOV_SYNC __wrap_zov_syncCreate_check(int32_t kind, const char *name, uint32_t line);
void __wrap_zov_syncDelete(ZOV_SYNC handle);

int __wrap_open(const char *path, int flags, mode_t mode) {
  return static_cast<int>(replaced([&](ssize_t) { return __real_open(path, flags, mode); }));
}
ssize_t __wrap_read(int fd, void *buffer, size_t length) {
  return replaced([&](ssize_t limit) { return __real_read(fd, buffer, shorter(limit, length)); });
}
ssize_t __wrap_write(int fd, const void *buffer, size_t length) {
  return replaced([&](ssize_t limit) { return __real_write(fd, buffer, shorter(limit, length)); });
}
ssize_t __wrap_pread(int fd, void *buffer, size_t length, off_t offset) {
  return replaced(
      [&](ssize_t limit) { return __real_pread(fd, buffer, shorter(limit, length), offset); });
}
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t length, off_t offset) {
  return replaced(
      [&](ssize_t limit) { return __real_pwrite(fd, buffer, shorter(limit, length), offset); });
}
int __wrap_flock(int fd, int operation) {
  return static_cast<int>(replaced([&](ssize_t) { return __real_flock(fd, operation); }));
}
int __wrap_fsync(int fd) {
  return static_cast<int>(replaced([&](ssize_t) { return __real_fsync(fd); }));
}
ZOV_TAG __wrap_zov_createTagEx(jmp_buf *recovery, uint32_t flags, const char *name, uint32_t line) {
  return tagsFail ? ZOV_NO_TAG : __real_zov_createTagEx(recovery, flags, name, line);
}
// Where creators are awaited nobody gets an object before all have asked.
ZOV_SYNC __wrap_zov_syncCreate_check(int32_t kind, const char *name, uint32_t line) {
  if (mutexesFail) {
    return ZOV_NO_SYNC;
  }
  if (awaitedCreators > 0) {
    --awaitedCreators;
    while (awaitedCreators > 0) {
      std::this_thread::yield();
    }
  }
  return __real_zov_syncCreate_check(kind, name, line);
}
void __wrap_zov_syncDelete(ZOV_SYNC handle) {
  deletions += handle == ZOV_NO_SYNC ? 0 : 1;
  __real_zov_syncDelete(handle);
}
}

namespace {

class Files : public testing::Test {
 protected:
  Files() { EXPECT_EQ(zov_init(), ZOV_OKAY); }
  ~Files() override {
    zov_readonly = 0;
    zov_diskless = 0;
    zov_term();
  }

  ZOV_FILE open(uint32_t openFlags = O_RDWR | O_CREAT, uint32_t typeFlags = 0) {
    return zov_fileOpen(path_.c_str(), openFlags, typeFlags);
  }

  zovtest::TempDir dir_;
  const std::string path_ = dir_ / "file";
  char buffer_[16] = {};
};

std::string captured(std::string (*get)()) {
  fflush(stdout);
  return get();
}

TEST_F(Files, ReachTheDisk) {
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), 0), -1);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), 0), -1);
  EXPECT_EQ(open(O_RDWR), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(zov_fileOpen(nullptr, O_RDWR, 0), nullptr);
  ZOV_FILE file = open(O_RDWR | O_TRUNC);
  ASSERT_NE(file, nullptr) << "truncating creates";
  EXPECT_EQ(zov_fileWrite(file, "0123456789", 10), 10u);
  EXPECT_EQ(zov_fileSeekWrite(file, 3, "x", 1), 1u);
  EXPECT_EQ(zov_fileSeekWrite(file, ZOV_OFFSET_CURRENT, "ab", 2), 2u);
  EXPECT_EQ(zov_fileSeek(file, 2, SEEK_SET), ZOV_OKAY);
  EXPECT_EQ(zov_fileSeek(file, -2, SEEK_SET), ZOV_ERROR);
  EXPECT_EQ(zov_fileRead(file, buffer_, 2), 2u);
  EXPECT_EQ(zov_fileSeekRead(file, ZOV_OFFSET_CURRENT, buffer_ + 2, 2), 2u);
  EXPECT_EQ(zov_fileSeekRead(file, 10, buffer_ + 4, 9), 2u) << "short at the end";
  EXPECT_STREQ(buffer_, "2x45ab");
  EXPECT_EQ(zov_fileSeekRead(file, 12, buffer_, 1), 0u);
  EXPECT_EQ(zov_fileLength(file), 12);
  EXPECT_EQ(zov_fileSetSize(file, 5), 0);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
  errno = 77;
  zov_fileClose(file);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), ZOV_FILE_NOSYNC), 5);
  EXPECT_GT(zov_fileModTimeStat(path_.c_str(), 0), 1'600'000'000);
}

// Every transfer makes one system call and hands on what comes of it.
TEST_F(Files, FailedTransfersAreReportedAndNotRepeated) {
  ZOV_FILE file = open();
  ASSERT_EQ(zov_fileWrite(file, "0123456789", 10), 10u);
  const struct {
    int line;
    uint32_t (*transfer)(ZOV_FILE, char *);
    const char *message;
    bool toStandardError;
  } rows[] = {
      {__LINE__, [](ZOV_FILE to, char *bytes) { return zov_fileWrite(to, bytes, 4); },
       "Write failed, errno = ", true},
      {__LINE__,
       [](ZOV_FILE from, char *bytes) {
         zov_fileSeek(from, 0, SEEK_SET);
         return zov_fileRead(from, bytes, 4);
       },
       "Read failed, errno = ", false},
      {__LINE__, [](ZOV_FILE to, char *bytes) { return zov_fileSeekWrite(to, 2, bytes, 4); },
       "Failed to seek and write, errno = ", false},
      {__LINE__, [](ZOV_FILE from, char *bytes) { return zov_fileSeekRead(from, 2, bytes, 4); },
       "Failed to seek and read, errno = ", false},
  };
  for (const auto &row : rows) {
    for (const int error : {EIO, ENOSPC, EINTR}) {
      testing::internal::CaptureStdout();
      testing::internal::CaptureStderr();
      failNext(error);
      EXPECT_EQ(row.transfer(file, buffer_), ZOV_IO_FAILED) << row.line;
      EXPECT_EQ(errno, error) << row.line;
      const std::string message = row.message + std::to_string(error) + "\n";
      const std::string output = captured(testing::internal::GetCapturedStdout);
      const std::string errors = captured(testing::internal::GetCapturedStderr);
      EXPECT_EQ(row.toStandardError ? errors : output, message) << row.line;
      EXPECT_EQ(row.toStandardError ? output : errors, "") << row.line;
    }
    fault = {true, 0, 3};
    calls = 0;
    EXPECT_EQ(row.transfer(file, buffer_), 3u) << row.line << ": short counts are handed on";
    EXPECT_EQ(calls, 1) << row.line;
  }
  zov_fileClose(file);
}

TEST_F(Files, StandardStreamsHaveReservedNames) {
  zov_rdonly();
  zov_nodisk();
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int kept = dup(STDOUT_FILENO);
  fflush(stdout);
  ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
  ZOV_FILE output = zov_fileOpen("stdout", O_WRONLY | O_CREAT, 0);
  const bool opened = output != nullptr;
  const uint32_t written = opened ? zov_fileWrite(output, "to ", 3) : 0;
  const uint32_t streamed = opened ? zov_fileSeekWrite(output, ZOV_OFFSET_CURRENT, "stdout", 6) : 0;
  zov_fileClose(output);
  const bool stillOpen = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  dup2(kept, STDOUT_FILENO);
  EXPECT_TRUE(opened);
  EXPECT_TRUE(stillOpen);
  EXPECT_EQ(written, 3u) << "the read-only flag is about disk files";
  EXPECT_EQ(streamed, 6u);
  EXPECT_EQ(::read(ends[0], buffer_, sizeof buffer_), 9);
  EXPECT_STREQ(buffer_, "to stdout");
  for (const char *name : {"stdin", "stderr"}) {
    ZOV_FILE file = zov_fileOpen(name, O_RDONLY, 0);
    EXPECT_NE(file, nullptr) << name;
    zov_fileClose(file);
  }
  for (const char *name : {"Stdout", "stdout ", "./stdout"}) {
    EXPECT_EQ(zov_fileOpen(name, O_RDONLY, 0), nullptr) << name << " is a disk file";
  }
}

TEST_F(Files, ReadOnlyFlagProtectsTheDisk) {
  ZOV_FILE file = open();
  ASSERT_EQ(zov_fileWrite(file, "kept", 4), 4u);
  zov_rdonly();
  calls = 0;
  EXPECT_EQ(zov_fileWrite(file, "lost", 4), 0u);
  EXPECT_EQ(zov_fileSeekWrite(file, 0, "lost", 4), 0u);
  EXPECT_EQ(zov_fileSetSize(file, 0), -1);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(zov_fileSeekRead(file, 0, buffer_, 9), 4u);
  EXPECT_STREQ(buffer_, "kept");
  zov_fileClose(file);
  for (const int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
    EXPECT_EQ(open(static_cast<uint32_t>(flags)), nullptr) << flags;
  }
  file = open(O_RDONLY);
  EXPECT_NE(file, nullptr);
  zov_fileClose(file);
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), 0), 4);
}

TEST_F(Files, DisklessFlagAndMemoryFilesStayOffTheDisk) {
  zov_fileClose(open());
  calls = 0;
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), ZOV_FILE_MEMORY), -1);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), ZOV_FILE_MEMORY), -1);
  EXPECT_EQ(open(O_RDONLY, ZOV_FILE_MEMORY), nullptr) << "the disk's file is not meant";
  zov_nodisk();
  EXPECT_EQ(open(O_RDONLY), nullptr);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), 0), -1);
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), 0), 0) << "asks the disk all the same";
}

TEST_F(Files, SyncReachesTheDiskUnlessFlagged) {
  for (const uint32_t typeFlags : {0u, ZOV_FILE_NOSYNC, 0x10000u | ZOV_FILE_NOSYNC}) {
    ZOV_FILE file = open(O_RDWR | O_CREAT, typeFlags);
    const bool isSynced = typeFlags == 0;
    calls = 0;
    failNext(EIO);
    EXPECT_EQ(zov_fileSync(file), isSynced ? ZOV_ERROR : ZOV_OKAY);
    EXPECT_EQ(calls, isSynced ? 1 : 0);
    fault = {};
    zov_fileClose(file);
  }
}

// A system that refuses without an error number leaves a handle that has no
// descriptor.
TEST_F(Files, HandleWithoutDescriptorIsHarmless) {
  failNext(0);
  ZOV_FILE file = open();
  ASSERT_NE(file, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(zov_fileRead(file, buffer_, 0), 0u);
  EXPECT_EQ(zov_fileSeekWrite(file, 0, buffer_, 0), 0u);
  EXPECT_EQ(zov_fileSeekRead(file, 0, buffer_, 1), ZOV_IO_FAILED);
  zov_fileClose(file);
  EXPECT_EQ(captured(testing::internal::GetCapturedStdout),
            "Failed to seek and read, errno = " + std::to_string(EBADF) +
                "\nInconsistent file state " + path_ + "\n");
}

TEST_F(Files, LockQueuesThreadsAndRefusesHandles) {
  ZOV_FILE file = open();
  ZOV_FILE other = open();
  ASSERT_EQ(zov_fileLock(file), ZOV_OKAY);
  EXPECT_EQ(zov_fileLock(other), ZOV_ERROR);
  std::thread([&] { EXPECT_EQ(zov_fileLock(other), ZOV_ERROR) << "its mutex was left"; }).join();
  std::atomic<bool> asking{false};
  bool released = false;
  std::thread second([&] {
    asking = true;
    EXPECT_EQ(zov_fileLock(file), ZOV_OKAY);
    EXPECT_TRUE(released) << "came in while the lock was held";
    zov_fileUnlock(file);
  });
  while (!asking) {
    std::this_thread::yield();
  }
  for (int turn = 0; turn < 1000; ++turn) {
    std::this_thread::yield();
  }
  released = true;
  zov_fileUnlock(file);
  second.join();
  EXPECT_EQ(zov_fileLock(other), ZOV_OKAY);
  zov_fileUnlock(other);
  zov_fileClose(other);
  zov_fileClose(file);
}

TEST_F(Files, FirstLockMakesOneMutexForAll) {
  ZOV_FILE file = open();
  deletions = 0;
  awaitedCreators = 2;
  int inside = 0;
  auto work = [&] {
    for (int turn = 0; turn < 500; ++turn) {
      EXPECT_EQ(zov_fileLock(file), ZOV_OKAY);
      EXPECT_EQ(++inside, 1);
      --inside;
      zov_fileUnlock(file);
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(deletions, 1) << "the one that came too late";
  zov_fileClose(file);
  EXPECT_EQ(deletions, 2);
}

TEST_F(Files, LockWorksWithoutAMutex) {
  ZOV_FILE file = open();
  ZOV_FILE other = open();
  mutexesFail = true;
  EXPECT_EQ(zov_fileLock(file), ZOV_OKAY);
  EXPECT_EQ(zov_fileLock(other), ZOV_ERROR);
  zov_fileUnlock(file);
  mutexesFail = false;
  EXPECT_EQ(zov_fileLock(other), ZOV_OKAY);
  zov_fileUnlock(other);
  zov_fileClose(other);
  zov_fileClose(file);
}

TEST_F(Files, LackOfMemoryOpensNothing) {
  testing::internal::CaptureStdout();  // the messages
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    const int64_t before = zovtest::liveBlocks();
    calls = 0;
    zovtest::failAllocationAfter(passing);
    ZOV_FILE file = open();
    failed = zovtest::stopFailing();
    EXPECT_EQ(file == nullptr, failed);
    if (failed) {
      EXPECT_EQ(calls, 0) << "no descriptor was at stake";
    } else {
      zov_fileClose(file);
    }
    EXPECT_EQ(zovtest::liveBlocks(), before) << "after failing allocation " << passing;
  }
  testing::internal::GetCapturedStdout();
}

TEST(FileStage, FailureUndoesStartUpAndTermAbandonsHandles) {
  const zovtest::TempDir dir;
  EXPECT_EQ(zov_fileOpen("stdout", O_WRONLY, 0), nullptr) << "not started";
  const int64_t before = zovtest::liveBlocks();
  tagsFail = true;
  EXPECT_EQ(zov_init(), ZOV_ERROR);
  tagsFail = false;
  EXPECT_EQ(zov_inited, 0);
  EXPECT_EQ(zovtest::liveBlocks(), before);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_NE(zov_fileOpen("stdout", O_WRONLY, 0), nullptr);
  zov_term();
  EXPECT_EQ(zovtest::liveBlocks(), before) << "the open handle went too";
}

}  // namespace
