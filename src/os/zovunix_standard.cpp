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

namespace zov {
namespace {

// The access mode that no program uses on a standard descriptor.
int wrongMode(int descriptor) {
  return descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
}

}  // namespace

void fillStandard() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD, 0) >= 0 || errno != EBADF) {
      continue;
    }
    // The lowest free number is this one, unless another thread is faster or the
    // number before could not be filled.
    const int opened = open("/dev/null", wrongMode(descriptor), 0);
    if (opened >= 0 && opened != descriptor) {
      close(opened);
    }
  }
}

bool isFilled(int descriptor) {
  if (descriptor < STDIN_FILENO || descriptor > STDERR_FILENO) {
    return false;
  }
  struct stat found;
  return (fcntl(descriptor, F_GETFL, 0) & O_ACCMODE) == wrongMode(descriptor) &&
         fstat(descriptor, &found) == 0 && S_ISCHR(found.st_mode) && found.st_rdev == makedev(1, 3);
}

}  // namespace zov
