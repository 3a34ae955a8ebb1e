// SPDX-License-Identifier: Apache-2.0
//
// File handles: routing, the process-wide flags, failing and short transfers,
// locks between threads and handles, lack of memory.
#include <latch>
#include <tuple>

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

// What an open that fails leaves in errno, where something else was before.
TEST_F(Files, RefusalsSayWhy) {
  const auto because = [](ZOV_FILE file) { return file != nullptr ? 0 : std::exchange(errno, 77); };
  EXPECT_EQ(because(zov_fileOpen(nullptr, O_RDWR, 0)), EINVAL);
  EXPECT_EQ(because(zov_fileOpenW(nullptr, O_RDWR, 0)), EINVAL);
  EXPECT_EQ(because(zov_fileOpenW(L"/tmp/\xd800", O_RDWR | O_CREAT, 0)), EILSEQ);
  EXPECT_EQ(because(zov_fileOpen("/", O_RDWR, 0)), EISDIR);
  EXPECT_EQ(because(zov_fileOpen("Stdout", O_RDONLY, 0)), ENOENT) << "a disk file";
  ZOV_FILE file = zov_fileOpenW(L"/dev/null", O_RDWR, ZOV_FILE_NOSYNC);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY) << "the device would refuse";
  errno = 77;
  zov_fileClose(file);
  EXPECT_EQ(errno, 77);
  for (const uint32_t flags : {uint32_t{0}, ZOV_FILE_MEMORY}) {
    EXPECT_EQ(zov_fileLengthStat(nullptr, flags), flags == 0 ? -1 : 0);
    EXPECT_EQ(zov_fileModTimeStat(nullptr, flags), flags == 0 ? -1 : 0);
  }
}

// Every transfer makes one system call and hands on what comes of it.
TEST_F(Files, FailedTransfersAreReportedAndNotRepeated) {
  ZOV_FILE file = open();
  ASSERT_EQ(zov_fileSeekWrite(file, 0, "0123456789", 10), 10u);
  // The call, and what it says to standard output and standard error.
  const std::tuple<uint32_t (*)(ZOV_FILE, char *), const char *, const char *> rows[] = {
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
      EXPECT_EQ(std::get<0>(row)(file, buffer_), ZOV_IO_FAILED);
      EXPECT_EQ(errno, EINTR);
    };
    EXPECT_EQ(zovtest::errorsOf([&] { EXPECT_EQ(outputOf(fail), told(std::get<1>(row))); }),
              told(std::get<2>(row)));
    const Fault cut(Call::system, 1, zovtest::Limit{3});
    EXPECT_EQ(std::get<0>(row)(file, buffer_), 3u);
    EXPECT_EQ(cut.uses(), 1u);
  }
  zov_fileClose(file);
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

// On disk a second handle is refused, in memory it waits.
TEST_F(Files, LocksQueueThreads) {
  for (const uint32_t flags : {uint32_t{0}, uint32_t{ZOV_FILE_MEMORY}}) {
    ZOV_FILE file = open(O_RDWR | O_CREAT, flags);
    ZOV_FILE other = open(O_RDWR, flags);
    const auto isRefused = [&] { return flags != 0 || zov_fileLock(other) == ZOV_ERROR; };
    ASSERT_EQ(zov_fileLock(file), ZOV_OKAY);
    EXPECT_TRUE(isRefused());
    const uint32_t waited = zovtest::locksFoundTaken;
    std::atomic<bool> released{false};
    std::atomic<bool> entered{false};
    std::thread second([&, mine = flags == 0 ? file : other] {
      EXPECT_EQ(zov_fileLock(mine), ZOV_OKAY);
      EXPECT_TRUE(released) << "came in while the lock was held";
      EXPECT_TRUE(isRefused()) << "keeps out like the first";
      entered = true;
      zov_fileUnlock(mine);
    });
    zovtest::waitUntil([&] { return zovtest::locksFoundTaken != waited || entered; });
    released = true;
    zov_fileUnlock(file);
    second.join();
    EXPECT_EQ(zov_fileLock(other), ZOV_OKAY);
    zov_fileUnlock(other);
    zov_fileClose(file);
    zov_fileClose(other);
  }
  ZOV_FILE other = open();
  const int64_t before = zovtest::standing().locks;
  {
    const Fault calls(Call::flock, [&](uint32_t) {
      EXPECT_EQ(zovtest::standing().locks, before + 1) << "its mutex is the outer one";
    });
    EXPECT_EQ(zov_fileLock(other), ZOV_OKAY);
    zov_fileUnlock(other);
    EXPECT_EQ(calls.uses(), 2u);
  }
  const Fault noMutexes(Call::syncObject, 1, 0, true);
  ZOV_FILE bare = open();
  EXPECT_EQ(zov_fileLock(bare), ZOV_OKAY) << "does without a mutex";
  EXPECT_EQ(zov_fileLock(other), ZOV_ERROR);
  zov_fileClose(other);
  zov_fileClose(bare);
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

TEST(FileStage, TermAbandonsHandles) {
  EXPECT_EQ(zov_fileOpen("stdout", O_WRONLY, 0), nullptr) << "not started";
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(zov_dirMove("/none", "/nowhere"), ZOV_ERROR) << "not started";
  const int64_t before = zovtest::liveBlocks();
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_EQ(zov_dirMove("/none", "/none/too"), ZOV_OKAY);
  EXPECT_NE(zov_fileOpen("stdout", O_WRONLY, 0), nullptr);
  zov_term();
  EXPECT_EQ(zovtest::liveBlocks(), before) << "the open handle went too";
}

}  // namespace
