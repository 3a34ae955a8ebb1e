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

// What the work made, for it to look at; all of it is put away behind the work.
struct Made {
  ZOV_FILE file = nullptr;
  ZOV_STREAM stream = nullptr;
  ZOV_PATH_WALK walk = nullptr;
  ZOV_INPUTBUFF input = nullptr;
  ZOV_OUTPUTBUFF output = nullptr;
  ZOV_POOL pool = nullptr;
  void *other = nullptr;  // for `after`
  char *text = nullptr;
  wchar_t *wideText = nullptr;
  ZOV_TAG tag = 0;
  uint32_t size = 0;
  char room[64] = {};
};

// Where an operation works: "a" is a file of a directory of its own, "o/a" one on
// another file system, "/m/a" one in memory. Names last as long as the world.
class World : public Made {
 public:
  const char *operator()(const std::string &name) { return names(name).first.c_str(); }
  const wchar_t *wide(const std::string &name) { return names(name).second.c_str(); }
  // A state is "a=bytes" for each file, "b/" for each directory, in order; without
  // the names that the library makes up, where it may leave them.
  void put(const std::string &state);
  std::string state(bool withLeftovers = true);
  void putAway();
  void clear();

  uint64_t id = 0;

 private:
  const std::pair<std::string, std::wstring> &names(const std::string &name);

  const TempDir here_{"/dev/shm"};
  const TempDir other_;
  std::map<std::string, std::pair<std::string, std::wstring>> names_;
  bool inMemory_ = false;
};

enum : uint32_t {
  kJumps = 1,       // may jump
  kKeeps = 2,       // keeps blocks and sync objects for later: caches, files in memory
  kInPlace = 4,     // a failure may leave the new bytes half-way; what stands in `before` holds
  kPartly = 8,      // a failure may leave part of what was wanted
  kLate = 64,       // a failure behind the last step may leave all that was wanted
  kUnstarted = 16,  // the library is not started around it
  kLitters = 32,    // a probe that cannot be removed stays
};

struct Operation {
  const char *calls;  // the public functions that the work calls
  uint32_t traits;
  std::string before;
  std::string wanted;
  int32_t (*work)(World &);            // ZOV_OKAY when done, and what came of it is right
  std::vector<int32_t> failures = {};  // ZOV_ERROR where there are none
  const char *left = nullptr;          // a pattern of what stays where only the end fails
  void (*prepare)(World &) = nullptr;  // with the files of `before` there
  void (*after)(World &) = nullptr;    // puts away what is not of Made, as far as it was made
};

constexpr int32_t kWrong = 99;  // said to be done, and is not
constexpr uint32_t kMem = ZOV_FILE_MEMORY;

inline int32_t got(bool made, bool right = true) {
  return !made ? ZOV_ERROR : right ? ZOV_OKAY : kWrong;
}

// Judges a string that was handed out. Where the call may jump, nothing of the
// test's own that has to be destroyed may be alive.
inline int32_t gotText(World &w, char *text, const char *expected) {
  w.text = text;
  return got(text != nullptr, text != nullptr && strcmp(text, expected) == 0);
}

// Sweeps a family and prints how many points that were.
void sweep(const char *family, const std::vector<Operation> &table);

}  // namespace zovtest

#endif
