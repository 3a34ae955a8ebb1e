// SPDX-License-Identifier: Apache-2.0
//
// What copies and moves leave behind, from disk and memory to disk and memory.
// A state is written as a text, with items for each name that is there, so a
// draft left behind shows as well:
//
//   x=text  a file          x@600  permissions on disk other than 644, or 755
//   x>path  a link          x:y    another name of y, in a state to be made
//   x/      a directory     x|     a fifo; x! a socket and x# a device to be made
//                           x%id   of another group, to be made
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <set>
#include <sstream>

#include "support/faults.h"
#include "support/route_file.h"
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using Items = std::set<std::string>;

// The ways from a source to a destination: near is on one file system, far is to
// another.
enum Way : uint32_t { kNear = 1, kFar = 2, kToMemory = 4, kToDisk = 8, kMemory = 16 };
constexpr uint32_t kOnDisk = kNear | kFar;
constexpr uint32_t kCopies = kFar | kToMemory;  // from disk
constexpr uint32_t kHome = kOnDisk | kMemory;   // both ends in one place
constexpr uint32_t kAll = kHome | kToMemory | kToDisk;

struct Row {
  int line;
  decltype(&zov_fileMoveEx) call;
  const char *source, *destination;  // the states on the two sides
  const char *from, *to;
  int32_t status;
  const char *after;  // the state of both sides, "" when nothing changes
  uint32_t ways;
  Call failing = Call::system;
  uint32_t nth = UINT32_MAX;
  int error = 0;
};

int32_t makeItem(const std::string &base, const std::string &item, uint32_t flags) {
  const size_t end = std::min(item.find_first_of("=@%>:|!#"), item.size() - 1);
  const std::string path = base + item.substr(0, end);
  const std::string rest = item.substr(end + 1);
  switch (item[end]) {
    case '=':
      return zovtest::putFile(path, rest, flags) ? 0 : -1;
    case '@':
      return chmod(path.c_str(), static_cast<mode_t>(std::stoi(rest, nullptr, 8)));
    case '%':
      return chown(path.c_str(), 0, static_cast<gid_t>(std::stoi(rest)));
    case '>':
      return symlink(rest.c_str(), path.c_str());
    case ':':
      return link((base + rest).c_str(), path.c_str());
    case '/':  // a look-up in memory makes the directory
      return flags == 0 ? zov_dirCreate(path.c_str())
                        : zov_fileValidateEx((path + "/x").c_str(), flags, nullptr);
    case '|':
      return mkfifo(path.c_str(), 0644);
    default:
      return mknod(path.c_str(), item[end] == '!' ? S_IFSOCK : S_IFCHR, makedev(1, 3));
  }
}

// Adds the items of a directory, given by its path below the base.
void addItems(const std::string &base, const std::string &below, uint32_t flags, Items &items) {
  ZOV_PATH_WALK walk = zov_pathOpenEx((base + below).c_str(), flags, "*");
  int32_t isDirectory = 0;
  while (const char *entry = zov_pathNext(walk, &isDirectory)) {
    const std::string name = below + entry;
    struct stat state = {};
    state.st_mode = isDirectory != 0 ? S_IFDIR | 0755 : S_IFREG | 0644;
    if (entry[strspn(entry, ".")] == '\0' ||
        (flags == 0 && lstat((base + name).c_str(), &state) != 0)) {
      continue;
    }
    const bool isDir = S_ISDIR(state.st_mode);
    items.insert(name + (isDir ? "/"
                         : S_ISLNK(state.st_mode)
                             ? ">" + std::filesystem::read_symlink(base + name).string()
                         : S_ISREG(state.st_mode) ? "=" + zovtest::getFile(base + name, flags)
                                                  : "|"));
    if (isDir) {
      addItems(base, name + "/", flags, items);
    }
    if (!S_ISLNK(state.st_mode) && (state.st_mode & 0777) != (isDir ? 0755 : 0644)) {
      std::ostringstream mode;
      mode << name << '@' << std::oct << (state.st_mode & 0777);
      items.insert(mode.str());
    }
  }
  zov_pathClose(walk);
}

Items itemsOf(const char *state) {
  std::istringstream items(state);
  return {std::istream_iterator<std::string>(items), {}};
}

