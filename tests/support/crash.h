// SPDX-License-Identifier: Apache-2.0
//
// What a crash of the system may leave on disk: what is done below a directory is
// recorded, and replayed on a disk that forgets what was not synced. For test
// programs added with FAULTS. Truncation, and renaming into another directory, are
// not known.
#ifndef TESTS_SUPPORT_CRASH_H
#define TESTS_SUPPORT_CRASH_H

#include <functional>
#include <map>

#include "support/temp_dir.h"

namespace zovtest {

struct Event {
  enum Kind : uint8_t { kCreate, kRename, kRemove, kWrite, kSync } kind;
  uint64_t file;
  uint64_t home;     // the file or directory whose sync makes it safe
  std::string path;  // below the directory; that of a directory ends in a slash
  std::string text;  // the new path, the bytes of a write, or that a sync forgets them
  int64_t offset = 0;
  size_t done = 0;  // how much of the work was done
};

// A disk: what is safe on it, and what was not synced.
struct Disk {
  std::map<std::string, uint64_t> names = {{"", 0}};
  std::map<uint64_t, std::string> contents;
  std::vector<Event> unsynced;

  void apply(const Event &event, Random *tear = nullptr);
  void take(const Event &event);
  void crash(uint32_t how, Random &random);
};

// Records while it lives. The work counts what it has done in `done`.
class Recorder {
 public:
  explicit Recorder(const std::string &directory);
  ~Recorder();
  Recorder(const Recorder &) = delete;
  Recorder &operator=(const Recorder &) = delete;

  // A path that ends in a slash is made as a directory.
  void add(Event::Kind kind, std::string path, std::string text = {}, int64_t offset = 0);
  void add(Event::Kind kind, int fd, std::string bytes = {}, int64_t offset = 0);

  // Lays out what crashes after each of the calls may leave, in one way in the midst of
  // writes and else in several, and shows each state with how much was done. Tells
  // how many states there were.
  using Look = std::function<void(const std::string &directory, size_t done)>;
  uint32_t eachCrash(const Look &look) const;

  std::vector<Event> events;
  size_t done = 0;

 private:
  const std::string directory_;
  Disk before_;
  std::map<std::string, uint64_t> names_;
};
extern Recorder *recorder;

}  // namespace zovtest

#endif
