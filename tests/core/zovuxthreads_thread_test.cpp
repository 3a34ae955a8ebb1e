// SPDX-License-Identifier: Apache-2.0
//
// Threads. Scheduling calls are replaced by ones over a made-up policy, since
// most processes may not change to one that has a range of priorities.
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <tuple>

#include "support/replace.h"
#include "support/test.h"

namespace {

struct Policy {
  int range[2];
  int errors[2];  // of reading and of setting
} policy;

int prioritySet = 0;

}  // namespace

REPLACE(int, pthread_getschedparam, (pthread_t, int *, sched_param *), return policy.errors[0];)
REPLACE(int, pthread_setschedparam, (pthread_t, int, const sched_param *parameters), {
  prioritySet = parameters->sched_priority;
  return policy.errors[1];
})
REPLACE(int, sched_get_priority_max, (int), return policy.range[1];)
REPLACE(int, sched_get_priority_min, (int), return policy.range[0];)

namespace {

// What a started thread finds out about itself, which is done when its frames
// are unwound.
struct Report {
  std::atomic<bool> done{false};
  ZOV_THREAD id = 0;
  sigset_t mask;
  size_t stackBytes = 0;
  int detached = 0;
};

void *report(void *argument) {
  Report &report = *static_cast<Report *>(argument);
  const struct AtEnd {
    std::atomic<bool> &done;
    ~AtEnd() { done = true; }
  } atEnd{report.done};
  report.id = zov_threadId();
  pthread_sigmask(SIG_SETMASK, nullptr, &report.mask);
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, &report.stackBytes);
  pthread_attr_getdetachstate(&attributes, &report.detached);
  pthread_attr_destroy(&attributes);
  zov_threadEnd();
}

// The starter blocks one of the three signals and one of its own. The second
// stack is smaller than the platform allows.
TEST(Thread, StartsDetachedWithSignalsBlocked) {
  EXPECT_EQ(zov_threadBegin(report, 0, nullptr), ZOV_ERROR) << "the library is not started";
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  for (const uint32_t stackBytes : {1u << 20, 1000u}) {
    Report made;
    ZOV_THREAD id = 0;
    ASSERT_EQ(zov_threadBeginEx(report, stackBytes, &made, &id), ZOV_OKAY);
    zovtest::waitUntil([&] { return made.done.load(); });
    EXPECT_EQ(made.id, id);
    EXPECT_EQ(made.detached, PTHREAD_CREATE_DETACHED);
    EXPECT_TRUE(made.stackBytes == stackBytes || stackBytes == 1000);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      const int before = sigismember(&mask, signal);
      EXPECT_EQ(sigismember(&after, signal), before) << signal;
      const bool added = signal == SIGINT || signal == SIGTERM || signal == SIGCHLD;
      EXPECT_EQ(sigismember(&made.mask, signal), added ? 1 : before) << signal;
    }
    EXPECT_EQ(zov_threadJoin(id), ZOV_UNSUPPORTED);
  }
  zov_term();
}

TEST(Thread, PriorityIsAPlaceInTheRange) {
  constexpr int kUnset = -99;
  const std::tuple<Policy, int32_t, uint32_t, int> rows[] = {
      {{{1, 99}, {0, 0}}, ZOV_THREAD_NORMAL, ZOV_OKAY, 50},
      {{{1, 99}, {0, 0}}, ZOV_THREAD_HIGH, ZOV_OKAY, 74},
      {{{1, 99}, {0, 0}}, ZOV_THREAD_LOW, ZOV_OKAY, 25},
      {{{-5, 2}, {0, 0}}, ZOV_THREAD_NORMAL, ZOV_OKAY, -1},
      {{{1, 99}, {0, 0}}, 2, ZOV_ERROR, kUnset},
      {{{1, -1}, {0, 0}}, ZOV_THREAD_NORMAL, ZOV_ERROR, kUnset},
      {{{1, 99}, {0, EPERM}}, ZOV_THREAD_HIGH, ZOV_ERROR, 74},
      {{{1, 99}, {ESRCH, 0}}, 2, ZOV_THREAD_UNREADABLE, kUnset},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    const auto &[made, level, status, priority] = row;
    policy = made;
    prioritySet = kUnset;
    EXPECT_EQ(zov_threadSetPriority(zov_threadId(), level), status);
    EXPECT_EQ(prioritySet, priority);
  }
}

}  // namespace
