// SPDX-License-Identifier: Apache-2.0
//
// File handles: routing, the process-wide flags, failing and short transfers,
// locks between threads and handles, lack of memory.
#include <latch>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using zovtest::outputOf;

class Files : public zovtest::StartedInDir {
 protected:
  ZOV_FILE open(int openFlags = O_RDWR | O_CREAT, uint32_t typeFlags = 0) {
    return zov_fileOpen(path_.c_str(), static_cast<uint32_t>(openFlags), typeFlags);
  }

  const std::string path_ = at("file");
  char buffer_[16] = {};
};

TEST_F(Files, AreOpenedOnTheDisk) {
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), 0), -1);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), 0), -1);
  for (const uint32_t flags : {uint32_t{0}, ZOV_FILE_MEMORY}) {
    EXPECT_EQ(zov_fileLengthStat(nullptr, flags), flags == 0 ? -1 : 0);
    EXPECT_EQ(zov_fileModTimeStat(nullptr, flags), flags == 0 ? -1 : 0);
  }
  const std::wstring wide(path_.begin(), path_.end());
  ZOV_FILE file = zov_fileOpenW(wide.c_str(), O_RDWR | O_TRUNC, 0);
  ASSERT_NE(file, nullptr) << "truncating creates";
  EXPECT_EQ(zov_fileWrite(file, "01234", 5), 5u);
  errno = 77;
  zov_fileClose(file);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(zovtest::readFile(path_), "01234");
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), ZOV_FILE_NOSYNC), 5);
  EXPECT_GT(zov_fileModTimeStat(path_.c_str(), 0), 1'600'000'000);
}

// What an open that fails leaves in errno, where something else was before.
TEST_F(Files, RefusalsSayWhy) {
  const std::wstring wide(path_.begin(), path_.end());
  const auto because = [&](auto path, int openFlags, uint32_t typeFlags = 0) {
    errno = 77;
    ZOV_FILE file = nullptr;
    if constexpr (std::is_same_v<decltype(path), const wchar_t *>) {
      file = zov_fileOpenW(path, static_cast<uint32_t>(openFlags), typeFlags);
    } else {
      file = zov_fileOpen(path, static_cast<uint32_t>(openFlags), typeFlags);
    }
    EXPECT_EQ(file, nullptr);
    return errno;
  };
  const wchar_t *noWide = nullptr;
  const char *none = nullptr;
  EXPECT_EQ(because(none, O_RDWR), EINVAL);
  EXPECT_EQ(because(none, O_RDWR, ZOV_FILE_MEMORY), EINVAL);
  EXPECT_EQ(because(noWide, O_RDWR), EINVAL);
  EXPECT_EQ(because(L"/tmp/\xd800", O_RDWR | O_CREAT), EILSEQ);
  EXPECT_EQ(because(wide.c_str(), O_RDWR), ENOENT);
  EXPECT_EQ(because("/", O_RDWR), EISDIR);
  zov_rdonly();
  EXPECT_EQ(because(path_.c_str(), O_RDONLY | O_CREAT), EROFS);
  EXPECT_EQ(because(wide.c_str(), O_WRONLY), EROFS);
  zov_nodisk();
  EXPECT_EQ(because(path_.c_str(), O_RDONLY), EACCES);
}

// Every transfer makes one system call and hands on what comes of it.
TEST_F(Files, FailedTransfersAreReportedAndNotRepeated) {
  ZOV_FILE file = open();
  ASSERT_EQ(zov_fileSeekWrite(file, 0, "0123456789", 10), 10u);
  const struct {
    uint32_t (*transfer)(ZOV_FILE, char *);
    const char *output;
    const char *errors;
  } rows[] = {
      {[](ZOV_FILE to, char *bytes) { return zov_fileWrite(to, bytes, 4); }, "", "Write failed"},
      {[](ZOV_FILE from, char *bytes) { return zov_fileRead(from, bytes, 4); }, "Read failed", ""},
      {[](ZOV_FILE to, char *bytes) { return zov_fileSeekWrite(to, 2, bytes, 4); },
       "Failed to seek and write", ""},
      {[](ZOV_FILE from, char *bytes) { return zov_fileSeekRead(from, 2, bytes, 4); },
       "Failed to seek and read", ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    const auto told = [](std::string what) { return what.empty() ? "" : what + ", errno = 4\n"; };
    const auto fail = [&] {
      const Fault interrupted(Call::system, 1, EINTR);
      EXPECT_EQ(row.transfer(file, buffer_), ZOV_IO_FAILED);
      EXPECT_EQ(errno, EINTR);
    };
    EXPECT_EQ(zovtest::errorsOf([&] { EXPECT_EQ(outputOf(fail), told(row.output)); }),
              told(row.errors));
    const Fault cut(Call::system, 1, zovtest::Limit{3});
    EXPECT_EQ(row.transfer(file, buffer_), 3u);
    EXPECT_EQ(cut.uses(), 1u);
  }
  zov_fileClose(file);
}

TEST_F(Files, StandardStreamsIgnoreTheFlags) {
  zov_rdonly();
  zov_nodisk();
  testing::internal::CaptureStderr();
  ZOV_FILE stream = zov_fileOpen("stderr", O_WRONLY | O_CREAT, 0);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zov_fileWrite(stream, "to ", 3), 3u);
  EXPECT_EQ(zov_fileSeekWrite(stream, ZOV_OFFSET_CURRENT, "stderr", 6), 6u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr");
  EXPECT_NE(zov_fileOpen("stdin", O_RDONLY, 0), nullptr);
  EXPECT_NE(zov_fileOpen("stdout", O_RDONLY, 0), nullptr);
  EXPECT_EQ(zov_fileOpen("Stdout", O_RDONLY, 0), nullptr) << "a disk file";
}

TEST_F(Files, ReadOnlyFlagProtectsTheDisk) {
  ZOV_FILE file = open();
  ASSERT_EQ(zov_fileWrite(file, "kept", 4), 4u);
  const Fault broken(Call::fsync, 1, EIO);
  EXPECT_EQ(zov_fileSync(file), ZOV_ERROR) << "asks the disk";
  zov_rdonly();
  const Fault calls(Call::system);
  EXPECT_EQ(zov_fileWrite(file, "lost", 4), 0u);
  EXPECT_EQ(zov_fileSeekWrite(file, 0, "lost", 4), 0u);
  EXPECT_EQ(zov_fileSetSize(file, 0), -1);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
  EXPECT_EQ(calls.uses(), 0u);
  EXPECT_EQ(zov_fileLength(file), 4);
  for (const int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
    EXPECT_EQ(open(flags), nullptr) << flags;
  }
  EXPECT_NE(open(O_RDONLY), nullptr);
}

TEST_F(Files, FlagsKeepFilesOffTheDisk) {
  ZOV_FILE file = open(O_RDWR | O_CREAT, ZOV_FILE_NOSYNC);
  const Fault calls(Call::system);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), ZOV_FILE_MEMORY), 0);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), ZOV_FILE_MEMORY), 0);
  EXPECT_EQ(open(O_RDONLY, ZOV_FILE_MEMORY), nullptr) << "the disk's file is not meant";
  zov_nodisk();
  EXPECT_EQ(open(O_RDONLY), nullptr);
  EXPECT_EQ(calls.uses(), 0u);
  EXPECT_EQ(zov_fileModTimeStat(path_.c_str(), 0), -1);
  EXPECT_EQ(zov_fileLengthStat(path_.c_str(), 0), 0) << "asks the disk all the same";
}

