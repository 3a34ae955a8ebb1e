// SPDX-License-Identifier: Apache-2.0
//
// Replacing a file on disk: the new one is made beside it, readable by its owner
// alone; gets its permission bits once it is whole; and its directory is synced
// when it has its name.
//
// No locks, no state, no memory from a tag: nothing jumps.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "core/zov_word.h"
#include "files/zovfile_private.h"
#include "files/zovunix_entry.h"

namespace zov {
namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kEverybody = 0777;
constexpr mode_t kGroupBits = 0070;
constexpr mode_t kSharedBits = 0077;
constexpr char kAccessList[] = "system.posix_acl_access";

// Syncs an open directory and closes it. The status is that of the sync.
int32_t syncAndClose(int directory) {
  const bool synced = fsync(directory) == 0 || errno == EINVAL;
  const KeepErrno kept;
  close(directory);
  return synced ? ZOV_OKAY : ZOV_ERROR;
}

// The bits that remain where a file is of another group: members of the first
// group now count as others.
mode_t forForeignGroup(mode_t mode) {
  const mode_t groupAsOthers = (mode & kGroupBits) >> 3;
  return mode & ~kGroupBits & (~static_cast<mode_t>(07) | groupAsOthers);
}

// See passableMode(). `asked` is the result of asking for the access list.
mode_t passable(ssize_t asked, mode_t mode) {
  const bool hasNone =
      asked == 0 || (asked < 0 && (errno == ENODATA || errno == EOPNOTSUPP || errno == ENOSYS));
  return hasNone ? mode : mode & ~kSharedBits;
}

// True for an error of fchmod() on an own file that says: this file system has no
// modes.
bool keepsNoModes(int error) {
  return error == EPERM || error == ENOSYS || error == EOPNOTSUPP;
}

}  // namespace

int openNewFile(const char *path) {
  return open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
}

int32_t syncDirectoryOf(const char *path, uint32_t typeFlags) {
  if ((typeFlags & (ZOV_FILE_MEMORY | ZOV_FILE_NOSYNC)) != 0) {
    return ZOV_OKAY;
  }
  char directory[PATH_MAX];
  if (!parentOf(path, directory)) {  // GCOVR_EXCL_BR_LINE: what is synced was made by this path
    errno = ENAMETOOLONG;            // GCOVR_EXCL_LINE
    return ZOV_ERROR;                // GCOVR_EXCL_LINE
  }
  const int opened = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) {
    return errno == EACCES ? ZOV_OKAY : ZOV_ERROR;
  }
  return syncAndClose(opened);
}

mode_t passableMode(int descriptor, mode_t mode) {
  return passable(fgetxattr(descriptor, kAccessList, nullptr, 0), mode);
}

mode_t passableMode(const char *path, mode_t mode) {
  return passable(getxattr(path, kAccessList, nullptr, 0), mode);
}

int32_t giveMode(int descriptor, mode_t wanted, gid_t group) {
  struct stat own;
  if (fstat(descriptor, &own) != 0) {
    return ZOV_ERROR;
  }
  fremovexattr(descriptor, kAccessList);  // inherited from the directory, if any
  const mode_t mode = passableMode(descriptor, wanted);
  const mode_t given = own.st_gid == group ? mode : forForeignGroup(mode);
  assert((given & ~wanted) == 0);
  return fchmod(descriptor, given) == 0 || keepsNoModes(errno) ? ZOV_OKAY : ZOV_ERROR;
}

// umask() returns the bits only by setting others, under which another thread
// could make files. The kernel shows them in one of the first lines here.
mode_t deniedBits() {
  const int status = open("/proc/thread-self/status", O_RDONLY | O_CLOEXEC);
  if (status < 0) {
    return kEverybody;
  }
  char text[256];
  const ssize_t count = read(status, text, sizeof text - 1);
  close(status);
  text[count < 0 ? 0 : count] = '\0';
  const char key[] = "\nUmask:\t";
  const char *line = strstr(text, key);
  return line == nullptr ? kEverybody
                         : static_cast<mode_t>(strtoul(line + sizeof key - 1, nullptr, 8));
}

}  // namespace zov
