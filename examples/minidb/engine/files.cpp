// SPDX-License-Identifier: Apache-2.0
#include "engine/files.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace minidb {

namespace {

bool isSame(const struct stat &first, const struct stat &second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// A draft is locked while somebody writes it.
void removeLeftOver(const char *path) {
  uint64_t descriptor = ZOV_NO_DESCRIPTOR;
  if (zov_flOpen(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0, &descriptor) == 0) {
    if (zov_flLock(descriptor) == ZOV_OKAY) {
      zov_flRemove(path);
    }
    zov_flClose(descriptor);
  }
}

// Makes and locks the file, unless another one took it for a left-over in between.
bool createLocked(Draft &draft) {
  struct stat made;
  struct stat named;
  removeLeftOver(draft.path);
  if (zov_flOpen(draft.path, O_WRONLY | O_CREAT | O_EXCL, 0, &draft.descriptor) != 0) {
    return false;
  }
  if (zov_flLock(draft.descriptor) == ZOV_OKAY && stat(draft.path, &named) == 0 &&
      fstat(static_cast<int>(draft.descriptor), &made) == 0 && isSame(named, made)) {
    return true;
  }
  zov_flClose(draft.descriptor);
  errno = EBUSY;
  return false;
}

void closeDraft(Draft &draft) {
  zov_outputBuffDestroy(draft.out);
  draft.out = nullptr;
  zov_flClose(draft.descriptor);
}

}  // namespace

bool failedAt(const char *action, const char *path) {
  return fail("cannot %s \"%.500s\": %s", action, path, strerror(errno));
}

bool report() {
  zov_log_err("minidb: %s\n", problem());
  return false;
}

FileKind kindOf(const char *path) {
  struct stat status;
  if (stat(path, &status) != 0) {
    return errno == ENOENT ? FileKind::kNone : FileKind::kOther;
  }
  return S_ISREG(status.st_mode)    ? FileKind::kRegular
         : S_ISSOCK(status.st_mode) ? FileKind::kSocket
                                    : FileKind::kOther;
}

int32_t writeToDescriptor(void *descriptor, const void *data, uint32_t length) {
  const char *at = static_cast<const char *>(data);
  while (length > 0) {
    const uint32_t sent = zov_flWrite(*static_cast<const uint64_t *>(descriptor), at, length);
    if (sent == ZOV_IO_FAILED && errno != EINTR) {
      return errno;
    }
    at += sent == ZOV_IO_FAILED ? 0 : sent;
    length -= sent == ZOV_IO_FAILED ? 0 : sent;
  }
  return 0;
}

bool openDraft(Draft &draft, const char *target) {
  draft.out = nullptr;
  draft.target = target;
  const int length = zov_snprintf(draft.path, sizeof draft.path, "%s.minidb-new", target);
  errno = ENAMETOOLONG;
  if (length >= static_cast<int>(sizeof draft.path) || !createLocked(draft)) {
    return failedAt("create", target);
  }
  if (zov_outputBuffCreate(writeToDescriptor, &draft.descriptor, 0, &draft.out) == 0) {
    return true;
  }
  zov_flRemove(draft.path);
  zov_flClose(draft.descriptor);
  return failedAt("create", target);
}

bool keepDraft(Draft &draft) {
  if (zov_outputBuffFlush(draft.out) != 0 || zov_flSync(draft.descriptor) != ZOV_OKAY ||
      zov_fileRename(draft.path, draft.target) != ZOV_OKAY) {
    const bool kept = failedAt("write", draft.target);
    dropDraft(draft);
    return kept;
  }
  closeDraft(draft);
  return syncDirectory(draft.target);
}

void dropDraft(Draft &draft) {
  if (draft.out != nullptr) {
    zov_flRemove(draft.path);
    closeDraft(draft);
  }
}

}  // namespace minidb
