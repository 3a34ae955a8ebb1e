// SPDX-License-Identifier: Apache-2.0
//
// Moving a file over another. One step replaces the destination; before it both
// files are whole, and after it the new one is:
//
//   one file system  rename()
//   in memory        moveMemFile()
//   any other        a draft, which stands beside the destination on disk and has
//                    no name in memory, gets all of the source; then it takes the
//                    destination's place, and the source is removed
//
// A draft on disk is the owner's alone until it is whole. It is synced and closed
// before it takes its place, and its directory is synced before the source is
// removed, so that a crash leaves one of the two. A process that is killed leaves
// its draft behind; nothing removes it.
//
// No locks; drafts are told apart by a counter. Nothing jumps: jumps are held off
// while files are open.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "core/zov_shortage.h"
#include "core/zov_word.h"
#include "files/zovfile_private.h"
#include "files/zovunix_entry.h"
#include "memstore/zovmfile_place.h"

namespace zov {
namespace {

// A draft on disk.
struct Draft {
  ZOV_FILE file;
  char path[PATH_MAX];
};

// How many names are tried. Those that killed processes of the same number left
// behind are taken.
constexpr uint32_t kDraftNames = 1000;

// Numbers drafts; orders nothing, so accesses are relaxed.
std::atomic<uint32_t> lastDraft{0};

// Makes the draft of a destination beside it. False with errno.
bool openDraft(Draft &draft, const Place &to) {
  char directory[PATH_MAX];
  if (!parentOf(to.path, directory)) {
    return false;
  }
  for (uint32_t tries = 0; tries < kDraftNames; ++tries) {
    const uint32_t number = lastDraft.fetch_add(1, std::memory_order_relaxed);
    const int length = snprintf(draft.path, sizeof draft.path, "%s/.zov_mv%u_%u", directory,
                                zov_get_pid(), number);
    if (length < 0 || static_cast<size_t>(length) >= sizeof draft.path) {
      return false;
    }
    const Opened made = fileOpenNew(draft.path, to.typeFlags, draft.file);
    if (made != Opened::kNo || errno != EEXIST) {
      return draft.file != nullptr;
    }
  }
  return false;
}

// Makes a removed directory again, with its permissions and, where that is
// allowed, its owner.
void restoreDirectory(const char *path, const struct stat &state) {
  if (mkdir(path, S_IRWXU) != 0) {
    return;
  }
  const int directory = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (directory < 0) {
    return;
  }
  // Where it stays this user's, giveMode() looks at the group.
  [[maybe_unused]] const bool isGiven = fchown(directory, state.st_uid, state.st_gid) == 0;
  giveMode(directory, state.st_mode & static_cast<mode_t>(~S_IFMT), state.st_gid);
  close(directory);
}

// Renames, also over an empty directory. A failure sets errno and changes nothing.
int32_t putInPlace(const char *from, const char *to) {
  if (rename(from, to) == 0) {
    return ZOV_OKAY;
  }
  struct stat state;
  if (errno != EISDIR || lstat(to, &state) != 0) {
    return ZOV_ERROR;
  }
  state.st_mode = passableMode(to, state.st_mode);
  if (rmdir(to) != 0) {
    return ZOV_ERROR;
  }
  if (rename(from, to) == 0) {
    return ZOV_OKAY;
  }
  const KeepErrno kept;
  restoreDirectory(to, state);
  return ZOV_ERROR;
}

// Copies all of the source into a draft, and syncs and closes it.
int32_t fillDraft(ZOV_FILE source, const Draft &draft, const Place &to) {
  assert(draft.file != nullptr && draft.path[0] != '\0');
  const bool filled = copyWhole(source, draft.file) == ZOV_OKAY &&
                      passModeOn(*source, *draft.file, to.path) == ZOV_OKAY &&
                      zov_fileSync(draft.file) == ZOV_OKAY;
  const bool closed = closesWhole(draft.file);
  return filled && closed ? ZOV_OKAY : ZOV_ERROR;
}

int32_t replaceOnDisk(ZOV_FILE source, const Place &to) {
  Draft draft = {};
  if (!diskMayChange() || !openDraft(draft, to)) {
    return ZOV_ERROR;
  }
  if (fillDraft(source, draft, to) != ZOV_OKAY || putInPlace(draft.path, to.path) != ZOV_OKAY) {
    unlink(draft.path);
    return ZOV_ERROR;
  }
  return syncDirectoryOf(to.path, to.typeFlags);
}

int32_t replaceInMemory(ZOV_FILE source, const Place &to) {
  const ZOV_FILE draft = fileOpenDraft(to.path, to.typeFlags);
  if (draft == nullptr) {
    return ZOV_ERROR;
  }
  assert(memFileOf(*draft) != nullptr);
  int32_t status = copyWhole(source, draft);
  if (status == ZOV_OKAY) {
    status = placeMemDraft(memFileOf(*draft), to.path);
  }
  zov_fileClose(draft);
  return status == ZOV_OKAY ? ZOV_OKAY : ZOV_ERROR;
}

// The source stays open until its name is removed: its inode number could pass to
// another file otherwise.
int32_t moveByCopy(const Place &from, const Place &to) {
  const NoJump noJump;
  const ZOV_FILE source = openSource(from);
  if (source == nullptr) {
    return ZOV_ERROR;
  }
  const int32_t status = isInMemory(to) ? replaceInMemory(source, to) : replaceOnDisk(source, to);
  if (status == ZOV_OKAY) {
    removeNameOf(*source, from.path);
  }
  zov_fileClose(source);
  return status;
}

// Moves one name of a file to another name of it: of two links the first is
// removed. With one link both names are of one entry, which a mount or a file
// system shows twice, and removing it would lose the file; nor has a directory
// another link.
int32_t joinNames(const Place &from, const struct stat &source) {
  const bool hasOther = !S_ISDIR(source.st_mode) && source.st_nlink > 1;
  return !hasOther || zov_fileRemove(from.path) == ZOV_OKAY ? ZOV_OKAY : ZOV_ERROR;
}

// True for an error of rename() that a copy would meet too.
bool isNoPlace(int error) {
  return error == EISDIR || error == ENOTEMPTY || error == EEXIST;
}

// From disk to disk, for a source that exists.
int32_t moveOnDisk(const Place &from, const Place &to, const struct stat &source) {
  if (isSameEntry(from.path, to.path)) {
    return ZOV_OKAY;
  }
  if (!diskMayChange()) {
    return ZOV_ERROR;
  }
  if (isSameFile(from.path, to.path)) {
    return joinNames(from, source);
  }
  if (S_ISLNK(source.st_mode) && leadsThrough(from.path, to.path)) {
    return ZOV_ERROR;
  }
  if (putInPlace(from.path, to.path) == ZOV_OKAY) {
    return ZOV_OKAY;
  }
  // Opened to be copied, the name of a standard stream would be the stream.
  const bool mayCopy = !isNoPlace(errno) && standardStream(from.path) < 0;
  return mayCopy ? moveByCopy(from, to) : ZOV_ERROR;
}

int32_t _fileMove(const Place &from, const Place &to) {
  if (isSamePath(from, to)) {
    return ZOV_OKAY;
  }
  if (isInMemory(from) && isInMemory(to)) {
    return moveMemFile(from.path, to.path) == ZOV_OKAY ? ZOV_OKAY : ZOV_ERROR;
  }
  struct stat state;
  const bool onDisk = !isInMemory(from) && !isInMemory(to) && lstat(from.path, &state) == 0;
  return onDisk ? moveOnDisk(from, to, state) : moveByCopy(from, to);
}

}  // namespace

}  // namespace zov

extern "C" {

int32_t zov_fileMove(const char *source, const char *destination) {
  return zov_fileMoveEx(source, 0, destination, 0);
}

int32_t zov_fileMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                       uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr) {
    return ZOV_ERROR;
  }
  return zov::_fileMove({source, sourceFlags}, {destination, destinationFlags});
}
}
