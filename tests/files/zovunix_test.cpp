// SPDX-License-Identifier: Apache-2.0
//
// The native file primitives against real files. Some file systems
// withhold the types of entries.
#include <sys/stat.h>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;

class Native : public zovtest::StartedInDir {
 protected:
  uint64_t open(const std::string &path) {
    uint64_t descriptor = 0;
    EXPECT_EQ(zov_flOpen(path.c_str(), O_RDWR | O_CREAT, 0, &descriptor), ZOV_OKAY);
    return descriptor;
  }

  const std::string path_ = at("file");
};

TEST_F(Native, DescriptorsFollowTheSystem) {
  uint64_t file = 0;
  EXPECT_EQ(zov_flOpen(path_.c_str(), O_RDWR, 0, &file), ENOENT);
  EXPECT_EQ(zov_flOpenStd(&file, 3), ZOV_ERROR);
  EXPECT_EQ(file, ZOV_NO_DESCRIPTOR);
  file = open(path_);
  const timespec times[2] = {{1, 0}, {1'000'000'000, 999'999'999}};
  ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  EXPECT_EQ(zov_flModTime(path_.c_str()), 1'000'000'000);
  EXPECT_EQ(fcntl(static_cast<int>(file), F_GETFD), FD_CLOEXEC);
  char buffer[5];
  EXPECT_EQ(zov_flSeekRead(file, -2, buffer, 5), ZOV_IO_FAILED) << "an offset like any other";
  EXPECT_EQ(zov_flClose(file), 0);
  EXPECT_EQ(zov_flLock(file), ZOV_ERROR);
  EXPECT_EQ(zov_flSync(file), ZOV_ERROR);
  EXPECT_EQ(zov_flSize(file), 0);
  EXPECT_EQ(zov_flClose(file), -1);
}

TEST_F(Native, TypesThatHaveToBeAskedForAreThoseOfTargets) {
  ASSERT_EQ(symlink(".", path_.c_str()), 0);
  for (const uint32_t asked : {0u, 1u}) {
    const Fault withoutTypes(Call::readdir, asked != 0 ? 1 : UINT32_MAX, zovtest::Limit{0}, true);
    int32_t isDirectory = -1;
    ZOV_DISK_WALK walk = zov_flPathOpen(dir.path().c_str(), "FIL?");
    EXPECT_STREQ(zov_flPathNext(walk, &isDirectory), "file");
    EXPECT_EQ(isDirectory, static_cast<int32_t>(asked));
    EXPECT_EQ(zov_flPathNext(walk, &isDirectory), nullptr);
    zov_flPathClose(walk);
  }
  EXPECT_EQ(zov_flPathOpen(at("missing").c_str(), "*"), nullptr);
}

}  // namespace
