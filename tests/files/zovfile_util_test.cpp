// SPDX-License-Identifier: Apache-2.0
//
// Copy, compare, move, remove, rename, validate, directory chains, walks and
// temporary names, on disk. The system calls beneath are counted or made to
// fail; what is on disk is judged by the standard library.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>
#include <string>

#include "support/alloc_failure.h"
#include "support/temp_dir.h"
#include "zov.h"

namespace {
int64_t writes = 0;         // calls of pwrite()
bool refuseRename = false;  // as between two file systems
}  // namespace

extern "C" {
ssize_t __real_pwrite(int descriptor, const void *buffer, size_t count, off_t offset);
int __real_rename(const char *from, const char *to);
ssize_t __wrap_pwrite(int descriptor, const void *buffer, size_t count, off_t offset);
int __wrap_rename(const char *from, const char *to);

ssize_t __wrap_pwrite(int descriptor, const void *buffer, size_t count, off_t offset) {
  ++writes;
  return __real_pwrite(descriptor, buffer, count, offset);
}

int __wrap_rename(const char *from, const char *to) {
  if (refuseRename) {
    errno = EXDEV;
    return -1;
  }
  return __real_rename(from, to);
}
}

namespace {

using zovtest::fileExists;
using zovtest::readFile;
using zovtest::writeFile;

class FileUtil : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(zov_init(), ZOV_OKAY); }
  void TearDown() override { zov_term(); }
  std::string at(const std::string &name) const { return dir / name; }

  zovtest::TempDir dir;
};

std::string blocks(const char *letters) {
  std::string text;
  for (; *letters != '\0'; ++letters) {
    text += std::string(1024, *letters);
  }
  return text;
}

// Copies `source` over `destination` and tells how many writes that took.
TEST_F(FileUtil, CopyRewritesOnlyWhatDiffers) {
  const struct {
    int line;
    std::string source;
    std::string destination;
    int64_t writes;
  } rows[] = {
      {__LINE__, "", "", 0},
      {__LINE__, "abc", "", 1},
      {__LINE__, "", "abc", 0},
      {__LINE__, blocks("abcd"), "", 4},
      {__LINE__, blocks("abcd"), blocks("abcd"), 0},
      {__LINE__, blocks("abcd"), blocks("axcd"), 1},
      {__LINE__, blocks("abcd"), blocks("abcdef"), 0},
      {__LINE__, blocks("abcd") + "tail", blocks("abcd") + "tails", 0},
      {__LINE__, blocks("abcd") + "tail", blocks("abcd") + "tal", 1},
      {__LINE__, blocks("abcd"), blocks("ab") + "c", 2},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    writeFile(at("from"), row.source);
    writeFile(at("to"), row.destination);
    writes = 0;
    EXPECT_EQ(zov_fileCopy(at("from").c_str(), at("to").c_str()), ZOV_OKAY);
    EXPECT_EQ(writes, row.writes);
    EXPECT_EQ(readFile(at("to")), row.source);
    EXPECT_EQ(zov_fileCmp(at("from").c_str(), at("to").c_str()), ZOV_OKAY);
  }
}

TEST_F(FileUtil, CompareTellsHowFilesDiffer) {
  const struct {
    int line;
    std::string first;
    std::string second;
    int32_t status;
  } rows[] = {
      {__LINE__, "", "", ZOV_OKAY},
      {__LINE__, "abcd", "abc", ZOV_ERROR},
      {__LINE__, blocks("ab"), blocks("ab") + "c", ZOV_ERROR},
      {__LINE__, blocks("ab") + "x", blocks("ab") + "y", ZOV_ERROR},
      {__LINE__, blocks("ab"), blocks("ab"), ZOV_OKAY},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    writeFile(at("one"), row.first);
    writeFile(at("two"), row.second);
    EXPECT_EQ(zov_fileCmp(at("one").c_str(), at("two").c_str()), row.status);
  }
  EXPECT_EQ(zov_fileCmp(at("none").c_str(), at("two").c_str()), ZOV_NOFILE);
  EXPECT_EQ(zov_fileCmp(at("one").c_str(), at("none").c_str()), ZOV_NOFILE2);
  int32_t isDirectory = 7;
  EXPECT_EQ(zov_fileValidate(at("one").c_str(), nullptr), 1);
  EXPECT_EQ(zov_fileValidate(dir.path().c_str(), &isDirectory), 1);
  EXPECT_EQ(isDirectory, 1);
  EXPECT_EQ(zov_fileValidate(at("none").c_str(), nullptr), 0);
  EXPECT_EQ(zov_fileCmp(at("NONE").c_str(), at("none").c_str()), ZOV_OKAY)
      << "equal but for case is not looked at";
}

