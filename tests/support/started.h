// SPDX-License-Identifier: Apache-2.0
//
// What most tests begin with: the library started around each of them, and the
// same work on several threads at once.
#ifndef TESTS_SUPPORT_STARTED_H
#define TESTS_SUPPORT_STARTED_H

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "zov.h"

namespace zovtest {

class Started : public testing::Test {
 protected:
  Started() { EXPECT_EQ(zov_init(), ZOV_OKAY); }
  ~Started() override {
    // Only tests take the flags back.
    zov_readonly = 0;
    zov_diskless = 0;
    zov_term();
  }
};

// Calls work(0), work(1), ... on a thread each and waits for all.
template <typename Work>
void onThreads(uint32_t count, Work work) {
  std::vector<std::jthread> threads;
  for (uint32_t id = 0; id < count; ++id) {
    threads.emplace_back([&work, id] { work(id); });
  }
}

}  // namespace zovtest

#endif
