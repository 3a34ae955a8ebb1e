// SPDX-License-Identifier: Apache-2.0
//
// A directory of a test's own, which goes with all that is in it, and what is
// on disk as the standard library sees it.
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/test.h"

namespace zovtest {

class TempDir {
 public:
  explicit TempDir(const char *parent = nullptr) {
    path_ = parent == nullptr ? std::filesystem::temp_directory_path().string() : parent;
    path_ += "/zovtest.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      abort();
    }
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A directory where a sync costs nothing, or null.
inline const char *quickDisk() {
  return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : nullptr;
}

class StartedInDir : public Started {
 protected:
  std::string at(const std::string &name) const { return dir / name; }

  const TempDir dir;
};

inline void writeFile(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// True also for a link that leads nowhere.
inline bool fileExists(const std::string &path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

inline uint64_t residentBytes() {
  uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace zovtest

#endif
