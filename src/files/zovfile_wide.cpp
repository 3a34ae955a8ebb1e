// SPDX-License-Identifier: Apache-2.0
//
// The wide forms of the file and directory utilities. Each converts its paths
// strictly, calls the narrow form, and frees the copies. Jumps are held off for
// the length of the call, so that no copy is lost.
#include "core/zov_shortage.h"
#include "files/zovutf8_private.h"

namespace zov {
namespace {

template <typename Call, typename... Paths>
int32_t withPaths(Call call, Paths... paths) {
  const NoJump noJump;
  return withUTF8(int32_t{ZOV_ERROR}, call, paths...);
}

using PairCall = int32_t (*)(const char *, uint32_t, const char *, uint32_t);

int32_t withPair(const wchar_t *first, uint32_t firstFlags, const wchar_t *second,
                 uint32_t secondFlags, PairCall call) {
  return withPaths(
      [&](const char *firstBytes, const char *secondBytes) {
        return call(firstBytes, firstFlags, secondBytes, secondFlags);
      },
      first, second);
}

}  // namespace

}  // namespace zov

extern "C" {

int32_t zov_fileCopyW(const wchar_t *source, const wchar_t *destination) {
  return zov::withPaths(zov_fileCopy, source, destination);
}

int32_t zov_fileCopyExW(const wchar_t *source, uint32_t sourceFlags, const wchar_t *destination,
                        uint32_t destinationFlags) {
  return zov::withPair(source, sourceFlags, destination, destinationFlags, zov_fileCopyEx);
}

int32_t zov_fileCmpW(const wchar_t *first, const wchar_t *second) {
  return zov::withPaths(zov_fileCmp, first, second);
}

int32_t zov_fileCmpExW(const wchar_t *first, uint32_t firstFlags, const wchar_t *second,
                       uint32_t secondFlags) {
  return zov::withPair(first, firstFlags, second, secondFlags, zov_fileCmpEx);
}

int32_t zov_fileMoveW(const wchar_t *source, const wchar_t *destination) {
  return zov::withPaths(zov_fileMove, source, destination);
}

int32_t zov_fileMoveExW(const wchar_t *source, uint32_t sourceFlags, const wchar_t *destination,
                        uint32_t destinationFlags) {
  return zov::withPair(source, sourceFlags, destination, destinationFlags, zov_fileMoveEx);
}

int32_t zov_fileRemoveW(const wchar_t *path) {
  return zov::withPaths(zov_fileRemove, path);
}

int32_t zov_fileRemoveExW(const wchar_t *path, uint32_t typeFlags) {
  return zov::withPaths([&](const char *bytes) { return zov_fileRemoveEx(bytes, typeFlags); },
                        path);
}

int32_t zov_fileRenameW(const wchar_t *oldPath, const wchar_t *newPath) {
  return zov::withPaths(zov_fileRename, oldPath, newPath);
}

int32_t zov_fileRenameExW(const wchar_t *oldPath, uint32_t oldTypeFlags, const wchar_t *newPath,
                          uint32_t newTypeFlags) {
  return zov::withPair(oldPath, oldTypeFlags, newPath, newTypeFlags, zov_fileRenameEx);
}

int32_t zov_fileValidateW(const wchar_t *path, int32_t *isDirectory) {
  return zov_fileValidateExW(path, 0, isDirectory);
}

int32_t zov_fileValidateExW(const wchar_t *path, uint32_t typeFlags, int32_t *isDirectory) {
  return zov::withPaths(
      [&](const char *bytes) { return zov_fileValidateEx(bytes, typeFlags, isDirectory); }, path);
}

int32_t zov_dirCreateAllW(const wchar_t *path) {
  return zov::withPaths(zov_dirCreateAll, path);
}

int32_t zov_dirMoveW(const wchar_t *source, const wchar_t *destination) {
  return zov::withPaths(zov_dirMove, source, destination);
}

int32_t zov_dirMoveExW(const wchar_t *source, uint32_t sourceFlags, const wchar_t *destination,
                       uint32_t destinationFlags) {
  return zov::withPair(source, sourceFlags, destination, destinationFlags, zov_dirMoveEx);
}

ZOV_PATH_WALK zov_pathOpenW(const wchar_t *directory, const wchar_t *pattern) {
  return zov_pathOpenExW(directory, 0, pattern);
}

ZOV_PATH_WALK zov_pathOpenExW(const wchar_t *directory, uint32_t typeFlags,
                              const wchar_t *pattern) {
  const zov::NoJump noJump;
  return zov::withUTF8(
      ZOV_PATH_WALK{nullptr},
      [&](const char *directoryBytes, const char *patternBytes) {
        return zov_pathOpenEx(directoryBytes, typeFlags, patternBytes);
      },
      directory, pattern);
}
}
