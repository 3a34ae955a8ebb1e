// SPDX-License-Identifier: Apache-2.0
//
// Copy, compare, move, remove, rename, validate, directory chains, walks and
// temporary names, on disk. The system calls beneath are counted or made to
// fail; what is on disk is judged by the standard library.
#include <limits.h>

#include <tuple>

#include "support/faults.h"
#include "support/route_file.h"
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using zovtest::fileExists;
using zovtest::Limit;
using zovtest::readFile;
using zovtest::writeFile;

using FileUtil = zovtest::StartedInDir;

std::string blocks(const std::string &letters) {
  std::string text;
  for (const char letter : letters) {
    text += std::string(1024, letter);
  }
  return text;
}

// Compares `source` with `destination`, in memory and on disk, and copies it there,
// which takes so many writes on disk: one for blocks that follow each other, as
// far as they are read together.
TEST_F(FileUtil, CopyRewritesOnlyWhatDiffers) {
  const std::string from = at("from");
  const std::string to = at("to");
  const std::string lots(64, 'a');
  const std::tuple<int, std::string, std::string, uint32_t> rows[] = {
      {__LINE__, "", "abc", 0},
      {__LINE__, blocks(lots + "bc"), "", 3},
      {__LINE__, blocks(lots + "bcde"), blocks(lots + "bxdx"), 2},
      {__LINE__, blocks("abcd"), blocks("abcd"), 0},
      {__LINE__, blocks("abcd") + "tail", blocks("abcd") + "tails", 0},
      {__LINE__, blocks("abcd") + "tail", blocks("abcd") + "tal", 1},
      {__LINE__, blocks("abcd"), blocks("a") + std::string(999, 'b') + blocks("!cd").substr(999),
       1},
  };
  for (const auto &[line, source, destination, expected] : rows) {
    for (const uint32_t flags : {0u, 1u, 2u, 3u}) {
      SCOPED_TRACE(testing::Message() << line << ", from " << flags % 2 << " to " << flags / 2);
      const uint32_t fromFlags = flags % 2 * ZOV_FILE_MEMORY;
      const uint32_t toFlags = flags / 2 * ZOV_FILE_MEMORY;
      ASSERT_TRUE(zovtest::putFile(from, source, fromFlags));
      ASSERT_TRUE(zovtest::putFile(to, destination, toFlags));
      EXPECT_EQ(zov_fileCmpEx(from.c_str(), fromFlags, to.c_str(), toFlags),
                source == destination ? ZOV_OKAY : ZOV_ERROR);
      const Fault writes(Call::pwrite);
      EXPECT_EQ(zov_fileCopyEx(from.c_str(), fromFlags, to.c_str(), toFlags), ZOV_OKAY);
      EXPECT_EQ(writes.uses(), toFlags == 0 ? expected : 0);
      EXPECT_EQ(zovtest::getFile(to, toFlags), source);
    }
  }
  writeFile(from, blocks("abcd"));
  writeFile(to, blocks("abcd"));
  const Fault unread(Call::pread, 2, Limit{1500});
  const Fault writes(Call::pwrite);
  EXPECT_EQ(zov_fileCopy(from.c_str(), to.c_str()), ZOV_OKAY);
  EXPECT_EQ(writes.uses(), 1u) << "of the block that could not be read";
  writeFile(to, blocks("!bcd"));
  const Fault full(Call::pwrite, 1, Limit{0});
  EXPECT_EQ(zov_fileCopy(from.c_str(), to.c_str()), ZOV_ERROR);
  EXPECT_EQ(zov_fileCmp(at("none").c_str(), to.c_str()), ZOV_NOFILE);
  EXPECT_EQ(zov_fileCmp(from.c_str(), at("none").c_str()), ZOV_NOFILE2);
  EXPECT_EQ(zov_fileCmp(at("NONE").c_str(), at("none").c_str()), ZOV_OKAY)
      << "equal but for case is not looked at";
}

