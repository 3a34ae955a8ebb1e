// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings, and the current directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
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
    int32_t isFullyQualified;
  } rows[] = {
      {__LINE__, "/usr/lib/x.so", "/usr/lib/", "x.so", 0, 1},
      {__LINE__, "x.so", "(null)", "x.so", 0, 0},
      {__LINE__, "dir/", "dir/", "(null)", 1, 0},
      {__LINE__, "/", "/", "(null)", 1, 1},
      {__LINE__, "a//b", "a//", "b", 0, 0},
      {__LINE__, "a\\b", "(null)", "a\\b", 0, 0},
      {__LINE__, "", "(null)", "", ZOV_PATH_EMPTY, 0},
  };
  for (const auto &row : rows) {
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit(row.path, &directory, &name);
    EXPECT_EQ(taken(directory), row.directory) << row.line;
    EXPECT_EQ(taken(name), row.name) << row.line;
    zov_pathSplit(row.path, nullptr, nullptr);
    EXPECT_EQ(zov_pathIsDir(row.path), row.isDir) << row.line;
    EXPECT_EQ(zov_pathIsFullyQualified(row.path), row.isFullyQualified) << row.line;
    EXPECT_EQ(zov_pathStripDrive(row.path), row.path) << row.line;
  }
  EXPECT_EQ(zov_pathIsDir(nullptr), ZOV_PATH_EMPTY);
}

TEST_F(Paths, BecomeAbsoluteDirectories) {
  // Long enough that the buffer grows a few times, by no multiple of its step.
  const zovtest::TempDir dir;
  const std::string deep = dir / std::string(123, 'd');
  ASSERT_EQ(mkdir(deep.c_str(), 0777), 0);
  ASSERT_EQ(chdir(deep.c_str()), 0);
  const struct {
    int line;
    const char *path;
    std::string diskFull;
    std::string disklessFull;
  } rows[] = {
      {__LINE__, nullptr, deep + "/", "/"},
      {__LINE__, "", deep + "/", "/"},
      {__LINE__, ".", deep + "/", "/"},
      {__LINE__, "./", deep + "/", "/"},
      {__LINE__, "..", deep + "/../", "/../"},
      {__LINE__, "sub", deep + "/sub/", "/sub/"},
      {__LINE__, "a/../b/", deep + "/a/../b/", "/a/../b/"},
      {__LINE__, "/data", "/data/", "/data/"},
      {__LINE__, "//x//", "//x//", "//x//"},
  };
  EXPECT_EQ(taken(zov_currdir()), deep);
  for (const auto &row : rows) {
    EXPECT_EQ(taken(zov_fullpath(row.path)), row.diskFull) << row.line;
  }
  ASSERT_EQ(rmdir(deep.c_str()), 0);
  EXPECT_EQ(zov_currdir(), nullptr) << "the directory is gone";
  EXPECT_EQ(zov_fullpath("sub"), nullptr);
  EXPECT_EQ(taken(zov_fullpath("/sub")), "/sub/");
  zov_nodisk();
  EXPECT_EQ(taken(zov_currdir()), "/");
  for (const auto &row : rows) {
    EXPECT_EQ(taken(zov_fullpath(row.path)), row.disklessFull) << row.line;
  }
}

TEST_F(Paths, LinksAreNotFollowed) {
  const zovtest::TempDir dir;
  ASSERT_EQ(symlink("nowhere", (dir / "link").c_str()), 0);
  EXPECT_EQ(zov_pathIsLink((dir / "link").c_str()), 1);
  EXPECT_EQ(zov_pathIsLink(dir.path().c_str()), 0);
  EXPECT_EQ(zov_pathIsLink((dir / "nowhere").c_str()), 0);
}

TEST_F(Paths, LackOfMemoryLeavesNothingBehind) {
  testing::internal::CaptureStdout();  // the messages
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    const int64_t before = zovtest::liveBlocks();
    zovtest::failAllocationAfter(passing);
    char *full = zov_fullpath("some/where");
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit("some/where", &directory, &name);
    failed = zovtest::stopFailing();
    EXPECT_EQ(failed, full == nullptr || directory == nullptr || name == nullptr);
    zov_freeMem(full, ZOV_DEFAULT_TAG);
    zov_freeMem(directory, ZOV_DEFAULT_TAG);
    zov_freeMem(name, ZOV_DEFAULT_TAG);
    EXPECT_EQ(zovtest::liveBlocks(), before) << "after failing allocation " << passing;
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