TEST_F(FileUtil, MissingSourcesAreRefused) {
  EXPECT_EQ(zov_fileCopy(at("none").c_str(), at("to").c_str()), ZOV_ERROR);
  EXPECT_FALSE(fileExists(at("to")));
  writeFile(at("from"), "text");
  EXPECT_EQ(zov_fileCopy(at("from").c_str(), at("no/dir").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileMove(at("none").c_str(), at("to").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileRemove(at("none").c_str()), -1);
  EXPECT_EQ(zov_fileRename(at("none").c_str(), at("to").c_str()), -1);
  EXPECT_EQ(zov_fileRenameEx(at("from").c_str(), 0, "x", ZOV_FILE_MEMORY), ZOV_ERROR);
  EXPECT_EQ(zov_fileCopy(nullptr, "x"), ZOV_ERROR);
  EXPECT_EQ(zov_fileMoveW(L"x", nullptr), ZOV_ERROR);
  EXPECT_EQ(zov_pathOpen(nullptr, "*"), nullptr);
}

TEST_F(FileUtil, MoveReplacesAndCrossesFileSystems) {
  for (const bool refuse : {false, true}) {
    SCOPED_TRACE(refuse);
    refuseRename = refuse;
    writeFile(at("from"), "new");
    writeFile(at("to"), "old and longer");
    EXPECT_EQ(zov_fileMove(at("from").c_str(), at("to").c_str()), ZOV_OKAY);
    EXPECT_FALSE(fileExists(at("from")));
    EXPECT_EQ(readFile(at("to")), "new");
  }
  refuseRename = false;
  // Two links of one file: the entry moves, though rename() would do nothing.
  std::filesystem::create_hard_link(at("to"), at("link"));
  EXPECT_EQ(zov_fileMove(at("link").c_str(), at("to").c_str()), ZOV_OKAY);
  EXPECT_FALSE(fileExists(at("link")));
  EXPECT_EQ(readFile(at("to")), "new");
}

TEST_F(FileUtil, MoveOntoItselfKeepsTheFile) {
  std::filesystem::create_directory(at("sub"));
  writeFile(at("file"), "kept");
  for (const char *spelling : {"file", "FILE", "./file", "sub/../file", ".//file"}) {
    SCOPED_TRACE(spelling);
    EXPECT_EQ(zov_fileMove(at("file").c_str(), at(spelling).c_str()), ZOV_OKAY);
    EXPECT_EQ(readFile(at("file")), "kept");
  }
}

TEST_F(FileUtil, DirectoryChainsAreCompleted) {
  const struct {
    int line;
    const char *path;
    const char *made;
    int32_t status;
  } rows[] = {
      {__LINE__, "a/b/c", "a/b/c", ZOV_OKAY}, {__LINE__, "a/b/c", "a/b/c", ZOV_EXISTS},
      {__LINE__, "a/d", "a/d", ZOV_OKAY},     {__LINE__, "e\\f", "e/f", ZOV_OKAY},
      {__LINE__, "g//h/", "g/h", ZOV_EXISTS}, {__LINE__, "file/x", "a", ZOV_ERROR},
  };
  writeFile(at("file"), "");
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(zov_dirCreateAll(at(row.path).c_str()), row.status);
    EXPECT_TRUE(std::filesystem::is_directory(at(row.made)));
  }
  EXPECT_FALSE(fileExists(at("e\\f")));
}

TEST_F(FileUtil, DirectoryMoveTakesItsFiles) {
  std::filesystem::create_directories(at("from/sub"));
  for (const char *name : {"one", "two", "three"}) {
    writeFile(at("from/") + name, name);
  }
  refuseRename = true;
  EXPECT_EQ(zov_dirMove(at("from").c_str(), at("new/to").c_str()), ZOV_OKAY);
  EXPECT_EQ(readFile(at("new/to/two")), "two");
  EXPECT_FALSE(fileExists(at("from/one")));
  EXPECT_TRUE(fileExists(at("from/sub"))) << "directories stay";
  std::filesystem::remove(at("from/sub"));
  EXPECT_EQ(zov_dirMove(at("from").c_str(), at("new/to").c_str()), ZOV_OKAY);
  EXPECT_FALSE(fileExists(at("from"))) << "an empty source goes";
  refuseRename = false;
  EXPECT_EQ(zov_dirMove(at("new").c_str(), at("renamed").c_str()), ZOV_OKAY);
  EXPECT_EQ(readFile(at("renamed/to/three")), "three");
}

TEST_F(FileUtil, FlagsProtectTheDisk) {
  writeFile(at("file"), "text");
  zov_readonly = 1;
  EXPECT_EQ(zov_fileRemove(at("file").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileRename(at("file").c_str(), at("new").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileCopy(at("file").c_str(), at("new").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileMove(at("file").c_str(), at("new").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileValidate(at("file").c_str(), nullptr), 1);
  EXPECT_EQ(zov_findOStmpdir(), nullptr);
  zov_readonly = 0;
  zov_diskless = 1;
  EXPECT_EQ(zov_fileRemove(at("file").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileValidate(at("file").c_str(), nullptr), 0);
  EXPECT_EQ(zov_dirCreateAll(at("sub").c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_pathOpen(dir.path().c_str(), "*"), nullptr);
  zov_diskless = 0;
  EXPECT_EQ(readFile(at("file")), "text");
}

TEST_F(FileUtil, WalksFindEveryMatch) {
  std::set<std::string> expected;
  for (int number = 0; number < 3000; ++number) {
    const std::string name = "name" + std::to_string(number) + (number % 3 == 0 ? ".a" : ".b");
    writeFile(at(name), "");
    if (number % 3 == 0) {
      expected.insert(name);
    }
  }
  std::set<std::string> found;
  ZOV_PATH_WALK walk = zov_pathOpen(dir.path().c_str(), "name*.a");
  ASSERT_NE(walk, nullptr);
  int32_t isDirectory = 7;
  while (const char *name = zov_pathNext(walk, &isDirectory)) {
    EXPECT_EQ(isDirectory, 0);
    EXPECT_TRUE(found.insert(name).second);
  }
  EXPECT_EQ(zov_pathNext(walk, &isDirectory), nullptr);
  zov_pathClose(walk);
  EXPECT_EQ(found, expected);
  zov_pathClose(nullptr);
}

TEST_F(FileUtil, WideFormsConvertTheirPaths) {
  const std::wstring base(dir.path().begin(), dir.path().end());
  const auto wide = [&](const wchar_t *name) { return base + L"/" + name; };
  writeFile(at("\xC3\xA9"), "text");
  EXPECT_EQ(zov_fileCopyW(wide(L"\xE9").c_str(), wide(L"copy").c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_fileCmpW(wide(L"\xE9").c_str(), wide(L"copy").c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_fileRenameW(wide(L"copy").c_str(), wide(L"\x20AC").c_str()), ZOV_OKAY);
  EXPECT_EQ(readFile(at("\xE2\x82\xAC")), "text");
  EXPECT_EQ(zov_fileMoveW(wide(L"\x20AC").c_str(), wide(L"m").c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_fileValidateW(wide(L"m").c_str(), nullptr), 1);
  EXPECT_EQ(zov_fileRemoveW(wide(L"m").c_str()), 0);
  EXPECT_EQ(zov_dirCreateAllW(wide(L"d\xE9/e").c_str()), ZOV_OKAY);
  EXPECT_TRUE(fileExists(at("d\xC3\xA9/e")));
  EXPECT_EQ(zov_dirMoveW(wide(L"d\xE9").c_str(), wide(L"f").c_str()), ZOV_OKAY);
  EXPECT_TRUE(fileExists(at("f/e")));
  EXPECT_EQ(zov_fileRemoveW(L"\xD800"), ZOV_ERROR) << "not a character";

  ZOV_PATH_WALK walk = zov_pathOpenW(base.c_str(), L"?");
  ASSERT_NE(walk, nullptr);
  int32_t isDirectory = 0;
  std::set<std::wstring> names;
  wchar_t *previous = nullptr;
  while (wchar_t *name = zov_pathNextW(walk, &isDirectory)) {
    names.insert(name);
    zov_freeMem(previous, ZOV_DEFAULT_TAG);
    previous = name;
  }
  zov_pathClose(walk);
  // The pattern counts characters as the matcher does; both one-letter names
  // of the directory itself are there.
  EXPECT_TRUE(names.count(L"f") == 1 && names.count(L".") == 1);
}

TEST_F(FileUtil, TemporaryNamesAreDistinct) {
  ASSERT_EQ(setenv("QEL_TMPDIR", "/no/such/place", 1), 0);
  uint32_t counter = 999;
  char pid[32];
  snprintf(pid, sizeof pid, "_%010u_", static_cast<unsigned>(getpid()));
  char *first = zov_fileCreateTmpName(&counter, nullptr, nullptr, ZOV_DEFAULT_TAG);
  char *second = zov_fileCreateTmpName(&counter, "pre", "ext", ZOV_DEFAULT_TAG);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  char address[32];
  snprintf(address, sizeof address, "%p", static_cast<void *>(&counter));
  EXPECT_EQ(std::string("/no/such/place/temp_") + address + pid + "999.tmp", first);
  EXPECT_EQ(std::string("/no/such/place/pre_") + address + pid + "1000.ext", second);
  EXPECT_EQ(counter, 1001u);
  unsetenv("QEL_TMPDIR");
  zov_readonly = 1;  // no directory is writable
  char *bare = zov_fileCreateTmpName(&counter, "pre", "ext", ZOV_DEFAULT_TAG);
  zov_readonly = 0;
  EXPECT_EQ(std::string("pre_") + address + pid + "1001.ext", bare);
}

// Copies, compares, moves and walks with the first allocation failing, then the
// second, and so on: nothing may leak, and no file may be lost.
TEST_F(FileUtil, MemoryRunsOut) {
  const std::string narrow = at("from");
  const std::wstring from(narrow.begin(), narrow.end());
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    SCOPED_TRACE(passing);
    writeFile(at("from"), "text");
    const std::string source = at("from");
    const std::string target = at("to");
    const std::string copy = at("copy");
    const std::string directory = dir.path();
    testing::internal::CaptureStdout();
    const int64_t before = zovtest::liveBlocks();
    zovtest::failAllocationAfter(passing);
    zov_fileCopy(source.c_str(), copy.c_str());
    zov_fileCmp(source.c_str(), copy.c_str());
    zov_fileValidateW(from.c_str(), nullptr);
    zov_fileMove(source.c_str(), target.c_str());
    ZOV_PATH_WALK walk = zov_pathOpen(directory.c_str(), "*");
    int32_t isDirectory = 0;
    while (walk != nullptr && zov_pathNextW(walk, &isDirectory) == nullptr &&
           zov_pathNext(walk, &isDirectory) != nullptr) {
    }
    zov_pathClose(walk);
    failed = zovtest::stopFailing();
    const int64_t after = zovtest::liveBlocks();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(after, before);
    EXPECT_EQ(readFile(at("to")), "text");
  }
}

}  // namespace