TEST_F(FileUtil, DirectoryChainsAreCompleted) {
  const std::tuple<const char *, const char *, int32_t> rows[] = {
      {"a/b/c", "a/b/c", ZOV_OKAY}, {"a/b/c", "a/b/c", ZOV_EXISTS}, {"a/d", "a/d", ZOV_OKAY},
      {"e\\f", "e/f", ZOV_OKAY},    {"g//h/", "g/h", ZOV_EXISTS},   {"file/x", "a", ZOV_ERROR},
  };
  writeFile(at("file"), "");
  for (const auto &[path, made, status] : rows) {
    EXPECT_EQ(zov_dirCreateAll(at(path).c_str()), status) << path;
    EXPECT_TRUE(std::filesystem::is_directory(at(made))) << path;
  }
  EXPECT_FALSE(fileExists(at("e\\f")));
  EXPECT_EQ(zov_dirCreate(at("none/below").c_str()), ZOV_ERROR) << "no parent";
  EXPECT_EQ(zov_dirRemove(at("a").c_str()), ZOV_ERROR) << "not empty";
  EXPECT_EQ(zov_dirRemove(at("none").c_str()), ZOV_OKAY) << "gone is gone";
}

// Each path goes with the flags behind it.
TEST_F(FileUtil, WideFormsConvertTheirPaths) {
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  for (const uint32_t from : {uint32_t{0}, uint32_t{ZOV_FILE_MEMORY}}) {
    const uint32_t to = ZOV_FILE_MEMORY - from;
    EXPECT_EQ(zov_dirCreateAllW(L"./\x20AC/d"), from == 0 ? ZOV_OKAY : ZOV_EXISTS);
    ASSERT_TRUE(zovtest::putFile("./\xE2\x82\xAC/\xC3\xA9", "text", from));
    EXPECT_EQ(zov_fileCopyExW(L"./\x20AC/\xE9", from, L"./\x20AC/2", to), ZOV_OKAY);
    EXPECT_EQ(zov_fileCmpExW(L"./\x20AC/\xE9", from, L"./\x20AC/2", to), ZOV_OKAY);
    EXPECT_EQ(zov_fileRenameExW(L"./\x20AC/2", to, L"./\x20AC/3", from), ZOV_ERROR);
    EXPECT_EQ(zov_fileRemoveExW(L"./\x20AC/2", to), ZOV_OKAY);
    EXPECT_EQ(zov_fileMoveExW(L"./\x20AC/\xE9", from, L"./\x20AC/4", to), ZOV_OKAY);
    EXPECT_EQ(zov_fileValidateExW(L"./\x20AC/\xE9", from, nullptr), 0);
    EXPECT_EQ(zovtest::getFile("./\xE2\x82\xAC/4", to), "text");
  }
  EXPECT_EQ(zov_dirMoveW(L"\x20AC", L"f"), ZOV_OKAY);
  EXPECT_TRUE(fileExists("f/4"));
  EXPECT_EQ(zov_fileRemoveW(L"\xD800"), ZOV_ERROR) << "not a character";
  EXPECT_EQ(zov_fileMoveW(L"x", nullptr), ZOV_ERROR);
  writeFile("stdin", "text");
  const Fault elsewhere(Call::rename, 1, EXDEV);
  EXPECT_EQ(zov_fileMove("stdin", "x"), ZOV_ERROR);
  EXPECT_EQ(readFile("stdin"), "text") << "nor is the stream moved";
}

