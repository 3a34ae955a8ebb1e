// SPDX-License-Identifier: Apache-2.0
//
// Fills the standard descriptors that a process was started without. No state
// and no locks; nothing jumps.
#include "os/zovunix_standard.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// The way in which nobody uses a standard descriptor.
int wrongMode(int descriptor) {
  return descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
}

}  // namespace

void zov::fillStandard() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD, 0) >= 0 || errno != EBADF) {
      continue;
    }
    // The lowest number that is free is this one, unless another thread is faster
    // or the one before could not be filled.
    const int opened = open("/dev/null", wrongMode(descriptor), 0);
    if (opened >= 0 && opened != descriptor) {
      close(opened);
    }
  }
}

bool zov::isFilled(int descriptor) {
  if (descriptor < STDIN_FILENO || descriptor > STDERR_FILENO) {
    return false;
  }
  struct stat found;
  return (fcntl(descriptor, F_GETFL, 0) & O_ACCMODE) == wrongMode(descriptor) &&
         fstat(descriptor, &found) == 0 && S_ISCHR(found.st_mode) && found.st_rdev == makedev(1, 3);
}