// A system that refuses without an error number leaves such a handle.
TEST_F(Files, HandleWithoutDescriptorIsHarmless) {
  ZOV_FILE file = [&] {
    const Fault refused(Call::open, 1, 0);
    return open();
  }();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(outputOf([&] {
              EXPECT_EQ(zov_fileRead(file, buffer_, 0), 0u);
              EXPECT_EQ(zov_fileSeekWrite(file, 0, buffer_, 0), 0u);
              EXPECT_EQ(zov_fileSeekRead(file, 0, buffer_, 1), ZOV_IO_FAILED);
              zov_fileClose(file);
            }),
            "Failed to seek and read, errno = 9\nInconsistent file state " + path_ + "\n");
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
    EXPECT_EQ(zov_fileLock(other), ZOV_ERROR) << "keeps out like the first";
    zov_fileUnlock(file);
  });
  for (int turn = 0; turn < 1000 || !asking; ++turn) {
    std::this_thread::yield();
  }
  released = true;
  zov_fileUnlock(file);
  second.join();
  EXPECT_EQ(zov_fileLock(other), ZOV_OKAY);
  zov_fileUnlock(other);
  const Fault noMutexes(Call::syncObject, 1, 0, true);
  ZOV_FILE third = open();
  EXPECT_EQ(zov_fileLock(third), ZOV_OKAY) << "does without a mutex";
  EXPECT_EQ(zov_fileLock(other), ZOV_ERROR);
  zov_fileUnlock(third);
}

TEST_F(Files, FirstLockMakesOneMutexForAll) {
  ZOV_FILE file = open();
  const int64_t before = zovtest::standing().slots;
  std::latch creators{2};
  int entries = 0;
  zovtest::onThreads(2, [&](uint32_t) {
    const Fault rendezvous(Call::syncObject, [&](uint32_t) { creators.arrive_and_wait(); });
    EXPECT_EQ(zov_fileLock(file), ZOV_OKAY);
    ++entries;
    zov_fileUnlock(file);
  });
  EXPECT_EQ(entries, 2);
  EXPECT_EQ(zovtest::standing().slots, before + 1) << "the one that came too late is gone";
  zov_fileClose(file);
  EXPECT_EQ(zovtest::standing().slots, before);
}

TEST(FileStage, FailureUndoesStartUpAndTermAbandonsHandles) {
  EXPECT_EQ(zov_fileOpen("stdout", O_WRONLY, 0), nullptr) << "not started";
  EXPECT_EQ(errno, EINVAL);
  const int64_t before = zovtest::liveBlocks();
  {
    const Fault noTags(Call::tag, 1, 0, true);
    EXPECT_EQ(zov_init(), ZOV_ERROR);
  }
  EXPECT_EQ(zovtest::liveBlocks(), before);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_NE(zov_fileOpen("stdout", O_WRONLY, 0), nullptr);
  zov_background = 1;  // or the message would count
  const Fault calls(Call::open);
  zovtest::failAllocationAfter(0);
  EXPECT_EQ(zov_fileOpen("/", O_RDONLY, 0), nullptr);
  EXPECT_TRUE(zovtest::stopFailing());
  zov_background = 0;
  EXPECT_EQ(calls.uses(), 0u) << "no descriptor was at stake";
  zov_term();
  EXPECT_EQ(zovtest::liveBlocks(), before) << "the open handle went too";
}

}  // namespace