// A row on one of its ways, in a directory of its own.
struct Case {
  Case(const Row &row_, uint32_t way_) : row(row_), way(way_) {
    for (const auto &[state, flags] :
         {std::pair(row.source, fromFlags), {row.destination, toFlags}}) {
      std::istringstream items(state);
      for (std::string item; items >> item;) {
        EXPECT_GE(makeItem(dir / "", item, flags), 0) << item;
      }
    }
  }
  int32_t run() const {
    const Fault elsewhere(Call::rename, way == kFar ? 1 : UINT32_MAX, EXDEV);
    const Fault fault(row.failing, row.nth, row.error);
    const bool isUntyped = row.failing == Call::allocation;
    const Fault untyped(Call::readdir, isUntyped ? 1 : UINT32_MAX, zovtest::Limit{0}, true);
    return row.call(from.c_str(), fromFlags, to.c_str(), toFlags);
  }
  Items items() const {
    Items items;
    addItems(dir / "", "", fromFlags, items);
    addItems(dir / "", "", toFlags, items);
    return items;
  }

  const Row &row;
  const uint32_t way;
  const zovtest::TempDir dir;
  const uint32_t fromFlags = (way & (kToDisk | kMemory)) != 0 ? ZOV_FILE_MEMORY : 0;
  const uint32_t toFlags = (way & (kToMemory | kMemory)) != 0 ? ZOV_FILE_MEMORY : 0;
  const std::string from = row.from[0] == '/' ? row.from : dir / row.from;
  const std::string to = dir / row.to;
};

class Move : public zovtest::Started {
 protected:
  Move() { umask(022); }
  void expectEach(std::initializer_list<Row> rows) {
    for (const Row &row : rows) {
      for (uint32_t way = kNear; way <= kMemory; way <<= 1) {
        if ((row.ways & way) != 0) {
          SCOPED_TRACE(testing::Message() << "line " << row.line << ", way " << way);
          const Case one(row, way);
          const Items expected = *row.after == '\0' ? one.items() : itemsOf(row.after);
          int32_t status = -1;
          zovtest::outputOf([&] { status = one.run(); });
          EXPECT_EQ(status, row.status);
          EXPECT_EQ(one.items(), expected);
        }
      }
    }
  }
};

constexpr auto move = zov_fileMoveEx;
constexpr auto copy = zov_fileCopyEx;
constexpr auto dirMove = zov_dirMoveEx;

