// SPDX-License-Identifier: Apache-2.0
//
// One body for both routes: what files on disk and files in memory share, run
// on each through the file handles and utilities, and from one to the other. The
// last test is the table of differences in docs/files-in-memory.md.
#include "support/guide.h"
#include "support/on_route.h"

namespace {

class Route : public zovtest::OnRoute {
 protected:
  ZOV_FILE open(const std::string &name, uint32_t openFlags) {
    return zov_fileOpen(at(name).c_str(), openFlags, flags);
  }
};
INSTANTIATE_TEST_SUITE_P(Where, Route, zovtest::bothRoutes, zovtest::routeName);

// At the beginning of a file and beyond 4 GiB.
TEST_P(Route, PositionsFollowTheTransfers) {
  errno = 0;
  EXPECT_EQ(open("f", O_RDWR), nullptr);
  EXPECT_EQ(errno, ENOENT);
  for (const int64_t base : {int64_t{0}, (int64_t{5} << 30) + 3}) {
    ZOV_FILE file = open("f", O_RDWR | O_TRUNC);
    char text[13] = "";
    EXPECT_EQ(zov_fileSeekWrite(file, base, "01234", 5), 5u);
    EXPECT_EQ(zov_fileSeek(file, base + 5, SEEK_SET), ZOV_OKAY);
    EXPECT_EQ(zov_fileWrite(file, "56789", 5), 5u);
    EXPECT_EQ(zov_fileSeek(file, -4, SEEK_CUR), ZOV_OKAY);
    EXPECT_EQ(zov_fileRead(file, text, 3), 3u);
    EXPECT_STREQ(text, "678");
    EXPECT_EQ(zov_fileSeekWrite(file, base + 1, "AB", 2), 2u);
    EXPECT_EQ(zov_fileSeekRead(file, ZOV_OFFSET_CURRENT, text, 8), 1u) << "behind the last read";
    EXPECT_EQ(text[0], '9');
    EXPECT_EQ(zov_fileSeekWrite(file, ZOV_OFFSET_CURRENT, "xy", 2), 2u);
    EXPECT_EQ(zov_fileSeek(file, -12, SEEK_END), ZOV_OKAY);
    EXPECT_EQ(zov_fileSeek(file, -1 - base, SEEK_CUR), ZOV_ERROR) << "before the beginning";
    EXPECT_EQ(zov_fileRead(file, text, 4), 4u);
    EXPECT_EQ(std::string(text, 4), "0AB3");
    EXPECT_EQ(zov_fileSeekRead(file, base + 100, text, 8), 0u);
    EXPECT_EQ(zov_fileRead(file, text, 0) + zov_fileWrite(file, text, 0), 0u);
    EXPECT_EQ(zov_fileSeekRead(file, base, text, 13), 12u);
    EXPECT_STREQ(text, "0AB3456789xy");
    EXPECT_EQ(zov_fileLength(file), base + 12);
    EXPECT_EQ(zov_fileSetSize(file, base + 1), ZOV_OKAY);
    EXPECT_EQ(zov_fileSync(file), ZOV_OKAY);
    zov_fileClose(file);
    EXPECT_EQ(zov_fileLengthStat(at("f").c_str(), flags), base + 1);
  }
}

// One side of a difference: a directory of its own, which is the current one,
// with the files f and g, which hold "text", and the empty directory e.
struct Side {
  std::string at(const std::string &name) const { return directory + "/" + name; }
  ZOV_FILE handle(const std::string &path, int openFlags) const {
    return zov_fileOpen(path.c_str(), static_cast<uint32_t>(openFlags), flags);
  }
  std::string open(const std::string &path, int openFlags) const {
    ZOV_FILE file = handle(path, openFlags);
    return file != nullptr ? zov_fileClose(file), "opens" : strerrorname_np(errno);
  }
  int64_t time(const char *name) const { return zov_fileModTimeStat(at(name).c_str(), flags); }
  int32_t remove(const char *name) const { return zov_fileRemoveEx(at(name).c_str(), flags); }
  int32_t rename(const char *from, const char *to) const {
    return zov_fileRenameEx(at(from).c_str(), flags, at(to).c_str(), flags);
  }
  bool has(const char *name) const {
    int32_t isDirectory = 0;
    return zov_fileValidateEx(at(name).c_str(), flags, &isDirectory) == 1;
  }
  int32_t lockTwice() const {
    ZOV_FILE handles[] = {handle(at("f"), O_RDWR), handle(at("f"), O_RDWR)};
    zov_fileLock(handles[0]);
    const int32_t status = zov_fileLock(handles[1]);
    for (const int each : {1, 0}) {
      each == 0 || status == ZOV_OKAY ? zov_fileUnlock(handles[each]) : void();
      zov_fileClose(handles[each]);
    }
    return status;
  }
  std::string first(const std::string &path) const {
    int32_t isDirectory = 0;
    ZOV_PATH_WALK walk = zov_pathOpenEx(path.c_str(), flags, ".");
    const char *name = zov_pathNext(walk, &isDirectory);
    const std::string found = walk == nullptr ? "no walk" : name == nullptr ? "nothing" : name;
    zov_pathClose(walk);
    return found;
  }

