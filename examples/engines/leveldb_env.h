// SPDX-License-Identifier: Apache-2.0
//
// A LevelDB environment on libzov: every file, lock, directory, thread, clock and log
// of a database goes through it, on disk or in memory.
#ifndef ENGINES_LEVELDB_ENV_H
#define ENGINES_LEVELDB_ENV_H

#include <leveldb/env.h>
#include <stdint.h>

#include <deque>
#include <set>
#include <string>
#include <vector>

#include "zov.h"

namespace engines {

// An environment over one kind of file. The library is started while it lives, and
// every database that uses it is closed before it ends. Any thread may call.
class ZovEnv final : public leveldb::Env {
 public:
  // ZOV_FILE_MEMORY, or 0 for files on disk. Paths in memory begin with a slash.
  explicit ZovEnv(uint32_t typeFlags);
  ~ZovEnv() override;  // waits for the work that was scheduled

  leveldb::Status NewSequentialFile(const std::string &path,
                                    leveldb::SequentialFile **result) override;
  leveldb::Status NewRandomAccessFile(const std::string &path,
                                      leveldb::RandomAccessFile **result) override;
  leveldb::Status NewWritableFile(const std::string &path, leveldb::WritableFile **result) override;
  leveldb::Status NewAppendableFile(const std::string &path,
                                    leveldb::WritableFile **result) override;
  bool FileExists(const std::string &path) override;
  leveldb::Status GetChildren(const std::string &directory,
                              std::vector<std::string> *result) override;
  leveldb::Status RemoveFile(const std::string &path) override;
  leveldb::Status CreateDir(const std::string &path) override;
  leveldb::Status RemoveDir(const std::string &path) override;
  leveldb::Status GetFileSize(const std::string &path, uint64_t *sizeBytes) override;
  leveldb::Status RenameFile(const std::string &source, const std::string &target) override;
  leveldb::Status LockFile(const std::string &path, leveldb::FileLock **lock) override;
  leveldb::Status UnlockFile(leveldb::FileLock *lock) override;
  void Schedule(void (*function)(void *), void *argument) override;
  void StartThread(void (*function)(void *), void *argument) override;
  leveldb::Status GetTestDirectory(std::string *path) override;
  leveldb::Status NewLogger(const std::string &path, leveldb::Logger **result) override;
  uint64_t NowMicros() override;
  void SleepForMicroseconds(int micros) override;

 private:
  struct Work {
    void (*function)(void *);
    void *argument;
  };

  static void *runScheduled(void *env);
  bool takeWork(Work &work);
  leveldb::Status openWritable(const std::string &path, uint32_t flags,
                               leveldb::WritableFile **result);

  const uint32_t typeFlags_;
  const ZOV_SYNC mutex_;    // what stands below
  const ZOV_SYNC arrived_;  // signalled while there is work, or the end is near
  const ZOV_SYNC ended_;    // signalled while no thread runs the work
  std::deque<Work> work_;
  bool isEnding_ = false;
  bool isRunning_ = false;
  std::set<std::string> lockedInMemory_;
};

}  // namespace engines

#endif
