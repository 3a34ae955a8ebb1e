// SPDX-License-Identifier: Apache-2.0
//
// One body for both routes: what files on disk and files in memory share, run
// on each through the file handles and utilities, and from one to the other. The
// last test is the table of the differences that are meant.
#include <set>

#include "support/on_route.h"

namespace {

class Route : public zovtest::OnRoute {
 protected:
  ZOV_FILE open(const std::string &name, uint32_t openFlags) {
    return zov_fileOpen(at(name).c_str(), openFlags, flags);
  }

  std::set<std::string> list(const std::string &name, const char *pattern) {
    std::set<std::string> names;
    ZOV_PATH_WALK walk = zov_pathOpenEx(at(name).c_str(), flags, pattern);
    int32_t isDirectory = -1;
    while (const char *each = zov_pathNext(walk, &isDirectory)) {
      names.insert(std::string(each) + (isDirectory != 0 ? "/" : ""));
    }
    zov_pathClose(walk);
    names.erase("./");
    names.erase("../");
    return names;
  }
};
INSTANTIATE_TEST_SUITE_P(Where, Route, zovtest::bothRoutes, zovtest::routeName);

TEST_P(Route, PositionsFollowTheTransfers) {
  errno = 0;
  EXPECT_EQ(open("f", O_RDWR), nullptr);
  EXPECT_EQ(errno, ENOENT);
  ZOV_FILE file = open("f", O_RDWR | O_CREAT);
  char text[8] = "";
  EXPECT_EQ(zov_fileWrite(file, "0123456789", 10), 10u);
  EXPECT_EQ(zov_fileSeek(file, -4, SEEK_CUR), ZOV_OKAY);
  EXPECT_EQ(zov_fileRead(file, text, 3), 3u);
  EXPECT_STREQ(text, "678");
  EXPECT_EQ(zov_fileSeekWrite(file, 1, "AB", 2), 2u);
  EXPECT_EQ(zov_fileSeekRead(file, ZOV_OFFSET_CURRENT, text, 8), 1u) << "behind the last read";
  EXPECT_EQ(text[0], '9');
  EXPECT_EQ(zov_fileSeekWrite(file, ZOV_OFFSET_CURRENT, "xy", 2), 2u);
  EXPECT_EQ(zov_fileSeek(file, -12, SEEK_END), ZOV_OKAY);
  EXPECT_EQ(zov_fileSeek(file, -1, SEEK_CUR), ZOV_ERROR) << "before the beginning";
  EXPECT_EQ(zov_fileRead(file, text, 4), 4u);
  EXPECT_EQ(std::string(text, 4), "0AB3");
  EXPECT_EQ(zov_fileSeekRead(file, 100, text, 8), 0u);
  EXPECT_EQ(zov_fileRead(file, text, 0) + zov_fileWrite(file, text, 0), 0u);
  EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
  zov_fileClose(file);
  EXPECT_EQ(get("f"), "0AB3456789xy");
}

TEST_P(Route, SizeCutsAndLengthens) {
  put("f", std::string(20000, 'x'));
  put("f", "xxxyyyy");
  EXPECT_EQ(get("f"), "xxxyyyy");
  EXPECT_EQ(zov_fileLengthStat(at("f").c_str(), flags), 7);
  EXPECT_GT(zov_fileModTimeStat(at("f").c_str(), flags), 0);
  ZOV_FILE file = open("f", O_RDWR);
  EXPECT_EQ(zov_fileSetSize(file, 3), 0);
  EXPECT_EQ(zov_fileSetSize(file, 9000), 0);
  EXPECT_EQ(zov_fileSeekWrite(file, 30000, "end", 3), 3u) << "past the end";
  EXPECT_EQ(zov_fileLength(file), 30003);
  zov_fileClose(file);
  EXPECT_EQ(get("f"), "xxx" + std::string(29997, '\0') + "end");
}

TEST_P(Route, HandlesShareTheFileNotThePosition) {
  ZOV_FILE first = open("f", O_RDWR | O_CREAT);
  ZOV_FILE second = open("f", O_RDWR);
  EXPECT_EQ(zov_fileWrite(first, "text", 4), 4u);
  char text[5] = "";
  EXPECT_EQ(zov_fileRead(second, text, 4), 4u);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(zov_fileRemoveEx(at("f").c_str(), flags), ZOV_OKAY);
  EXPECT_EQ(zov_fileSeekRead(first, 1, text, 3), 3u) << "removed, and still there";
  EXPECT_EQ(get("f"), "(none)");
  zov_fileClose(first);
  zov_fileClose(second);
}

TEST_P(Route, RenamesValidatesAndWalks) {
  put("one.txt", "1");
  put("two.txt", "2");
  put("three.dat", "3");
  const auto rename = [&](const char *from, const char *to) {
    return zov_fileRenameEx(at(from).c_str(), flags, at(to).c_str(), flags);
  };
  const auto kind = [&](const char *name) {
    int32_t isDirectory = 0;
    const int32_t valid = zov_fileValidateEx(at(name).c_str(), flags, &isDirectory);
    return valid + isDirectory;
  };
  EXPECT_EQ(rename("one.txt", "four.txt"), ZOV_OKAY);
  EXPECT_NE(rename("none", "five"), ZOV_OKAY);
  EXPECT_EQ(list("", "*.TXT"), (std::set<std::string>{"four.txt", "two.txt"}));
  EXPECT_EQ(get("four.txt"), "1");
  EXPECT_EQ(kind(""), 2);
  EXPECT_EQ(kind("two.txt"), 1);
  EXPECT_EQ(kind("none"), 0);
  EXPECT_EQ(zov_pathOpenEx(at("none").c_str(), flags, "*"), nullptr);
}

// From every route to every route.
TEST_P(Route, CopiesComparesAndMoves) {
  std::string text(30000, 'x');
  text[20001] = 'y';
  put("from", text);
  for (const uint32_t other : {uint32_t{0}, ZOV_FILE_MEMORY}) {
    const std::string to = at("to") + std::to_string(other);
    const std::string from = at("from");
    ASSERT_EQ(zov_fileCopyEx(from.c_str(), flags, to.c_str(), other), ZOV_OKAY);
    EXPECT_EQ(zov_fileCmpEx(from.c_str(), flags, to.c_str(), other), ZOV_OKAY);
    ZOV_FILE file = zov_fileOpen(to.c_str(), O_RDWR, other);
    EXPECT_EQ(zov_fileSeekWrite(file, 20000, "!", 1), 1u);
    zov_fileClose(file);
    EXPECT_EQ(zov_fileCmpEx(from.c_str(), flags, to.c_str(), other), ZOV_ERROR);
    ASSERT_EQ(zov_fileMoveEx(from.c_str(), flags, to.c_str(), other), ZOV_OKAY);
    EXPECT_EQ(get("from"), "(none)");
    ASSERT_EQ(zov_fileMoveEx(to.c_str(), other, from.c_str(), flags), ZOV_OKAY);
    EXPECT_EQ(get("from"), text);
  }
}

TEST_P(Route, DiffersWhereItIsMeantTo) {
  const bool memory = flags != 0;
  // Missing directories are made.
  ZOV_FILE file = open("no/such/dir/f", O_RDWR | O_CREAT);
  EXPECT_EQ(file != nullptr, memory);
  if (file != nullptr) {
    zov_fileClose(file);
  }
  // Letters' case does not count.
  put("f", "text");
  EXPECT_EQ(get("F"), memory ? "text" : "(none)");
  // Appending begins at 0, and access modes are not enforced.
  file = open("f", O_RDONLY | (memory ? O_APPEND : 0));
  EXPECT_EQ(zov_fileWrite(file, "T", 1), memory ? 1u : ZOV_IO_FAILED);
  // Seeking past the end is refused.
  EXPECT_EQ(zov_fileSeek(file, 5, SEEK_SET), memory ? ZOV_ERROR : ZOV_OKAY);
  zov_fileClose(file);
  EXPECT_EQ(get("f"), memory ? "Text" : "text");
  // A rename stays in its directory, and does not replace what is there.
  put("g", "");
  EXPECT_EQ(zov_fileRenameEx(at("f").c_str(), flags, at("g").c_str(), flags),
            memory ? ZOV_ERROR : ZOV_OKAY);
  // The process-wide flags are the disk's.
  zov_rdonly();
  EXPECT_EQ(open("g", O_RDWR | O_CREAT) != nullptr, memory);
}

}  // namespace
