// SPDX-License-Identifier: Apache-2.0
//
// Files in memory by path and by handle: how paths resolve, what the calls
// refuse, walks, and what a lack of memory leaves behind. Threads that share a
// directory are in the soak.
#include "memstore/zovmfile_place.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"
#include "support/faults.h"
#include "support/route_file.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using MemoryFiles = zovtest::Started;

bool put(const std::string &path, const std::string &text) {
  return zovtest::putFile(path, text, ZOV_FILE_MEMORY);
}

std::string get(const std::string &path) {
  return zovtest::getFile(path, ZOV_FILE_MEMORY);
}

// The names of a directory, those of directories with a slash behind.
std::string list(const char *directory) {
  std::string names;
  for (const std::string &name : zovtest::namesIn(directory, ZOV_FILE_MEMORY)) {
    names += name + " ";
  }
  return names;
}

TEST(Normalize, ResolvesComponents) {
  // The path and what becomes of it; null: refused.
  const char *const rows[][2] = {
      {"\\a\\b/./c\\..", "/a/b"},
      {"/..", ""},
      {"/", "/"},
      {"", ""},
      {"/./.", "/."},
      {"/a/", "/a/"},
      {"./x", "x"},
      {"/...//..a/a../.b", "/.../..a/a../.b"},
      {"..", nullptr},
      {"a/..", nullptr},
      {"./..", nullptr},
      {"a/../b", nullptr},
  };
  for (const auto &[path, expected] : rows) {
    // Guards before the path, which a ".." must not reach.
    char buffer[64] = "/a/";
    strcpy(buffer + 3, path);
    EXPECT_STREQ(zov::normalizePath(buffer + 3) ? buffer + 3 : nullptr, expected) << path;
    EXPECT_EQ(memcmp(buffer, "/a/", 3), 0) << path;
  }
}

TEST_F(MemoryFiles, PathsLeadToTheSameFile) {
  ASSERT_TRUE(put("/a/b/c.dat", "text"));
  EXPECT_EQ(get("/../x/..//A/B\\.//C.DAT"), "text");
  EXPECT_EQ(list("/") + list("/./../a//"), "a/ b/ ") << "no directory without a name";
  // Relative paths begin at the current directory, whatever the disk has there.
  ASSERT_TRUE(put("sub/rel", "text"));
  char *current = zov_fullpath("sub/");
  EXPECT_EQ(get(std::string(current) + "rel"), "text");
  zov_freeMem(current, ZOV_DEFAULT_TAG);
  const std::string longPath = "/" + std::string(300, 'p') + "/" + std::string(300, 'q') + "/f";
  ASSERT_TRUE(put(longPath, "far"));
  EXPECT_EQ(get(longPath), "far");
  // Names that begin alike: of more than two nodes, and as long as an entry's own piece
  // and longer.
  for (int step = 0; step < 400; ++step) {
    const std::string path = "/s/" + std::string(18, 's') + std::to_string(1000 + step % 200);
    ASSERT_TRUE(step < 200 ? put(path, path) : get(path) == path) << path;
  }
  std::string names;
  for (const size_t length : {22u, 30u, 40u, 65535u}) {
    ASSERT_TRUE(put("/n/" + std::string(length, 'n'), std::to_string(length)));
    names += std::string(length, 'n') + " ";
  }
  EXPECT_EQ(list("/n"), names);
}