// No path, and one that is too long; beside a path of the greatest length there is no
// room for a draft.
TEST_F(FileUtil, PathsThatCannotBeAreRefused) {
  const std::string slashes(PATH_MAX, '/');
  const std::string here = at("x");
  const std::string far = dir.path() + slashes + "x";
  const std::string most = dir.path() + slashes.substr(dir.path().size() + 2) + "y";
  const char *const x = here.c_str();
  writeFile(here, "text");
  ASSERT_TRUE(zovtest::putFile("/m/x", "text", ZOV_FILE_MEMORY));
  for (const char *path : {static_cast<const char *>(nullptr), far.c_str()}) {
    for (const auto call : {zov_fileMove, zov_fileCopy, zov_fileRename, zov_dirMove}) {
      EXPECT_TRUE(call(x, path) != ZOV_OKAY && call(path, x) != ZOV_OKAY) << path;
    }
    EXPECT_EQ(zov_fileMoveEx("/m/x", ZOV_FILE_MEMORY, path, 0), ZOV_ERROR);
    EXPECT_EQ(zov_dirMoveEx("/m", ZOV_FILE_MEMORY, path, 0), ZOV_ERROR);
    EXPECT_EQ(zov_fileCopyEx(x, 0, path, ZOV_FILE_MEMORY), ZOV_ERROR);
    EXPECT_TRUE(zov_fileRemove(path) != ZOV_OKAY && zov_dirCreateAll(path) != ZOV_OKAY);
    EXPECT_TRUE(zov_fileCmp(path, x) == ZOV_NOFILE && zov_fileCmp(x, path) == ZOV_NOFILE2);
    EXPECT_TRUE(zov_pathOpen(path, "*") == nullptr && zov_fileValidate(path, nullptr) == 0);
  }
  EXPECT_EQ(zov_pathOpen("/", nullptr), nullptr);
  EXPECT_EQ(zov_fileMoveEx("/m/x", ZOV_FILE_MEMORY, most.c_str(), 0), ZOV_ERROR);
  EXPECT_EQ(readFile(here) + zovtest::getFile("/m/x", ZOV_FILE_MEMORY), "texttext");
  EXPECT_FALSE(fileExists(most));
}

// The pattern counts characters as the matcher does. Where a step gives no name, the
// latest one stays the walk's; those before are the caller's.
TEST_F(FileUtil, WideWalksTellFailuresFromTheEnd) {
  for (const char *name : {"/w/a", "/w/b", "/w/\xC3\xA9", "/w/c", "/w/\xFF"}) {
    ASSERT_TRUE(zovtest::putFile(name, "", ZOV_FILE_MEMORY));
  }
  const int64_t before = zovtest::liveBlocks();
  ZOV_PATH_WALK walk = zov_pathOpenExW(L"/w", ZOV_FILE_MEMORY, L"?");
  int32_t isDirectory = 0;
  wchar_t *first = zov_pathNextW(walk, &isDirectory);
  EXPECT_STREQ(first, L"a");
  EXPECT_STREQ(zov_pathNextW(walk, &isDirectory), L"b");
  zov_freeMem(first, ZOV_DEFAULT_TAG);
  {
    const Fault shortage(Call::allocation, 1, ENOMEM);
    EXPECT_EQ(zov_pathNextW(walk, &isDirectory), nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  for (const int error : {EILSEQ, 0}) {
    errno = 0;
    EXPECT_EQ(zov_pathNextW(walk, &isDirectory), nullptr);
    EXPECT_EQ(errno, error);
  }
  zov_pathClose(walk);
  EXPECT_EQ(zovtest::liveBlocks(), before);
}

TEST_F(FileUtil, TemporaryNamesAreDistinct) {
  ASSERT_EQ(setenv("QEL_TMPDIR", "/no/such/place", 1), 0);
  uint32_t counter = 999;
  char stem[64];
  snprintf(stem, sizeof stem, "_%p_%010u_", static_cast<void *>(&counter),
           static_cast<unsigned>(getpid()));
  const auto made = [&](const char *prefix, const char *suffix) {
    return zov_fileCreateTmpName(&counter, prefix, suffix, ZOV_DEFAULT_TAG);
  };
  EXPECT_EQ(std::string("/no/such/place/temp") + stem + "999.tmp", made(nullptr, nullptr));
  EXPECT_EQ(std::string("/no/such/place/pre") + stem + "1000.ext", made("pre", "ext"));
  EXPECT_EQ(setenv("QEL_TMPDIR", "", 1), 0);
  EXPECT_EQ(std::string("pre") + stem + "1001.ext", made("pre", "ext"));
  unsetenv("QEL_TMPDIR");
}

}  // namespace
