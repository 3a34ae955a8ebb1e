// SPDX-License-Identifier: Apache-2.0
//
// The native file primitives against real files.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"
#include "zov.h"

namespace {

constexpr uint32_t kCreate = O_RDWR | O_CREAT;

class Native : public testing::Test {
 protected:
  ~Native() override { zov_diskless = 0; }

  uint64_t open(const std::string &path, uint32_t openFlags = kCreate) {
    uint64_t descriptor = 0;
    EXPECT_EQ(zov_flOpen(path.c_str(), openFlags, 0, &descriptor), ZOV_OKAY);
    return descriptor;
  }

  zovtest::TempDir dir_;
};

TEST_F(Native, OpeningReportsTheSystemsError) {
  const struct {
    int line;
    std::string path;
    uint32_t openFlags;
    int32_t error;
  } rows[] = {
      {__LINE__, dir_ / "missing", O_RDWR, ENOENT},
      {__LINE__, dir_.path(), O_RDWR, EISDIR},
      {__LINE__, dir_ / std::string(300, 'x'), kCreate, ENAMETOOLONG},
  };
  for (const auto &row : rows) {
    uint64_t descriptor = 0;
    EXPECT_EQ(zov_flOpen(row.path.c_str(), row.openFlags, 0, &descriptor), row.error) << row.line;
    EXPECT_EQ(descriptor, ZOV_NO_DESCRIPTOR) << row.line;
    EXPECT_EQ(errno, row.error) << row.line;
  }
  const mode_t old = umask(027);
  EXPECT_EQ(zov_flClose(open(dir_ / "new")), 0);
  EXPECT_EQ(zov_dirCreate((dir_ / "newdir").c_str()), ZOV_OKAY);
  umask(old);
  struct stat status;
  ASSERT_EQ(stat((dir_ / "new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  ASSERT_EQ(stat((dir_ / "newdir").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750u);
}

TEST_F(Native, StandardStreamsAreNumbered) {
  uint64_t descriptor = 77;
  EXPECT_EQ(zov_flOpenStd(&descriptor, 3), ZOV_ERROR);
  EXPECT_EQ(zov_flOpenStd(&descriptor, -1), ZOV_ERROR);
  EXPECT_EQ(descriptor, 77u);
  for (int32_t number = 0; number < 3; ++number) {
    EXPECT_EQ(zov_flOpenStd(&descriptor, number), ZOV_OKAY);
    EXPECT_EQ(descriptor, static_cast<uint64_t>(number));
  }
}

TEST_F(Native, PositionedTransfersLeaveThePosition) {
  const uint64_t file = open(dir_ / "data");
  char buffer[16] = {};
  EXPECT_EQ(zov_flWrite(file, "0123456789", 10), 10u);
  EXPECT_EQ(zov_flSeekWrite(file, 20, "far", 3), 3u);
  EXPECT_EQ(zov_flSeekRead(file, 2, buffer, 3), 3u);
  EXPECT_STREQ(buffer, "234");
  EXPECT_EQ(zov_flSeekWrite(file, ZOV_OFFSET_CURRENT, "ab", 2), 2u) << "behind the 9";
  EXPECT_EQ(zov_flSeek(file, -13, SEEK_END), ZOV_OKAY);
  EXPECT_EQ(zov_flSeekRead(file, ZOV_OFFSET_CURRENT, buffer, 2), 2u);
  EXPECT_EQ(std::string(buffer, 2), "ab");
  EXPECT_EQ(zov_flSeek(file, -1, SEEK_SET), ZOV_ERROR);
  EXPECT_EQ(zov_flSize(file), 23);
  EXPECT_EQ(zov_flSeekRead(file, 23, buffer, 5), 0u) << "the end is no failure";
  EXPECT_EQ(zov_flSeekRead(file, -2, buffer, 5), ZOV_IO_FAILED) << "an offset like any other";
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(zov_flSetSize(file, 4), 0);
  EXPECT_EQ(zov_flSize(file), 4);
  EXPECT_EQ(zov_flSetSize(file, -1), -1);
  EXPECT_EQ(zov_flSync(file), ZOV_OKAY);
  EXPECT_EQ(zov_flClose(file), 0);
  EXPECT_EQ(zov_flWrite(file, "x", 1), ZOV_IO_FAILED);
  EXPECT_EQ(zov_flRead(file, buffer, 1), ZOV_IO_FAILED);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(zov_flSync(file), ZOV_ERROR);
  EXPECT_EQ(zov_flSize(file), 0);
  EXPECT_EQ(zov_flClose(file), -1);
}

TEST_F(Native, LocksBelongToTheOpening) {
  const uint64_t first = open(dir_ / "lock");
  const uint64_t second = open(dir_ / "lock");
  EXPECT_EQ(zov_flLock(first), ZOV_OKAY);
  EXPECT_EQ(zov_flLock(first), ZOV_OKAY);
  EXPECT_EQ(zov_flLock(second), ZOV_ERROR) << "at once";
  EXPECT_EQ(zov_flUnlock(first), 0);
  EXPECT_EQ(zov_flLock(second), ZOV_OKAY);
  EXPECT_EQ(zov_flClose(second), 0);
  EXPECT_EQ(zov_flLock(first), ZOV_OKAY);
  EXPECT_EQ(zov_flClose(first), 0);
  EXPECT_EQ(zov_flLock(first), ZOV_ERROR);
  EXPECT_EQ(zov_flUnlock(first), -1);
}

TEST_F(Native, NamesAreAskedAboutAndChanged) {
  const std::string file = dir_ / "file";
  const std::string link = dir_ / "link";
  const std::string moved = dir_ / "moved";
  EXPECT_EQ(zov_flClose(open(file)), 0);
  ASSERT_EQ(symlink(dir_.path().c_str(), link.c_str()), 0);
  int32_t isDirectory = 7;
  EXPECT_EQ(zov_flValidate(file.c_str(), &isDirectory), 1);
  EXPECT_EQ(isDirectory, 0);
  EXPECT_EQ(zov_flValidate(link.c_str(), &isDirectory), 1);
  EXPECT_EQ(isDirectory, 1) << "links are followed";
  EXPECT_EQ(zov_flValidate(moved.c_str(), &isDirectory), 0);
  EXPECT_EQ(isDirectory, 0);
  EXPECT_EQ(zov_flValidate(file.c_str(), nullptr), 1);
  EXPECT_EQ(zov_flValidate(moved.c_str(), nullptr), 0);
  const timespec times[2] = {{1, 0}, {1'000'000'000, 999'999'999}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  EXPECT_EQ(zov_flModTime(file.c_str()), 1'000'000'000);
  EXPECT_EQ(zov_flModTime(moved.c_str()), -1);
  EXPECT_EQ(zov_flRename(file.c_str(), moved.c_str()), 0);
  EXPECT_EQ(zov_flRename(file.c_str(), moved.c_str()), -1);
  EXPECT_EQ(zov_flRemove(moved.c_str()), 0);
  EXPECT_EQ(zov_flRemove(moved.c_str()), -1);
}

TEST_F(Native, DirectoriesComeAndGo) {
  const std::string made = dir_ / "made";
  const std::string below = made + "/below";
  EXPECT_EQ(zov_dirCreate(below.c_str()), ZOV_ERROR) << "no parent";
  EXPECT_EQ(zov_dirCreate(made.c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_dirCreate(made.c_str()), ZOV_EXISTS);
  EXPECT_EQ(zov_dirCreate(below.c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_dirRemove(made.c_str()), ZOV_ERROR) << "not empty";
  EXPECT_EQ(zov_dirRemove(below.c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_dirRemove(below.c_str()), ZOV_OKAY) << "gone is gone";
  zov_nodisk();
  EXPECT_EQ(zov_dirCreate(made.c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_dirRemove(below.c_str()), ZOV_ERROR);
}

}  // namespace