TEST_F(MemoryFiles, RefusedPathsChangeNothing) {
  zovtest::leavesThings = true;  // every sync object there is
  ASSERT_TRUE(put("/dir/file", "text"));
  const std::string tooLong(65536, 'n');
  const std::pair<int, std::vector<std::string>> rows[] = {
      {EINVAL, {"name", ""}},
      {EISDIR, {"/", "/dir/", "/dir", "/dir/.", "/dir/.."}},
      {ENOTDIR, {"/dir/file/under"}},
      {ENAMETOOLONG, {"/dir/" + tooLong, "/" + tooLong + "/f"}},
  };
  for (const auto &[error, paths] : rows) {
    for (const std::string &path : paths) {
      SCOPED_TRACE(path.substr(0, 20));
      EXPECT_TRUE(zov_mfOpen(path.c_str(), O_CREAT) == nullptr && errno == error);
      EXPECT_NE(zov_mfRemove(path.c_str()), ZOV_OKAY);
      EXPECT_EQ(zov_mfSizeStat(path.c_str()), 0u);
    }
  }
  EXPECT_EQ(zov_mfRename("/dir/file", "/a/") & zov_mfRename("/dir/file", tooLong.c_str()),
            ZOV_ERROR);
  while (zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE) != ZOV_NO_SYNC) {
  }
  EXPECT_TRUE(zov_mfOpen("/dir/fresh", O_CREAT) == nullptr && errno == ENFILE);
  EXPECT_EQ(zov_mfPathOpen("/dir/none", "*"), nullptr);
  EXPECT_EQ(zov_mfPathOpen("..", "*"), nullptr);
  EXPECT_EQ(list("/") + list("/dir"), "dir/ file ");
}

TEST_F(MemoryFiles, ValidateTellsDirectoriesFromFiles) {
  ASSERT_TRUE(put("/dir/file", "") && put("../file", ""));
  const std::pair<int32_t, std::vector<const char *>> rows[] = {
      {1, {"/", "/dir", "/dir/", "/dir//", "/x/../dir/", "/dir/.."}},
      {0, {"/dir/file"}},
      {-1, {"/dir/file/", "/none", "..", "../file", "/dir/."}},
  };
  for (const auto &[expected, paths] : rows) {
    for (const char *path : paths) {
      int32_t isDirectory = -1;
      EXPECT_EQ(zov_mfValidate(path, &isDirectory), expected < 0 ? 0 : 1) << path;
      EXPECT_EQ(isDirectory, expected) << path;
    }
  }
}

// Behind the directory's back.
TEST_F(MemoryFiles, RemovalByIdLeavesADeadName) {
  ASSERT_TRUE(put("/f", "text"));
  ZOV_MFILE file = zov_mfOpen("/f", 0);
  zov::segRemoveById(zov::segIdOf(*file->seg));
  zov_mfClose(file);
  EXPECT_EQ(zov_mfSizeStat("/f") + zov_mfModTime("/f"), 0u);
  EXPECT_EQ(zov_mfOpen("/f", O_CREAT), nullptr);
  EXPECT_EQ(zov_mfRemove("/f"), ZOV_OKAY);
  EXPECT_TRUE(put("/f", "text"));
}

TEST_F(MemoryFiles, PositionStaysWithinTheFile) {
  ZOV_MFILE file = zov_mfOpen("/f", O_CREAT);
  ASSERT_EQ(zov_mfWrite(file, "0123456789", 10), 10u);
  const std::pair<uint64_t, int32_t> rows[] = {
      {3, 0},  {2, 1}, {UINT64_MAX - 1, 1}, {UINT64_MAX, 2}, {10, 0}, {4, 0},
      {11, 0}, {1, 2}, {UINT64_MAX - 9, 1}, {0, 3},          {0, -1}};
  // The status of each seek and what is read there; "." at the end.
  std::string seen;
  for (const auto &[offset, whence] : rows) {
    const int32_t status = zov_mfSeek(file, offset, whence);
    char next = '.';
    const uint32_t count = zov_mfRead(file, &next, 1);
    EXPECT_EQ(count, next == '.' ? 0u : 1u);
    seen += std::to_string(status) + next + " ";
  }
  EXPECT_EQ(seen, "03 06 05 09 0. 04 25 26 27 28 29 ");
  // A size that cannot be had leaves nothing of itself.
  const int64_t before = zovtest::liveBlocks();
  zovtest::failAllocationAfter(9);
  EXPECT_EQ(zov_mfSetSize(file, 200000), ZOV_ERROR);
  EXPECT_TRUE(zovtest::stopFailing());
  EXPECT_LE(zovtest::liveBlocks(), before + 3) << "tables may have grown";
  zov_mfClose(file);
  EXPECT_EQ(get("/f"), "0123456789");
}

