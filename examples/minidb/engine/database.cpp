// SPDX-License-Identifier: Apache-2.0
#include "engine/database.h"

#include "engine/report.h"
#include "engine/transfer.h"

namespace minidb {

namespace {

constexpr Place kInMemory = {"/minidb.data", ZOV_FILE_MEMORY};

// Brings the data file into memory, if there is one, and keeps others out of it.
bool fetchIntoMemory(Database &database, const char *path) {
  database.memoryLock = lockStore(path);
  if (database.memoryLock == nullptr) {
    return false;
  }
  database.memoryCopy = path;
  if (zov_fileLengthStat(path, 0) < 0) {
    return true;
  }
  return zov_fileCopyEx(path, 0, kInMemory.path, kInMemory.typeFlags) == ZOV_OKAY ||
         cannot("read", path);
}

}  // namespace

bool openDatabase(Database &database, const Settings &settings, bool inMemory) {
  database = {};
  database.settings = settings;
  database.mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  if (database.mutex != ZOV_NO_SYNC && (!inMemory || fetchIntoMemory(database, settings.data))) {
    database.store = openStore(inMemory ? kInMemory : Place{settings.data, 0}, true);
  }
  if (database.store == nullptr) {
    closeDatabase(database);
    return false;
  }
  return true;
}

bool closeDatabase(Database &database) {
  if (database.store != nullptr) {
    closeStore(database.store);
  }
  bool saved = true;
  if (database.memoryLock != nullptr) {
    saved = !database.changed || saveOver(kInMemory, database.memoryCopy);
    unlockStore(database.memoryLock);
  }
  zov_syncDelete(database.mutex);
  return saved;
}

void repairDatabase(Database &database) {
  database.broken = !discardChanges(*database.store);
}

}  // namespace minidb
