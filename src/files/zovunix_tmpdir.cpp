// SPDX-License-Identifier: Apache-2.0
//
// Where temporary files go, and names for them. An environment variable of the
// library's own decides, untested; without it the first directory of a short list
// in which a file can be made. The search runs once; its result stays in zov_tmp
// until shut-down frees it.
//
// zov_tmp is written in the process-wide critical section and read without it,
// by acquire and release. The search runs inside that section, with jumps held
// off. So no stage of start-up or shut-down may ask for the directory.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "files/zovunix_tmpdir.h"

namespace zov {

std::atomic<char *> zov_tmp = nullptr;

namespace {

// A probe is a new file: no file that exists is opened, no link followed.
constexpr uint32_t kProbeFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;

// The longest directory that the system takes, and the probe's name behind it.
constexpr uint64_t kProbeBytes = PATH_MAX + 64;

// Room for a number behind the name, and for all in front of it.
constexpr uint64_t kNumberBytes = 8;
constexpr uint64_t kLongestProbe = kProbeBytes - kNumberBytes;

// How many names of a probe may be taken before the directory is given up.
constexpr uint32_t kProbeNames = 100;

// The first writable directory of the list but the current one, or null.
const char *findNamed() {
  for (const char *variable : {"TMPDIR", "TEMPDIR"}) {
    const char *directory = getenv(variable);
    if (zov_dirWritable(directory) != 0) {
      return directory;
    }
  }
  return zov_dirWritable("/tmp") != 0 ? "/tmp" : nullptr;
}

// Makes the probe, with a number from `end` on while its name is taken.
ZOV_FILE openProbe(const char *path, char *end) {
  ZOV_FILE file = zov_fileOpen(path, kProbeFlags, 0);
  for (uint32_t number = 1; file == nullptr && errno == EEXIST && number < kProbeNames; ++number) {
    zov_snprintf(end, kNumberBytes, "_%u", number);
    file = zov_fileOpen(path, kProbeFlags, 0);
  }
  return file;
}

char *copyText(const char *text, ZOV_TAG tag) {
  return copyString(text, tag, ZOV_HERE);
}

}  // namespace

const char *tmpdir() {
  const char *chosen = getenv("QEL_TMPDIR");
  return chosen != nullptr ? chosen : zov_osTmpdir();
}

}  // namespace zov

extern "C" {

char *zov_findOStmpdir() {
  const char *named = zov::findNamed();
  if (named != nullptr) {
    return zov::copyText(named, ZOV_DEFAULT_TAG);
  }
  char *current = zov_currdir();
  if (zov_dirWritable(current) == 0) {
    zov_freeMem(current, ZOV_DEFAULT_TAG);
    return nullptr;
  }
  return current;
}

const char *zov_osTmpdir() {
  const char *directory = zov::zov_tmp.load(std::memory_order_acquire);
  if (directory != nullptr || !zov::started()) {
    return directory;
  }
  const zov::NoJump noJump;
  zov_enterCritSec();
  char *found = zov::zov_tmp.load(std::memory_order_relaxed);
  if (found == nullptr) {
    found = zov_findOStmpdir();
    zov::zov_tmp.store(found, std::memory_order_release);
  }
  zov_exitCritSec();
  return found;
}

char *zov_tmpdir(ZOV_TAG tag) {
  const char *directory = zov::tmpdir();
  return directory == nullptr ? nullptr : zov::copyText(directory, tag);
}

int32_t zov_dirWritable(const char *directory) {
  if (directory == nullptr || *directory == '\0') {
    return 0;
  }
  char probe[zov::kProbeBytes];
  void *thread = reinterpret_cast<void *>(zov_threadId());
  const int32_t length = zov_snprintf(probe, sizeof probe, "%s%cqel_dirtest_tmp%08X%p", directory,
                                      '/', zov_get_pid(), thread);
  if (length < 0 || static_cast<uint64_t>(length) >= zov::kLongestProbe) {
    return 0;
  }
  ZOV_FILE file = zov::openProbe(probe, probe + length);
  if (file == nullptr) {
    return 0;
  }
  zov_fileClose(file);
  // zov_fileRemove() would leave the probe under a flag set meanwhile.
  zov_flRemove(probe);
  return 1;
}

char *zov_fileCreateTmpName(uint32_t *counter, const char *prefix, const char *extension,
                            ZOV_TAG tag) {
  const char *name = prefix == nullptr ? "temp" : prefix;
  const char *suffix = extension == nullptr ? "tmp" : extension;
  const char *directory = zov::tmpdir();
  const bool isNamed = directory != nullptr && *directory != '\0';
  return zov_makeStrVA(ZOV_HERE, tag, "%s%s%s_%p_%010u_%03u.%s", isNamed ? directory : "",
                       isNamed ? "/" : "", name, static_cast<void *>(counter), zov_get_pid(),
                       (*counter)++, suffix);
}
}