TEST_F(MemoryFiles, NoFileIsHarmless) {
  char byte = 0;
  zov_mfClose(nullptr);
  zov_mfPathClose(nullptr);
  EXPECT_EQ(zov_mfSeek(nullptr, 0, 0) & zov_mfSetSize(nullptr, 0), ZOV_ERROR);
  EXPECT_EQ(zov_mfRead(nullptr, &byte, 1) + zov_mfWrite(nullptr, &byte, 1), 0u);
  EXPECT_EQ(zov_mfSeekRead(nullptr, 0, &byte, 1) + zov_mfSeekWrite(nullptr, 0, &byte, 1), 0u);
  EXPECT_EQ(zov_mfLock(nullptr) + zov_mfUnlock(nullptr) + static_cast<int>(zov_mfSize(nullptr)), 0);
}

// Makes a nameless file that holds the text, and puts it in the place of a path.
int32_t place(const std::string &path, const std::string &text) {
  ZOV_MFILE draft = zov::newMemDraft();
  zov_mfWrite(draft, text.data(), static_cast<uint32_t>(text.size()));
  const int32_t status = zov::placeMemDraft(draft, path.c_str());
  zov_mfClose(draft);
  return status;
}

TEST_F(MemoryFiles, OneFileTakesThePlaceOfAnother) {
  // From, to, what is where afterwards, and what was there before.
  const char *const rows[][5] = {
      {"/a/x", "/b/Z", "s/ Y | z ", "x", "z"},
      {"/b/z", "/a/./X", "s/ x Y | ", "z", "x"},
      {"/a/s", "/a/r", "r/ x Y | z ", "(none)", ""},
  };
  for (const auto &[from, to, names, text, before] : rows) {
    SCOPED_TRACE(std::string(from) + " to " + to);
    zov_term();
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    ASSERT_TRUE(put("/a/x", "x") && put("/a/Y", "y") && put("/b/z", "z") && put("/a/s/f", "f"));
    ZOV_MFILE old = zov_mfOpen(to, 0);
    EXPECT_EQ(zov::moveMemFile(from, to), ZOV_OKAY);
    EXPECT_EQ(list("/a") + "| " + list("/b"), names);
    EXPECT_EQ(get(to), text);
    char kept[2] = "";
    zov_mfRead(old, kept, 1);
    EXPECT_STREQ(kept, before) << "a thread that had the old file open keeps it";
    zov_mfClose(old);
  }
  ASSERT_EQ(zov_mfRename("/a/r", "s"), ZOV_OKAY);
  const char *const refused[][2] = {
      {"/a/s", "/b/s"}, {"/a/x", "/b/.."}, {"/a/x", "/b/"}, {"/a/x", "/a/b\\c"}};
  for (const auto &[from, to] : refused) {
    errno = 0;
    EXPECT_TRUE(zov::moveMemFile(from, to) == ZOV_ERROR && errno != 0) << from << " to " << to;
    EXPECT_EQ(list("/a") + "| " + list("/b"), "s/ x Y | z ");
  }
  EXPECT_EQ(place("/a/x", "new") + place("/A/fresh", "new"), ZOV_OKAY);
  EXPECT_EQ(get("/a/x") + get("/a/fresh"), "newnew");
  EXPECT_TRUE(place("/a/s", "") == ZOV_ERROR && errno == EISDIR);
  EXPECT_EQ(place("/a/..", "") & place("/a/d\\e", "") & place("/a/x/y", ""), ZOV_ERROR);
  EXPECT_EQ(list("/a"), "fresh s/ x Y ");
  EXPECT_TRUE(zov::isSameMemEntry("/a/X", "/q/..\\a//x"));
  EXPECT_FALSE(zov::isSameMemEntry("/a/x", "/b/x") || zov::isSameMemEntry("/a/x", "/a/xx"));
  EXPECT_TRUE(zov::isSameMemDirectory("/a/", "/q/../A"));
  EXPECT_FALSE(zov::isSameMemDirectory("/a", "/b") || zov::isSameMemDirectory("/no", "/no"));
}

