// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings, and the current directory.
#include <utility>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

using Paths = zovtest::Started;

// Takes over a string of the library; "(null)" for null.
std::string taken(char *text) {
  const std::string copy = text == nullptr ? "(null)" : text;
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  return copy;
}

TEST_F(Paths, AreSplitAtTheLastSlash) {
  const struct {
    const char *path;
    const char *directory;
    const char *name;
    uint32_t isDir;
  } rows[] = {
      {"/usr/lib/x.so", "/usr/lib/", "x.so", 0},
      {"x.so", "(null)", "x.so", 0},
      {"dir/", "dir/", "(null)", 1},
      {"/", "/", "(null)", 1},
      {"a//b\\c", "a//", "b\\c", 0},
      {"", "(null)", "", ZOV_PATH_EMPTY},
  };
  for (const auto &row : rows) {
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit(row.path, &directory, nullptr);
    zov_pathSplit(row.path, nullptr, &name);
    EXPECT_EQ(taken(directory), row.directory) << row.path;
    EXPECT_EQ(taken(name), row.name) << row.path;
    EXPECT_EQ(zov_pathIsDir(row.path), row.isDir) << row.path;
    EXPECT_EQ(zov_pathStripDrive(row.path), row.path);
  }
  EXPECT_EQ(zov_pathIsDir(nullptr), ZOV_PATH_EMPTY);
}

TEST_F(Paths, BecomeAbsoluteDirectories) {
  const zovtest::TempDir dir;  // some growths long
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  const struct {
    const char *path;
    std::string full;
  } rows[] = {
      {nullptr, dir / ""}, {"./", dir / ""},    {"..", dir / "../"},
      {"", dir / ""},      {"/data", "/data/"}, {"//x//", "//x//"},
  };
  EXPECT_EQ(taken(zov_currdir()), dir.path());
  for (const auto &row : rows) {
    EXPECT_EQ(taken(zov_fullpath(row.path)), row.full) << row.full;
  }
  ASSERT_EQ(symlink("nowhere", "link"), 0);
  EXPECT_EQ(zov_pathIsLink("link"), 1);
  EXPECT_EQ(zov_pathIsLink("nowhere"), 0);
  ASSERT_EQ(unlink("link"), 0);
  ASSERT_EQ(rmdir(dir.path().c_str()), 0);
  EXPECT_EQ(zov_fullpath("sub"), nullptr) << "relative to what is gone";
  zov_nodisk();
  EXPECT_EQ(taken(zov_fullpath("sub")), "/sub/");
}

}  // namespace