TEST_F(Move, FilesReplaceFiles) {
  expectEach({
      {__LINE__, move, "x=new", "y=old", "x", "y", ZOV_OKAY, "y=new", kAll},
      {__LINE__, move, "d/ d/x=new", "e/", "d/x", "e/y", ZOV_OKAY, "d/ e/ e/y=new", kAll},
      {__LINE__, move, "", "y=old", "x", "y", ZOV_ERROR, "", kAll},
      {__LINE__, move, "x=new", "", "x", "no/y", ZOV_ERROR, "", kOnDisk | kToDisk},
      // One entry, however it is spelt.
      {__LINE__, move, "d/ x=new", "", "x", "d/../x", ZOV_OKAY, "", kHome},
      {__LINE__, move, "x=new", "", "x", "/x", ZOV_OKAY, "", kHome},
      {__LINE__, move, "x=new", "", "x", "X", ZOV_OKAY, "", kHome},
      {__LINE__, move, "d/ d/x=new", "", "d/x", "d\\.\\../d/X", ZOV_OKAY, "", kMemory},
      {__LINE__, move, "", "", "x", "./x", ZOV_ERROR, "", kHome},
      {__LINE__, move, "d/", "", "d", "d/.", ZOV_OKAY, "", kOnDisk},
      // Links and hard links.
      {__LINE__, move, "x=new d/ d/l>../x", "", "d/l", "./x", ZOV_ERROR, "", kOnDisk},
      {__LINE__, move, "x=new m>x l>m", "", "l", "m", ZOV_ERROR, "", kOnDisk},
      {__LINE__, move, "x=new h:x l>x", "", "l", "h", ZOV_OKAY, "x=new h>x", kNear},
      {__LINE__, move, "x=new h:x l>x", "", "l", "h", ZOV_OKAY, "x=new h=new", kFar},
      {__LINE__, move, "x=new l>x", "", "x", "l", ZOV_OKAY, "l=new", kOnDisk},
      {__LINE__, move, "x=new y:x", "", "x", "y", ZOV_OKAY, "y=new", kOnDisk},
      {__LINE__, move, "l>gone", "y=old", "l", "y", ZOV_OKAY, "y>gone", kNear},
      {__LINE__, move, "l>gone", "y=old", "l", "y", ZOV_ERROR, "", kCopies},
      {__LINE__, move, "l>m m>l", "y=old", "l", "y", ZOV_OKAY, "m>l y>m", kNear},
      // What is no plain file.
      {__LINE__, move, "x|", "y=old", "x", "y", ZOV_OKAY, "y|", kNear},
      {__LINE__, move, "x|", "y=old", "x", "y", ZOV_ERROR, "", kCopies},
      {__LINE__, move, "x! l>x", "y=old", "l", "y", ZOV_ERROR, "", kCopies},
      {__LINE__, move, "", "y=old", "/proc/version", "y", ZOV_ERROR, "", kOnDisk | kToMemory},
      {__LINE__, move, "x=new", "y|", "x", "y", ZOV_OKAY, "y=new", kOnDisk | kToDisk},
      {__LINE__, move, "x=new", "y/", "x", "y", ZOV_OKAY, "y=new", kOnDisk | kToDisk},
      {__LINE__, move, "x=new", "y/", "x", "y", ZOV_ERROR, "", kToMemory | kMemory},
      {__LINE__, move, "x=new", "y/ y/z=1", "x", "y", ZOV_ERROR, "", kAll},
      {__LINE__, move, "x/", "y=old", "x", "y", ZOV_ERROR, "", kAll},
      {__LINE__, move, "x/ x/z=1", "y/", "x", "y", ZOV_OKAY, "y/ y/z=1", kNear},
      // Permissions.
      {__LINE__, move, "x=new x@600", "y=old", "x", "y", ZOV_OKAY, "y=new y@600", kOnDisk},
      {__LINE__, move, "x=new x@775", "", "x", "y", ZOV_OKAY, "y=new", kFar},
      {__LINE__, move, "x=new", "y=old y@640", "x", "y", ZOV_OKAY, "y=new y@640", kToDisk},
      // Calls beneath that fail.
      {__LINE__, move, "x=a", "y=b y@600", "x", "y", ZOV_ERROR, "", kToDisk, Call::lstat, 1, EIO},
      {__LINE__, move, "x=new", "y/", "x", "y", ZOV_ERROR, "", kFar, Call::rename, 3, EIO},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_ERROR, "", kFar, Call::close, 2, ENOSPC},
      {__LINE__, move, "x=new", "y/", "x", "y", ZOV_ERROR, "", kNear, Call::rename, 2, EISDIR},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_ERROR, "", kNear, Call::rename, 1, EEXIST},
      {__LINE__, move, "x=new", "y/", "x", "y", ZOV_OKAY, "y=new", kNear, Call::lstat, 4, EIO},
      {__LINE__, move, "x=a y:x", "", "x", "y", ZOV_ERROR, "", kNear, Call::remove, 1, EACCES},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_OKAY, "y=a", kFar, Call::open, 2, EEXIST},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_OKAY, "y=a", kFar, Call::fsync, 2, EINVAL},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_OKAY, "y=a", kFar, Call::open, 4, EACCES},
      {__LINE__, move, "x=a", "y=b", "x", "y", ZOV_OKAY, "x=a y=a", kFar, Call::remove, 1, EACCES},
  });
  for (const int error : {EPERM, ENOSYS, EOPNOTSUPP}) {
    expectEach({{__LINE__, move, "x=a", "y=b", "x", "y", ZOV_OKAY, "y=a y@600", kFar, Call::fchmod,
                 1, error}});
  }
  // The directory that the file is to replace is gone and cannot be made again.
  for (const Call failing : {Call::mkdir, Call::open}) {
    const Fault again(Call::rename, 2, EIO);
    expectEach({{__LINE__, move, "x=a", "y/", "x", "y", ZOV_OKAY, "y=a", kNear, failing, 1, EIO}});
  }
  zov_readonly = 1;
  expectEach({{__LINE__, move, "x=new", "", "x", "y", ZOV_ERROR, "", kToDisk}});
}