// Without memory there is no end of the file, and no end of a walk.
TEST_F(MemoryFiles, WantOfMemoryIsNoEnd) {
  ASSERT_TRUE(put("/w/file", std::string(5000, 'x')));
  ZOV_MFILE file = zov_mfOpen("/w/file", 0);
  ZOV_FILE handle = zov_fileOpen("/w/file", O_RDWR, ZOV_FILE_MEMORY);
  char text[5000];
  // What is called with no memory gives, with errno for it.
  const auto starved = [](auto call) {
    zovtest::failAllocationAfter(0, true);
    errno = 0;
    const uint32_t result = call();
    zovtest::stopFailing();
    return errno == ENOMEM ? result : 4711;
  };
  EXPECT_EQ(starved([&] { return zov_mfRead(file, text, 10); }), 0u);
  EXPECT_EQ(starved([&] { return zov_mfSeekWrite(file, 70000, text, 10); }), 0u);
  EXPECT_EQ(starved([&] { return zov_fileRead(handle, text, 10); }), ZOV_IO_FAILED);
  EXPECT_EQ(starved([&] { return zov_fileWrite(handle, text, 10); }), ZOV_IO_FAILED);
  EXPECT_EQ(starved([&] { return zov_fileSeekRead(handle, 4097, text, 10); }), ZOV_IO_FAILED);
  EXPECT_EQ(starved([&] { return zov_fileSeekWrite(handle, 70000, text, 10); }), ZOV_IO_FAILED);
  EXPECT_EQ(zov_fileRead(handle, text, 10), 10u) << "the position stayed";
  EXPECT_EQ(starved([&] { return zov_fileSeekRead(handle, 0, text, 5000); }), 4096u);
  EXPECT_EQ(zov_fileSeekRead(handle, 5000, text, 10), 0u);
  EXPECT_EQ(zov_mfSeekRead(file, 4999, text, 10), 1u);
  zov_fileClose(handle);
  zov_mfClose(file);

  ASSERT_TRUE(put("/w/" + std::string(500, 'n'), ""));
  ZOV_MEM_WALK walk = zov_mfPathOpen("/w", "*");
  std::string names;
  int32_t isDirectory = 0;
  for (int step = 0; step < 2; ++step) {
    EXPECT_EQ(starved([&] { return zov_mfPathNext(walk, &isDirectory) == nullptr; }), 1u);
    const char *name = zov_mfPathNext(walk, &isDirectory);
    names += std::string(name == nullptr ? "(none)" : name) + " ";
  }
  errno = 0;
  EXPECT_TRUE(zov_mfPathNext(walk, &isDirectory) == nullptr && errno == 0);
  EXPECT_EQ(names, list("/w"));
  zov_mfPathClose(walk);
}

// A directory that was only looked into is there, and costs a name and an id.
TEST_F(MemoryFiles, LookingMakesBareDirectories) {
  ASSERT_TRUE(put("/a/f", "text"));
  const zovtest::Standing before = zovtest::standing();
  EXPECT_EQ(zov_mfSizeStat("/q/f") + zov_mfSizeStat("/q/f"), 0u);
  EXPECT_EQ(zovtest::standing().blocks, before.blocks + 2);
  int32_t isDirectory = 0;
  EXPECT_EQ(zov_mfOpen("/q/f", 0), nullptr);
  EXPECT_EQ(zov_mfRemove("/q/f"), ZOV_NOTFOUND);
  EXPECT_EQ(zov::moveMemFile("/q/f", "/r/f"), ZOV_ERROR);
  EXPECT_EQ(zov_mfRename("/q", "s"), ZOV_OKAY);
  ZOV_MEM_WALK walk = zov_mfPathOpen("/s", "*");
  EXPECT_EQ(list("/") + list("/s"), "a/ s/ ");
  EXPECT_EQ(zovtest::standing().slots, before.slots);
  EXPECT_EQ(zov::moveMemFile("/a/f", "/s/f"), ZOV_OKAY);
  EXPECT_STREQ(zov_mfPathNext(walk, &isDirectory), "f") << "begun before there was anything";
  zov_mfPathClose(walk);
}

// Another thread makes the directory that this one is about to publish.
TEST_F(MemoryFiles, TheFirstDirectoryStays) {
  const Fault locks(Call::pthread_mutex_lock, [](uint32_t lock) {
    if (lock == 4) {
      std::thread(put, "/other", "text").join();
    }
  });
  zov_mfClose(zov_mfOpen("/own", O_CREAT));
  EXPECT_EQ(list("/"), "other own ");
}

}  // namespace
