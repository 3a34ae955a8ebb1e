// SPDX-License-Identifier: Apache-2.0
//
// Paths as strings, and the current directory.
#include <tuple>

#include "support/faults.h"
#include "support/route_file.h"
#include "support/temp_dir.h"

namespace {

using Paths = zovtest::Started;

TEST_F(Paths, AreSplitAtTheLastSlash) {
  const std::tuple<const char *, const char *, const char *, uint32_t> rows[] = {
      {"/usr/lib/x.so", "/usr/lib/", "x.so", 0},
      {"x.so", "(null)", "x.so", 0},
      {"dir/", "dir/", "(null)", 1},
      {"/", "/", "(null)", 1},
      {"a//b\\c", "a//", "b\\c", 0},
      {"", "(null)", "", ZOV_PATH_EMPTY},
  };
  for (const auto &[path, itsDirectory, itsName, isDir] : rows) {
    char *directory = nullptr;
    char *name = nullptr;
    zov_pathSplit(path, &directory, nullptr);
    zov_pathSplit(path, nullptr, &name);
    EXPECT_EQ(zovtest::taken(directory, "(null)"), itsDirectory) << path;
    EXPECT_EQ(zovtest::taken(name, "(null)"), itsName) << path;
    EXPECT_EQ(zov_pathIsDir(path), isDir) << path;
    EXPECT_EQ(zov_pathStripDrive(path), path);
  }
  EXPECT_EQ(zov_pathIsDir(nullptr), ZOV_PATH_EMPTY);
}

TEST_F(Paths, BecomeAbsoluteDirectories) {
  const zovtest::TempDir dir;  // some growths long
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  const std::pair<const char *, std::string> rows[] = {
      {nullptr, dir / ""}, {"./", dir / ""},    {"..", dir / "../"},
      {"", dir / ""},      {"/data", "/data/"}, {"//x//", "//x//"},
  };
  EXPECT_EQ(zovtest::taken(zov_currdir()), dir.path());
  for (const auto &[path, full] : rows) {
    EXPECT_EQ(zovtest::taken(zov_fullpath(path)), full) << full;
  }
  ASSERT_EQ(symlink("nowhere", "link"), 0);
  EXPECT_EQ(zov_pathIsLink("link"), 1);
  EXPECT_EQ(zov_pathIsLink("nowhere"), 0);
  ASSERT_EQ(unlink("link"), 0);
  ASSERT_EQ(rmdir(dir.path().c_str()), 0);
  EXPECT_EQ(zov_fullpath("sub"), nullptr) << "relative to what is gone";
  zov_nodisk();
  EXPECT_EQ(zovtest::taken(zov_fullpath("sub")), "/sub/");
}

}  // namespace
