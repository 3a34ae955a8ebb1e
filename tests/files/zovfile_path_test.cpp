// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings, and the current directory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/alloc_failure.h"
#include "support/temp_dir.h"
#include "zov.h"

namespace {

class Paths : public testing::Test {
 protected:
  Paths() { EXPECT_EQ(zov_init(), ZOV_OKAY); }
  ~Paths() override {
    zov_diskless = 0;
    zov_term();
  }
};

// Takes over a string of the library; "(null)" for null.
std::string taken(char *text) {
  const std::string copy = text == nullptr ? "(null)" : text;
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  return copy;
}

TEST_F(Paths, AreSplitAtTheLastSlash) {
  const struct {
    int line;
    const char *path;
    const char *directory;
    const char *name;
    uint32_t isDir;
  } rows[] = {
      {__LINE__, "/usr/lib/x.so", "/usr/lib/", "x.so", 0},
      {__LINE__, "x.so", "(null)", "x.so", 0},
      {__LINE__, "dir/", "dir/", "(null)", 1},
      {__LINE__, "/", "/", "(null)", 1},
      {__LINE__, "a//b\\c", "a//", "b\\c", 0},
      {__LINE__, "", "(null)", "", ZOV_PATH_EMPTY},
  };
  for (const auto &row : rows) {
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit(row.path, &directory, nullptr);
    zov_pathSplit(row.path, nullptr, &name);
    EXPECT_EQ(taken(directory), row.directory) << row.line;
    EXPECT_EQ(taken(name), row.name) << row.line;
    EXPECT_EQ(zov_pathIsDir(row.path), row.isDir) << row.line;
    EXPECT_EQ(zov_pathStripDrive(row.path), row.path) << row.line;
  }
  EXPECT_EQ(zov_pathIsDir(nullptr), ZOV_PATH_EMPTY);
}

TEST_F(Paths, BecomeAbsoluteDirectories) {
  const zovtest::TempDir dir;  // some growths long
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  const struct {
    int line;
    const char *path;
    std::string onDisk;
    std::string diskless;
  } rows[] = {
      {__LINE__, nullptr, dir / "", "/"},      {__LINE__, "", dir / "", "/"},
      {__LINE__, ".", dir / "", "/"},          {__LINE__, "./", dir / "", "/"},
      {__LINE__, "..", dir / "../", "/../"},   {__LINE__, "a/../b/", dir / "a/../b/", "/a/../b/"},
      {__LINE__, "/data", "/data/", "/data/"}, {__LINE__, "//x//", "//x//", "//x//"},
  };
  EXPECT_EQ(taken(zov_currdir()), dir.path());
  for (const auto &row : rows) {
    EXPECT_EQ(taken(zov_fullpath(row.path)), row.onDisk) << row.line;
  }
  ASSERT_EQ(symlink("nowhere", "link"), 0);
  EXPECT_EQ(zov_pathIsLink("link"), 1);
  EXPECT_EQ(zov_pathIsLink("nowhere"), 0);
  ASSERT_EQ(unlink("link"), 0);
  ASSERT_EQ(rmdir(dir.path().c_str()), 0);
  EXPECT_EQ(zov_fullpath("sub"), nullptr) << "relative to what is gone";
  zov_nodisk();
  EXPECT_EQ(taken(zov_currdir()), "/");
  for (const auto &row : rows) {
    EXPECT_EQ(taken(zov_fullpath(row.path)), row.diskless) << row.line;
  }
}

TEST_F(Paths, LackOfMemoryLeavesNothingBehind) {
  ASSERT_EQ(chdir("/usr/share"), 0);
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    const int64_t before = zovtest::liveBlocks();
    zovtest::failAllocationAfter(passing);
    char *full = zov_fullpath("some/where");
    failed = zovtest::stopFailing();
    EXPECT_EQ(failed, full == nullptr);
    zov_freeMem(full, ZOV_DEFAULT_TAG);
    EXPECT_EQ(zovtest::liveBlocks(), before) << "after failing allocation " << passing;
  }
}

}  // namespace