TEST_F(Move, CopiesKeepOrMakeTheDestination) {
  const std::string farLink = "x=new y>no" + std::string(4080, '/') + "z";
  const Row first = {
      __LINE__, copy, "x=new", "y=old y@640", "x", "y", ZOV_OKAY, "x=new y=new y@640", kNear};
  expectEach({
      first,
      {__LINE__, copy, "x=new x@600", "y>z", "x", "y", ZOV_OKAY, "x=new x@600 y>z z=new z@600",
       kNear},
      {__LINE__, copy, "x=new x@666", "", "x", "y", ZOV_OKAY, "x=new x@666 y=new", kNear},
      {__LINE__, copy, "x=", "y=old", "x", "y", ZOV_OKAY, "x= y=", kAll},
      {__LINE__, copy, "", "y=old", "/proc/version", "y", ZOV_ERROR, "", kNear | kToMemory},
      {__LINE__, copy, "", "", "/proc/version", "y", ZOV_ERROR, "", kNear | kToMemory},
      {__LINE__, copy, "x=a", "y=old", "x", "y", ZOV_ERROR, "", kNear, Call::fstat, 2, EIO},
      {__LINE__, copy, "x=a", "", "x", "y", ZOV_ERROR, "", kNear, Call::close, 2, ENOSPC},
      {__LINE__, copy, "x=a", "", "x", "y", ZOV_ERROR, "", kNear, Call::fcntl, 1, EMFILE},
      {__LINE__, copy, "x=a", "", "x", "y", ZOV_ERROR, "", kNear, Call::open, 3, EEXIST},
      {__LINE__, copy, "x=a", "y=b", "x", "y", ZOV_ERROR, "x=a y=a", kNear, Call::close, 1, EIO},
      {__LINE__, copy, "x=a y>/no/z", "", "x", "y", ZOV_ERROR, "", kNear},
      {__LINE__, copy, farLink.c_str(), "", "x", "y", ZOV_ERROR, "", kNear},
      {__LINE__, copy, "x=new", "", "x", "x", ZOV_OKAY, "", kMemory},
      {__LINE__, copy, "", "", "x", "y", ZOV_ERROR, "", kAll},
      {__LINE__, copy, "x=new", "", "x", "no/y", ZOV_ERROR, "", kNear | kToDisk},
      {__LINE__, copy, "x|", "y=old", "x", "y", ZOV_ERROR, "", kNear | kToMemory},
      {__LINE__, copy, "x/ l>x", "", "l", "y", ZOV_ERROR, "", kNear | kToMemory},
  });
  const Case piped(first, kNear);
  ASSERT_NE(freopen(piped.from.c_str(), "r", stdin), nullptr);
  EXPECT_EQ(zov_fileCopy("stdin", piped.to.c_str()), ZOV_OKAY);
  EXPECT_EQ(piped.items(), itemsOf(first.after));
  umask(0);
  expectEach({
      {__LINE__, copy, "x=new x@640", "", "x", "y", ZOV_OKAY, "x=new x@640 y=new y@640", kNear},
      {__LINE__, move, "x=new", "", "x", "y", ZOV_OKAY, "y=new y@666", kToDisk},
  });
  if (getuid() == 0) {
    expectEach({
        {__LINE__, move, "x=new x%12345", "y=old", "x", "y", ZOV_OKAY, "y=new y@606", kFar},
        {__LINE__, copy, "x#", "y=old", "x", "y", ZOV_ERROR, "", kNear | kToMemory},
        {__LINE__, move, "x#", "y=old", "x", "y", ZOV_ERROR, "", kCopies},
    });
  }
}

TEST_F(Move, DirectoriesGoWholeOrFileByFile) {
  expectEach({
      {__LINE__, dirMove, "d/ d/x=1", "", "d", "e", ZOV_OKAY, "e/ e/x=1", kAll & ~kToDisk},
      {__LINE__, dirMove, "d/ d/x=1", "", "d", "e", ZOV_OKAY, "d/ e/ e/x=1", kToDisk},
      {__LINE__, dirMove, "d/", "", "d", "d", ZOV_OKAY, "", kHome},
      {__LINE__, dirMove, "x=1", "e/", "x/d", "e", ZOV_OKAY, "", kOnDisk},
      {__LINE__, dirMove, "d/", "", "d", "e", ZOV_ERROR, "", kFar, Call::stat, 5, EIO},
      {__LINE__, dirMove, "d/ d/x=1 d/s/", "e/ e/x=0", "d", "e", ZOV_OKAY, "d/ d/s/ e/ e/x=1",
       kAll},
      {__LINE__, dirMove, "d/ d/x=1", "n/", "d", "n/e", ZOV_OKAY, "d/ n/ n/e/ n/e/x=1", kMemory},
      {__LINE__, dirMove, "d/ d/x=1 q/", "", "d", "q/../d", ZOV_OKAY, "", kHome},
      {__LINE__, dirMove, "d/ l>d", "", "d", "l", ZOV_OKAY, "", kOnDisk},
      {__LINE__, dirMove, "d/ l>d", "", "d", "l", ZOV_OKAY, "", kOnDisk, Call::stat, 1, EIO},
      {__LINE__, dirMove, "d/", "e=old", "d", "e", ZOV_ERROR, "", kAll},
      {__LINE__, dirMove, "d/", "e>gone", "d", "e", ZOV_ERROR, "", kOnDisk},
      {__LINE__, dirMove, "x=new", "e/", "x", "e", ZOV_ERROR, "", kOnDisk | kToMemory},
      {__LINE__, dirMove, "", "e/", "d", "e", ZOV_OKAY, "", kAll},
      {__LINE__, dirMove, "d/ d@700", "", "d", "n/e/", ZOV_OKAY, "n/ n/e/ n/e@700", kFar},
      {__LINE__, dirMove, "d/ d/x=1 d@700", "", "d", "e/", ZOV_OKAY, "e/ e/x=1 e@700", kOnDisk},
      {__LINE__, dirMove, "d/ d@700", "", "d", "e", ZOV_ERROR, "", kFar, Call::fchmod, 1, EIO},
      {__LINE__, dirMove, "d/ d/x=1", "", "d", "n/e", ZOV_ERROR, "", kFar, Call::fsync, 2, EIO},
      {__LINE__, dirMove, "d/", "", "d", "e", ZOV_ERROR, "", kCopies, Call::opendir, 1, EACCES},
      {__LINE__, dirMove, "d/", "", "d", "e", ZOV_ERROR, "", kToMemory, Call::readdir, 1, EIO},
      // A directory is not taken for a file because memory is short.
      {__LINE__, dirMove, "d/ d/s/", "e/ e/x=0", "d", "e", ZOV_NOMEMORY, "", kNear,
       Call::allocation, 3, ENOMEM},
  });
  zov_readonly = 1;
  expectEach({{__LINE__, dirMove, "d/", "", "d", "e", ZOV_ERROR, "", kAll & ~kMemory}});
}

