// SPDX-License-Identifier: Apache-2.0
//
// Moving a file over another. Up to the one step that replaces the destination
// both files stand whole, and after it the new one does:
//
//   one file system  rename()
//   in memory        moveMemFile()
//   any other        a draft of the destination, which is made beside it on disk
//                    and has no name in memory, gets all of the source; then it
//                    takes the destination's place, and the source goes
//
// A draft on disk is the owner's alone until it is whole. It is synced and closed
// before it takes its place, and its directory is synced before the source goes,
// so that a crash at any time leaves one of the two. A process that is killed
// leaves its draft behind; nobody looks for those.
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

namespace {

// A path with its type flags.
struct Place {
  const char *path;
  uint32_t typeFlags;
};

// A draft on disk.
struct Draft {
  ZOV_FILE file;
  char path[PATH_MAX];
};

// Names that processes of the same number left behind are passed over.
constexpr uint32_t kDraftNames = 1000;
std::atomic<uint32_t> lastDraft{0};

// Makes the draft of a destination beside it. False with errno.
bool openDraft(Draft &draft, Place to) {
  char directory[PATH_MAX];
  if (!zov::parentOf(to.path, directory)) {
    return false;
  }
  for (uint32_t tries = 0; tries < kDraftNames; ++tries) {
    const uint32_t number = lastDraft.fetch_add(1, std::memory_order_relaxed);
    const int length = snprintf(draft.path, sizeof draft.path, "%s/.zov_mv%u_%u", directory,
                                zov_get_pid(), number);
    if (length < 0 || static_cast<size_t>(length) >= sizeof draft.path) {
      return false;
    }
    draft.file = zov::fileOpenNew(draft.path, to.typeFlags);
    if (draft.file != nullptr || errno != EEXIST) {
      return draft.file != nullptr;
    }
  }
  return false;
}

// Makes a directory again that was removed, with the owner, where that is
// allowed, and the permissions it had.
void restoreDirectory(const char *path, const struct stat &state) {
  if (mkdir(path, S_IRWXU) != 0) {
    return;
  }
  const int directory = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (directory < 0) {
    return;
  }
  if (fchown(directory, state.st_uid, state.st_gid) != 0) {
    errno = 0;  // then it is ours; giveMode() looks at the group
  }
  zov::giveMode(directory, state.st_mode & static_cast<mode_t>(~S_IFMT), state.st_gid);
  close(directory);
}

// Renames, also over an empty directory. A failure leaves both, with errno.
int32_t putInPlace(const char *from, const char *to) {
  if (rename(from, to) == 0) {
    return ZOV_OKAY;
  }
  struct stat state;
  if (errno != EISDIR || lstat(to, &state) != 0) {
    return ZOV_ERROR;
  }
  state.st_mode = zov::passableMode(to, state.st_mode);
  if (rmdir(to) != 0) {
    return ZOV_ERROR;
  }
  if (rename(from, to) == 0) {
    return ZOV_OKAY;
  }
  const zov::KeepErrno kept;
  restoreDirectory(to, state);
  return ZOV_ERROR;
}

// Copies all of the source into a draft and brings it to the disk.
int32_t fillDraft(ZOV_FILE source, const Draft &draft, Place to) {
  assert(draft.file != nullptr && draft.path[0] != '\0');
  const bool filled = zov::copyWhole(source, draft.file) == ZOV_OKAY &&
                      zov::passModeOn(*source, *draft.file, to.path) == ZOV_OKAY &&
                      zov_fileSync(draft.file) == ZOV_OKAY;
  const bool closed = zov::closesWhole(draft.file);
  return filled && closed ? ZOV_OKAY : ZOV_ERROR;
}

int32_t replaceOnDisk(ZOV_FILE source, Place to) {
  Draft draft = {};
  if (!zov::diskMayChange() || !openDraft(draft, to)) {
    return ZOV_ERROR;
  }
  if (fillDraft(source, draft, to) != ZOV_OKAY || putInPlace(draft.path, to.path) != ZOV_OKAY) {
    unlink(draft.path);
    return ZOV_ERROR;
  }
  return zov::syncDirectoryOf(to.path, to.typeFlags);
}

int32_t replaceInMemory(ZOV_FILE source, Place to) {
  const ZOV_FILE draft = zov::fileOpenDraft(to.path, to.typeFlags);
  if (draft == nullptr) {
    return ZOV_ERROR;
  }
  assert(zov::memFileOf(*draft) != nullptr);
  int32_t status = zov::copyWhole(source, draft);
  if (status == ZOV_OKAY) {
    status = zov::placeMemDraft(zov::memFileOf(*draft), to.path);
  }
  zov_fileClose(draft);
  return status == ZOV_OKAY ? ZOV_OKAY : ZOV_ERROR;
}

// The source stays open to the end: another file could get its number else.
int32_t moveByCopy(Place from, Place to) {
  const zov::NoJump noJump;
  const ZOV_FILE source = zov::openSource(from.path, from.typeFlags);
  if (source == nullptr) {
    return ZOV_ERROR;
  }
  const int32_t status =
      zov::isInMemory(to.typeFlags) ? replaceInMemory(source, to) : replaceOnDisk(source, to);
  if (status == ZOV_OKAY) {
    zov::removeNameOf(*source, from.path, from.typeFlags);
  }
  zov_fileClose(source);
  return status;
}

// Two names of what is in its place already. A file with two links is not lost when
// one of them goes. With one link both names are of one entry, which a mount or a
// file system with more than one name for a file shows twice; and directories have
// no other links.
int32_t joinNames(Place from, const struct stat &source) {
  const bool hasOther = !S_ISDIR(source.st_mode) && source.st_nlink > 1;
  return !hasOther || zov_fileRemoveEx(from.path, from.typeFlags) == ZOV_OKAY ? ZOV_OKAY
                                                                              : ZOV_ERROR;
}

// True when a failed rename says that a copy could not take the place either.
bool isNoPlace(int error) {
  return error == EISDIR || error == ENOTEMPTY || error == EEXIST;
}

// From disk to disk, for a source that is there.
int32_t moveOnDisk(Place from, Place to, const struct stat &source) {
  if (zov::isSameEntry(from.path, to.path)) {
    return ZOV_OKAY;
  }
  if (!zov::diskMayChange()) {
    return ZOV_ERROR;
  }
  if (zov::isSameFile(from.path, to.path)) {
    return joinNames(from, source);
  }
  if (S_ISLNK(source.st_mode) && zov::leadsThrough(from.path, to.path)) {
    return ZOV_ERROR;
  }
  if (putInPlace(from.path, to.path) == ZOV_OKAY) {
    return ZOV_OKAY;
  }
  // Opened to be copied, the name of a standard stream would be the stream.
  const bool mayCopy = !isNoPlace(errno) && zov::standardStream(from.path) < 0;
  return mayCopy ? moveByCopy(from, to) : ZOV_ERROR;
}

}  // namespace

extern "C" {

int32_t zov_fileMove(const char *source, const char *destination) {
  return zov_fileMoveEx(source, 0, destination, 0);
}

int32_t zov_fileMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                       uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr) {
    return ZOV_ERROR;
  }
  if (zov::isSamePath(source, sourceFlags, destination, destinationFlags)) {
    return ZOV_OKAY;
  }
  const bool fromMemory = zov::isInMemory(sourceFlags);
  if (fromMemory && zov::isInMemory(destinationFlags)) {
    return zov::moveMemFile(source, destination) == ZOV_OKAY ? ZOV_OKAY : ZOV_ERROR;
  }
  const Place from = {source, sourceFlags};
  const Place to = {destination, destinationFlags};
  struct stat state;
  const bool moves =
      !fromMemory && !zov::isInMemory(destinationFlags) && lstat(source, &state) == 0;
  return moves ? moveOnDisk(from, to, state) : moveByCopy(from, to);
}
}
