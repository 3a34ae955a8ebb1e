// SPDX-License-Identifier: Apache-2.0
//
// What most tests begin with: the framework and the library, which is started
// around each of them, what a piece of work prints, the same work on several
// threads at once, and random numbers that ZOV_SEED gives again.
#ifndef TESTS_SUPPORT_TEST_H
#define TESTS_SUPPORT_TEST_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zov.h"

namespace zovtest {

// What the process has in hand: open descriptors, and, where the calls beneath
// the library are replaced, its blocks, its locks held, and its sync objects since
// it was started.
struct Standing {
  int64_t descriptors;
  int64_t blocks;
  int64_t locks;
  int64_t slots;
  bool operator==(const Standing &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Standing &now) {
  return out << now.descriptors << " descriptors, " << now.blocks << " blocks, " << now.locks
             << " locks, " << now.slots << " sync objects";
}

inline int64_t openDescriptors() {
  DIR *directory = opendir("/proc/self/fd");
  int64_t count = 0;
  while (readdir(directory) != nullptr) {
    ++count;
  }
  closedir(directory);
  return count;
}

#ifdef ZOVTEST_FAULTS
Standing standing();
#else
inline Standing standing() {
  return {openDescriptors(), 0, 0, 0};
}
#endif

// For a test that leaves things to shut-down, or to the end of the process.
inline bool leavesThings = false;

// No other test may leave more in hand than it found.
class Watch : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo &) override {
    leavesThings = false;
    before_ = standing();
  }
  void OnTestEnd(const testing::TestInfo &test) override {
    if (test.result()->Passed() && !leavesThings) {
      EXPECT_EQ(standing(), before_) << "something is left";
    }
  }
  Standing before_{};
};
inline const bool watched = (testing::UnitTest::GetInstance()->listeners().Append(new Watch), true);

class Started : public testing::Test {
 protected:
  Started() { EXPECT_EQ(zov_init(), ZOV_OKAY); }
  ~Started() override {
    // Only tests take the flags back.
    zov_readonly = 0;
    zov_diskless = 0;
    zov_background = 0;
    zov_term();
  }
};

template <typename Call>
std::string outputOf(Call call) {
  testing::internal::CaptureStdout();
  call();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

template <typename Call>
std::string errorsOf(Call call) {
  testing::internal::CaptureStderr();
  call();
  fflush(stderr);
  return testing::internal::GetCapturedStderr();
}

// Calls work(0), work(1), ... on a thread each and waits for all.
template <typename Work>
void onThreads(uint32_t count, Work work) {
  std::vector<std::jthread> threads;
  for (uint32_t id = 0; id < count; ++id) {
    threads.emplace_back([&work, id] { work(id); });
  }
}

template <typename Condition>
void waitUntil(Condition holds) {
  while (!holds()) {
    std::this_thread::yield();
  }
}

// How a process of its own ends, as wait() tells it, whose status the work gives.
template <typename Work>
int inChild(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(work());
  }
  int end = -1;
  waitpid(child, &end, 0);
  return end;
}

// How many rounds a random test runs: of its usual ones one in ZOV_FEWER, where that is
// set for what slows a program down.
inline int rounds(int usual) {
  const char *const fewer = getenv("ZOV_FEWER");
  return fewer == nullptr ? usual : usual / atoi(fewer);
}

// Random numbers.
struct Dice : std::mt19937_64 {
  explicit Dice(result_type seed = default_seed) : std::mt19937_64(seed) {}
  uint32_t below(uint64_t limit) { return static_cast<uint32_t>((*this)() % limit); }
  std::vector<uint8_t> bytes(size_t count) {
    std::vector<uint8_t> drawn(count);
    std::generate(drawn.begin(), drawn.end(), [&] { return static_cast<uint8_t>((*this)()); });
    return drawn;
  }
};

// Tells its seed with every failure while it lives, and takes it from ZOV_SEED where
// that is set.
class Random : public Dice {
 public:
  const uint32_t seed =
      getenv("ZOV_SEED") == nullptr ? std::random_device{}() : uint32_t(atoll(getenv("ZOV_SEED")));
  Random() { Dice::seed(seed); }

 private:
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "seed " + std::to_string(seed)};
};

}  // namespace zovtest

#endif
