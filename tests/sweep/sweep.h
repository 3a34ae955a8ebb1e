// SPDX-License-Identifier: Apache-2.0
//
// A table of operations, each tried with every call beneath them failing in turn:
// the nth use of a call fails, falls short, fails from then on, is the last of its
// process, or, where it is an allocation, jumps to the default tag's recovery
// point. After each point the status is a documented one, the files are all as
// before or all as wanted, as the status says, nothing is lost, another thread can
// do the work, and the library stops and starts again.
#ifndef TESTS_SWEEP_SWEEP_H
#define TESTS_SWEEP_SWEEP_H

#include <map>
#include <string>
#include <vector>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace zovtest {

// Where an operation works: "a" is a file of a directory of its own, "o/a" one on
// another file system, "/m/a" one in memory. Names last as long as the world.
class World {
 public:
  const char *operator()(const char *name) { return paths_.at(note(name)).first.c_str(); }
  const wchar_t *wide(const char *name) { return paths_.at(note(name)).second.c_str(); }
  void put(const char *name, const std::string &bytes);
  // "a=bytes" for each file, "b/" for each directory, in order; without the names
  // that the library makes up, where it may leave them.
  std::string state(bool withLeftovers = true);
  void clear();
  bool hasOtherFileSystem() const;

  // What the work made, for it to look at and for `after` to put away.
  void *made = nullptr;
  uint64_t handle = 0;
  uint64_t handle2 = 0;
  ZOV_TAG tag = 0;
  char *text = nullptr;
  wchar_t *wideText = nullptr;
  uint32_t size = 0;
  char room[64] = {};

 private:
  std::string note(const char *name);

  const TempDir here_{std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : nullptr};
  const TempDir other_;
  std::map<std::string, std::pair<std::string, std::wstring>> paths_;
  bool inMemory_ = false;
};

enum : uint32_t {
  kJumps = 1,       // may jump
  kKeeps = 2,       // keeps blocks and sync objects for later: caches, files in memory
  kInPlace = 4,     // a failure may leave the new bytes half-way; what stands in `before` holds
  kPartly = 8,      // a failure may leave part of what was wanted
  kUnstarted = 16,  // the library is not started around it
  kByFile = 64,     // goes file by file: each is whole in one place or in both
  kLitters = 32,    // a probe that cannot be removed stays
};

struct Operation {
  const char *calls;  // the public functions that the work calls
  uint32_t traits;
  void (*prepare)(World &);
  int32_t (*work)(World &);  // ZOV_OKAY when done, and what came of it is right
  std::vector<int32_t> failures;
  std::string before;
  std::string wanted;
  void (*after)(World &) = nullptr;  // puts away what was made, as far as it was
  const char *left = nullptr;        // what stays where it is only the end that fails
};

constexpr int32_t kWrong = 99;  // said to be done, and is not
constexpr uint32_t kMem = ZOV_FILE_MEMORY;

inline int32_t got(bool made, bool right = true) {
  return !made ? ZOV_ERROR : right ? ZOV_OKAY : kWrong;
}

// Judges a string that was handed out. Where the call may jump, none of the test's
// own must be alive.
inline int32_t gotText(const World &w, const std::string &expected) {
  return got(w.text != nullptr, w.text != nullptr && w.text == expected);
}

inline void nothing(World &) {}

inline void putAwayText(World &w) {
  zov_freeMem(w.text, ZOV_DEFAULT_TAG);
  zov_freeMem(w.wideText, ZOV_DEFAULT_TAG);
  w.text = nullptr;
  w.wideText = nullptr;
}

// Sweeps a family and prints how many points that were.
void sweep(const char *family, const std::vector<Operation> &table);

}  // namespace zovtest

#endif
