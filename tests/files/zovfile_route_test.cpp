// SPDX-License-Identifier: Apache-2.0
//
// One body for both routes: what files on disk and files in memory share, run
// on each through the file handles and utilities, and from one to the other. The
// last test is the table of differences in docs/files-in-memory.md.
#include <memory>

#include "support/faults.h"
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

// A handle, and what it must find: the file that had the name when it was opened.
struct Handle {
  std::shared_ptr<std::string> bytes;  // from the base on
  ZOV_FILE file = nullptr;
  size_t at = 0;
};

// One random call, at the handle's place or elsewhere, from the base on.
void step(zovtest::Random &random, Handle &on, int64_t base) {
  const size_t length = on.bytes->size();
  const bool isHere = random.below(2) == 0;
  const size_t at = isHere ? on.at : random.below(1u << (8 + random.below(13)));
  const int64_t offset = isHere ? ZOV_OFFSET_CURRENT : base + static_cast<int64_t>(at);
  std::string data(random.below(1u << random.below(17)), static_cast<char>(random()));
  const uint32_t size = static_cast<uint32_t>(data.size());
  const uint32_t choice = random.below(8);
  size_t moved = 0;
  if (choice < 3) {
    moved = size;
    ASSERT_EQ(isHere && choice == 0 ? zov_fileWrite(on.file, data.data(), size)
                                    : zov_fileSeekWrite(on.file, offset, data.data(), size),
              moved);
    on.bytes->resize(size == 0 ? length : std::max(length, at + size));
    on.bytes->replace(std::min(at, on.bytes->size()), size, data);
  } else if (choice < 6) {
    const std::string expected = at < length ? on.bytes->substr(at, size) : "";
    moved = isHere && choice == 3 ? zov_fileRead(on.file, data.data(), size)
                                  : zov_fileSeekRead(on.file, offset, data.data(), size);
    ASSERT_EQ(moved, expected.size());
    ASSERT_EQ(data.compare(0, moved, expected), 0) << at;
  } else if (choice == 6) {
    const int64_t target = random.below(length + 1);
    const int64_t from[] = {-base, static_cast<int64_t>(on.at), static_cast<int64_t>(length)};
    const int32_t whence = static_cast<int32_t>(random.below(3));
    EXPECT_EQ(zov_fileSeek(on.file, -from[1] - base - 1, SEEK_CUR), ZOV_ERROR);
    ASSERT_EQ(zov_fileSeek(on.file, target - from[whence], whence), ZOV_OKAY);
    on.at = static_cast<size_t>(target);
  } else {
    on.bytes->resize(random.below(4) == 0 ? 0 : at);
    ASSERT_EQ(zov_fileSetSize(on.file, base + static_cast<int64_t>(on.bytes->size())), ZOV_OKAY);
  }
  on.at += isHere ? moved : 0;
  ASSERT_EQ(zov_fileLength(on.file), base + static_cast<int64_t>(on.bytes->size()));
}

// Several handles, at the beginning of a file or beyond 4 GiB. They come and go, so that
// files are cut while others have them open, and files lose their names.
TEST_P(Route, HandlesAgreeWithAModel) {
  zovtest::Random random;
  int64_t blocks = 0;
  for (int round = 0; round < zovtest::rounds(200); ++round) {
    const int64_t base = round % 4 == 0 ? (int64_t{5} << 30) + 3 : 0;
    std::shared_ptr<std::string> named;
    Handle handles[4];
    EXPECT_TRUE(open("f", O_RDWR) == nullptr && errno == ENOENT);
    for (int left = 150; left > 0; --left) {
      Handle &on = handles[random.below(4)];
      if (on.file == nullptr || random.below(10) == 0) {
        on.file == nullptr ? void() : zov_fileClose(on.file);
        const bool isEmpty = named == nullptr || random.below(4) == 0;
        named = named == nullptr ? std::make_shared<std::string>() : named;
        named->resize(isEmpty ? 0 : named->size());
        on = {named, open("f", O_RDWR | O_CREAT | (isEmpty ? O_TRUNC : 0u))};
        ASSERT_TRUE(!isEmpty || base == 0 || zov_fileSeekWrite(on.file, base - 1, "", 1) == 1);
        ASSERT_EQ(zov_fileSeek(on.file, base, SEEK_SET), ZOV_OKAY);
      }
      ASSERT_NO_FATAL_FAILURE(step(random, on, base)) << "round " << round;
      if (named != nullptr && random.below(30) == 0) {
        EXPECT_EQ(zov_fileSync(on.file), ZOV_OKAY);
        EXPECT_EQ(zov_fileLengthStat(at("f").c_str(), flags), base + int64_t(named->size()));
        EXPECT_EQ(zov_fileRemoveEx(at("f").c_str(), flags), ZOV_OKAY);
        named = nullptr;
      }
    }
    for (const Handle &on : handles) {
      on.file == nullptr ? void() : zov_fileClose(on.file);
    }
    zov_fileRemoveEx(at("f").c_str(), flags);
    blocks = round == 0 ? zovtest::liveBlocks() : blocks;
    EXPECT_EQ(zovtest::liveBlocks(), blocks);
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
  zovtest::expectTable("files-in-memory.md", "What differs from the disk", table);
}

}  // namespace
