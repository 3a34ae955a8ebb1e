// SPDX-License-Identifier: Apache-2.0
//
// Paths of the memory file system: normalising them, and walking down from the
// root to the directory that they name. On the way a directory is locked for the
// look-up of the next one and no longer.
//
// Only the directory part of a file's path is normalised. Its last component is the
// name as it stands; "." and ".." name no file.
//
// Nothing jumps: callers hold jumps off.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "memstore/zovmfile_private.h"
#include "memstore/zovsegfile_private.h"

namespace zov {
namespace {

bool isSeparator(char byte) {
  return byte == '/' || byte == '\\';
}

// The bytes between the last separator and the scan.
enum class Component : uint8_t {
  kStart,   // none, at the beginning of the path
  kEmpty,   // none, behind a separator
  kDot,     // "."
  kDotDot,  // ".."
  kName     // anything else
};

Component afterDot(Component state) {
  switch (state) {
    case Component::kStart:
    case Component::kEmpty:
      return Component::kDot;
    case Component::kDot:
      return Component::kDotDot;
    default:
      return Component::kName;
  }
}

// Takes a ".." and the component before it off the end of a path of `length`
// bytes; false when there is no such component. The root is its own parent.
bool handle_dot_dot(const char *path, size_t &length) {
  constexpr size_t kWithSeparator = 3;
  if (length < kWithSeparator) {
    return false;
  }
  if (length == kWithSeparator) {
    length = 0;
    return path[0] == '/';
  }
  size_t at = length - kWithSeparator;
  do {
    if (at == 0) {
      return false;
    }
    --at;
  } while (path[at] != '/');
  length = at;
  return true;
}

// Ends the component at the end of a path of `length` bytes, before a separator
// or, with `last`, at the end of the path.
bool endComponent(const char *path, size_t &length, Component state, bool last) {
  switch (state) {
    case Component::kEmpty:
      length -= last ? 0 : 1;
      return true;
    case Component::kDot:
      assert(length >= 2 || last);
      length -= last ? 0 : 2;
      return true;
    case Component::kDotDot:
      return handle_dot_dot(path, length);
    default:
      return true;
  }
}

// Whether a path is in normal form. One with a component that begins with a dot is
// left to normalizePath().
bool isNormal(const char *path, size_t length) {
  bool begun = false;  // a component; a path may begin with one or a separator
  for (size_t at = 0; at < length; ++at) {
    const char byte = path[at];
    if (byte == '\\' || (!begun && at > 0 && byte == '/') || (!begun && byte == '.')) {
      return false;
    }
    begun = byte != '/';
  }
  return true;
}

size_t trimmedLength(const char *path, size_t length) {
  while (length > 0 && isSeparator(path[length - 1])) {
    --length;
  }
  return length;
}

// Finds the directory of a file by the part of its path that ends with the last
// separator. With the separator, so that a "." before it is resolved like any other.
int32_t openParent(const char *path, size_t length, uint64_t &id) {
  if (path[0] == '/') {
    return openMemSubdir(NormalPath(path, length), O_CREAT, id);
  }
  char *relative = makeZeroArray<char>(length + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (relative == nullptr) {
    return ZOV_NOMEMORY;
  }
  memcpy(relative, path, length);
  char *absolute = zov_fullpath(relative);
  zov_freeMem(relative, ZOV_DEFAULT_TAG);
  if (absolute == nullptr) {
    return errno == ENOMEM ? ZOV_NOMEMORY : ZOV_ERROR;
  }
  const int32_t status =
      absolute[0] == '/' ? openParent(absolute, strlen(absolute), id) : ZOV_ERROR;
  zov_freeMem(absolute, ZOV_DEFAULT_TAG);
  return status;
}

const char *skipSlashes(const char *path, const char *end) {
  while (path != end && *path == '/') {
    ++path;
  }
  return path;
}

const char *componentEnd(const char *path, const char *end) {
  const void *slash = memchr(path, '/', static_cast<size_t>(end - path));
  return slash == nullptr ? end : static_cast<const char *>(slash);
}

// Makes the entry of a file that was looked up and not found.
int32_t createFile(Lookup &lookup) {
  if (isDots(lookup.key)) {
    return failWith(EISDIR);
  }
  const int32_t status =
      createEntryInSubdir(*lookup.directory, lookup.cursor, lookup.key, kTypeFile, lookup.id);
  lookup.created = status == ZOV_OKAY;
  return status;
}

// Goes from a directory to the one of that name in it.
int32_t stepDown(uint64_t &id, const NameKey &key, uint32_t flags) {
  const bool creates = (flags & O_CREAT) != 0;
  Directory *parent = creates ? openSubdir(id) : findSubdir(id);
  if (parent == nullptr) {
    if (creates) {
      return ZOV_NOMEMORY;
    }
    errno = ENOENT;
    return ZOV_NOTFOUND;
  }
  const SegLock lock(parent->tree.seg);
  return openSubdirInSubdir(*parent, key, flags, id);
}

const char *lastComponent(const char *path) {
  const char *separator = strrchr(path, '/');
  return separator == nullptr ? path : separator + 1;
}

}  // namespace

bool normalizePath(char *path) {
  Component state = Component::kStart;
  size_t length = 0;  // of the path so far, written over its own beginning
  for (const char *next = path; *next != '\0'; ++next) {
    if (!isSeparator(*next)) {
      path[length++] = *next;
      state = *next == '.' ? afterDot(state) : Component::kName;
      continue;
    }
    // A "./" at the beginning goes with all separators behind it, or the path would
    // become absolute.
    const bool vanishes =
        (state == Component::kDot && length == 1) || (state == Component::kEmpty && length == 0);
    if (vanishes) {
      length = 0;
    } else if (endComponent(path, length, state, false)) {
      path[length++] = '/';
    } else {
      return false;
    }
    state = Component::kEmpty;
  }
  const bool resolved = endComponent(path, length, state, true);
  path[length] = '\0';
  return resolved;
}

NormalPath::NormalPath(const char *path, size_t length) {
  assert(noJumpDepth > 0);
  if (isNormal(path, length)) {
    text_ = path;
    length_ = trimmedLength(path, length);
    return;
  }
  char *text = short_;
  if (length >= sizeof short_) {
    long_ = makeArray<char>(length + 1, ZOV_DEFAULT_TAG, ZOV_HERE);
    if (long_ == nullptr) {
      status_ = ZOV_NOMEMORY;
      return;
    }
    text = long_;
  }
  memcpy(text, path, length);
  text[length] = '\0';
  if (!normalizePath(text)) {
    errno = ENOENT;
    status_ = ZOV_NOTFOUND;
    return;
  }
  text_ = text;
  length_ = trimmedLength(text, strlen(text));
}

NormalPath::~NormalPath() {
  zov_freeMem(long_, ZOV_DEFAULT_TAG);
}

NormalPath directoryPath(const char *path) {
  const char *stripped = zov_pathStripDrive(path);
  return NormalPath(stripped, trimmedLength(stripped, strlen(stripped)));
}

int32_t openMemSubdir(const NormalPath &path, uint32_t flags, uint64_t &id) {
  id = zov_segRootId();
  if (path.get() == nullptr) {
    return path.status();
  }
  if (openSubdir(id) == nullptr) {
    return ZOV_NOMEMORY;
  }
  const char *pathEnd = path.get() + path.length();
  const char *name = skipSlashes(path.get(), pathEnd);
  while (name != pathEnd) {
    const char *nameEnd = componentEnd(name, pathEnd);
    const char *following = skipSlashes(nameEnd, pathEnd);
    const uint32_t wanted = following == pathEnd ? flags : O_CREAT;
    const NameKey key(name, static_cast<size_t>(nameEnd - name));
    const int32_t status = stepDown(id, key, wanted);
    if (status != ZOV_OKAY) {
      return status;
    }
    name = following;
  }
  return ZOV_OKAY;
}

Lookup::Lookup(const char *text)
    : path(zov_pathStripDrive(text)),
      key(lastComponent(path)),
      directoryId(0),
      directory(nullptr),
      id(0),
      created(false) {}

int32_t findParent(Lookup &lookup, bool toStore) {
  const size_t parentLength = static_cast<size_t>(lookup.key.text - lookup.path);
  if (parentLength == 0 || lookup.key.length == 0) {
    return failWith(parentLength == 0 ? EINVAL : EISDIR);
  }
  const int32_t status = openParent(lookup.path, parentLength, lookup.directoryId);
  if (status != ZOV_OKAY) {
    return status == ZOV_NOMEMORY ? ZOV_NOMEMORY : ZOV_ERROR;
  }
  lookup.directory = toStore ? openSubdir(lookup.directoryId) : findSubdir(lookup.directoryId);
  return lookup.directory == nullptr && toStore ? ZOV_NOMEMORY : ZOV_OKAY;
}

int32_t handleFullPath(Lookup &lookup, uint32_t flags, uint16_t type) {
  const int32_t found = findParent(lookup, (flags & O_CREAT) != 0);
  if (found != ZOV_OKAY) {
    return found;
  }
  if (lookup.directory == nullptr) {
    errno = ENOENT;
    return ZOV_NOTFOUND;
  }
  Directory &directory = *lookup.directory;
  segLock(directory.tree.seg);
  lookup.cursor = cursorOf(directory);
  int32_t status = findMemEntityInSubdir(lookup.cursor, lookup.key, type, lookup.id);
  if (status == ZOV_NOTFOUND && (flags & O_CREAT) != 0) {
    status = createFile(lookup);
  }
  if (status != ZOV_OKAY) {
    zov_segUnlock(directory.tree.seg);
  }
  return status;
}

}  // namespace zov