  std::string directory;
  uint32_t flags;
};

#define SAYS(...) [](const Side &on) -> std::string { return __VA_ARGS__; }
#define GIVES(...) [](const Side &on) { return std::to_string(__VA_ARGS__); }
#define ON_HANDLE(openFlags, call)                     \
  GIVES([&](ZOV_FILE file) {                           \
    const int64_t result = static_cast<int32_t>(call); \
    return zov_fileClose(file), result;                \
  }(on.handle(on.at("f"), openFlags)))

// clang-format off
const struct {
  const char *what;
  std::string (*call)(const Side &);
} kDifferences[] = {
    {"opening with `O_CREAT` below directories that are missing", SAYS(on.open(on.at("new/er/f"), O_CREAT))},
    {"asking for something below a directory that is missing",
     SAYS(on.has("new/f"), on.has("new") ? "makes the directory" : "makes nothing")},
    {"opening `F` where there is `f`", SAYS(on.open(on.at("F"), O_RDWR))},
    {"opening with `O_CREAT` and `O_EXCL` what is there", SAYS(on.open(on.at("f"), O_CREAT | O_EXCL))},
    {"opening a directory to read", SAYS(on.open(on.at("e"), O_RDONLY))},
    {"opening `f`, without a slash", SAYS(on.open("f", O_RDWR))},
    {"a backslash in the path of a directory",
     SAYS(on.open(on.at("e\\x/new"), O_CREAT), on.has("e/x/new") ? "separates" : "is a letter")},
    {"`zov_fileWrite` of a byte with `O_RDONLY`", ON_HANDLE(O_RDONLY, zov_fileWrite(file, "T", 1))},
    {"the length of 4 bytes after one more with `O_APPEND`",
     ON_HANDLE(O_WRONLY | O_APPEND, zov_fileWrite(file, "T", 1) + zov_fileLength(file) - 1)},
    {"`zov_fileSeek` past the end", ON_HANDLE(O_RDWR, zov_fileSeek(file, 5, SEEK_SET))},
    {"`zov_fileSeekRead` at an offset of -2", ON_HANDLE(O_RDWR, zov_fileSeekRead(file, -2, &file, 1))},
    {"`zov_fileSetSize` to -1", ON_HANDLE(O_RDWR, zov_fileSetSize(file, -1))},
    {"`zov_fileLock` of a file that the thread has locked by another handle",
     GIVES(on.lockTwice())},
    {"`zov_fileLengthStat` of a missing file", GIVES(zov_fileLengthStat(on.at("none").c_str(), on.flags))},
    {"`zov_fileModTimeStat` of a missing file", GIVES(on.time("none"))},
    {"`zov_fileModTimeStat` of a file that was never written",
     SAYS(on.open(on.at("new"), O_CREAT), on.time("new") == 0 ? "0" : "when it was made")},
    {"`zov_fileRemoveEx` of a missing file", GIVES(on.remove("none"))},
    {"`zov_fileRemoveEx` of an empty directory", GIVES(on.remove("e"))},
    {"`zov_fileRenameEx` of a missing file", GIVES(on.rename("none", "new"))},
    {"`zov_fileRenameEx` onto a name that is taken", GIVES(on.rename("f", "g"))},
    {"`zov_fileRenameEx` to a path in another directory",
     SAYS(on.rename("f", "e/new"), on.has("e/new") ? "moves it" : on.has("new") ? "changes its name" : "fails")},
    {"the name \".\" in a walk", SAYS(on.first(on.at("e")))},
    {"a walk through `e`, a relative path", SAYS(on.first("e"))},
    {"opening to write under `zov_rdonly`", SAYS(zov_rdonly(), on.open(on.at("f"), O_RDWR))},
    {"opening to read under `zov_nodisk`", SAYS(zov_nodisk(), on.open(on.at("f"), O_RDONLY))},
};
// clang-format on

using Differences = zovtest::StartedInDir;

TEST_F(Differences, AreAsTheGuideSays) {
  std::string table = "| | on disk | in memory |\n|---|---|---|\n";
  for (const auto &row : kDifferences) {
    table += std::string("| ") + row.what;
    for (const uint32_t flags : {uint32_t{0}, ZOV_FILE_MEMORY}) {
      const Side on = {at(std::to_string(table.size())), flags};
      ASSERT_EQ(zov_dirCreateAll(on.at("e").c_str()), ZOV_OKAY);
      ASSERT_EQ(chdir(on.directory.c_str()), 0);
      for (const char *name : {"f", "g", "e/gone"}) {
        ASSERT_TRUE(zovtest::putFile(on.at(name), "text", flags));
      }
      on.remove("e/gone");
      table += " | " + row.call(on);
      zov_readonly = zov_diskless = 0;
    }
    table += " |\n";
  }
  zovtest::expectTable(zovtest::guideSection("files-in-memory.md", "What differs from the disk"),
                       table);
}

}  // namespace