const Row far = {__LINE__, move, "x=new", "y=old", "x", "y", ZOV_OKAY, "y=new", kFar};

// The source changes while it is copied.
TEST_F(Move, LooksAtTheSource) {
  const Case grown(far, kFar);
  const Case replaced(far, kFar);
  {
    const Fault grow(Call::pread, [&](uint32_t use) {
      std::ofstream(grown.from, std::ios::app) << (use == 2 ? "er" : "");
    });
    EXPECT_EQ(grown.run(), ZOV_ERROR);
  }
  EXPECT_EQ(grown.items(), itemsOf("x=newer y=old"));
  {
    const Fault replace(Call::fsync, [&](uint32_t) {
      EXPECT_EQ(remove(replaced.from.c_str()), 0);
      zovtest::writeFile(replaced.from, "other");
    });
    EXPECT_EQ(replaced.run(), ZOV_OKAY);
  }
  EXPECT_EQ(replaced.items(), itemsOf("x=other y=new"));
}

// By the mode the group may read a file with an access list, by the list only user
// 1; and a directory's list would let that user read what is made in it.
TEST_F(Move, AccessListsGiveNobodyMore) {
  const uint32_t list[] = {2, 0x60001, ~0u, 0x60002, 1, 4, ~0u, 0x60010, ~0u, 0x20, ~0u};
  const Case listed(far, kFar);
  const Case below(far, kFar);
  if (setxattr(listed.from.c_str(), "system.posix_acl_access", list, sizeof list, 0) == 0) {
    EXPECT_EQ(listed.run(), ZOV_OKAY);
    EXPECT_EQ(listed.items(), itemsOf("y=new y@600"));
    setxattr((below.dir / "").c_str(), "system.posix_acl_default", list, sizeof list, 0);
    EXPECT_EQ(below.run(), ZOV_OKAY);
    EXPECT_EQ(getxattr(below.to.c_str(), "system.posix_acl_access", nullptr, 0), -1);
  }
}

TEST_F(Move, GivesUpWhereEveryNameOfADraftIsTaken) {
  const Case crowded(far, kFar);
  const Fault taken(Call::open, 2, EEXIST, true);
  EXPECT_EQ(crowded.run(), ZOV_ERROR);
}

// Two names with one link are one entry, which a mount shows twice.
TEST_F(Move, LeavesAFileThatTwoMountsShow) {
  const Case one(far, kNear);
  const auto moveOntoItself = [&] {
    const bool mounted = unshare(CLONE_NEWNS) == 0 &&
                         mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount(one.from.c_str(), one.to.c_str(), nullptr, MS_BIND, nullptr) == 0;
    return !mounted || (one.run() == ZOV_OKAY && one.items() == itemsOf("x=new y=new")) ? 0 : 1;
  };
  EXPECT_EQ(zovtest::inChild(moveOntoItself), 0);
}

}  // namespace
