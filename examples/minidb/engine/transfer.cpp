// SPDX-License-Identifier: Apache-2.0
#include "engine/transfer.h"

#include "engine/report.h"

namespace minidb {

namespace {

constexpr uint32_t kReadWrite = 0x2;

bool syncFile(Place place) {
  ZOV_FILE file = zov_fileOpen(place.path, kReadWrite, place.typeFlags);
  if (file == nullptr) {
    return cannot("open", place.path);
  }
  const int32_t status = zov_fileSync(file);
  zov_fileClose(file);
  return status == ZOV_OKAY || cannot("sync", place.path);
}

bool copyAndCheck(Place from, Place beside) {
  if (zov_fileCopyEx(from.path, from.typeFlags, beside.path, beside.typeFlags) != ZOV_OKAY) {
    return cannot("write", beside.path);
  }
  if (zov_fileCmpEx(from.path, from.typeFlags, beside.path, beside.typeFlags) != ZOV_OKAY) {
    zov_log_err("minidb: \"%s\" is not what was written to it.\n", beside.path);
    return false;
  }
  return syncFile(beside);
}

}  // namespace

bool bringBeside(Place from, Place beside) {
  zov_fileRemoveEx(beside.path, beside.typeFlags);
  if (copyAndCheck(from, beside)) {
    return true;
  }
  zov_fileRemoveEx(beside.path, beside.typeFlags);
  return false;
}

bool saveOver(Place from, const char *path) {
  char *beside = zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s.new", path);
  if (beside == nullptr) {
    return false;
  }
  bool saved = bringBeside(from, {beside, 0});
  if (saved && zov_fileMove(beside, path) != ZOV_OKAY) {
    saved = cannot("replace", path);
  }
  zov_freeMem(beside, ZOV_DEFAULT_TAG);
  return saved;
}

}  // namespace minidb
