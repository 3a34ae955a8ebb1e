// SPDX-License-Identifier: Apache-2.0
//
// Recursive mutexes, events and the table they live in.
#include <deque>
#include <set>
#include <tuple>

#include "core/zov_lock.h"
#include "support/faults.h"
#include "support/replace.h"

namespace {
std::deque<int> wakeUps;  // what the next waits with a deadline give
timespec deadline;        // of the last
}  // namespace

REPLACE(int, pthread_cond_timedwait,
        (pthread_cond_t * condition, pthread_mutex_t *mutex, const timespec *until), {
          deadline = *until;
          if (wakeUps.empty()) {
            return __real_pthread_cond_timedwait(condition, mutex, until);
          }
          const int result = wakeUps.front();
          wakeUps.pop_front();
          return result;
        })

namespace {

using zovtest::outputOf;

using Sync = zovtest::Started;

ZOV_SYNC newMutex() {
  return zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
}
ZOV_SYNC newEvent() {
  return zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
}

TEST_F(Sync, EventStaysAsItWasSet) {
  const ZOV_SYNC event = newEvent();
  EXPECT_EQ(zov_syncWait(event, 0), ZOV_OKAY) << "created signalled";
  EXPECT_EQ(zov_syncWait(event, ZOV_WAIT_FOREVER), ZOV_OKAY) << "a wait resets nothing";
  zov_syncStart(event);
  EXPECT_EQ(zov_syncWait(event, 0), ZOV_TIMEOUT);
  std::atomic<int> waiting{0};
  zovtest::onThreads(5, [&](uint32_t id) {
    if (id < 4) {
      ++waiting;
      EXPECT_EQ(zov_syncWait(event, ZOV_WAIT_FOREVER), ZOV_OKAY);
      EXPECT_EQ(waiting, 99);
      return;
    }
    zovtest::waitUntil([&] { return waiting == 4; });
    waiting = 99;
    zov_syncResume(event);
  });
  EXPECT_EQ(zov_syncWait(event, 0), ZOV_OKAY);
}

// Exactly one second of nanoseconds is not carried, which libc answers with EINVAL.
TEST_F(Sync, WaitsUpToADeadline) {
  const std::tuple<timespec, uint32_t, timespec> rows[] = {
      {{100, 0}, 0, {100, 0}},
      {{100, 250'000'000}, 2500, {102, 750'000'000}},
      {{100, 999'999'000}, 59'999, {160, 998'999'000}},
      {{100, 500'000'000}, 1500, {101, 1'000'000'000}},
      {{100, 0}, UINT32_MAX - 1, {4'295'067, 294'000'000}},
  };
  const ZOV_SYNC event = newEvent();
  zov_syncStart(event);
  for (const auto &[now, waitMs, expected] : rows) {
    zovtest::madeUpNow = now;
    // One for nothing, one by the refusal.
    wakeUps = {0, EINVAL, waitMs == 1500 ? ETIME : ETIMEDOUT};
    EXPECT_EQ(zov_syncWait(event, waitMs), ZOV_TIMEOUT);
    EXPECT_TRUE(wakeUps.empty()) << "an early wake-up ends no wait";
    EXPECT_EQ(deadline.tv_sec, expected.tv_sec) << waitMs;
    EXPECT_EQ(deadline.tv_nsec, expected.tv_nsec) << waitMs;
  }
  zovtest::madeUpNow.reset();
}

TEST_F(Sync, WrongHandlesAreRefused) {
  const ZOV_SYNC mutex = newMutex();
  const ZOV_SYNC event = newEvent();
  const ZOV_SYNC deleted = newMutex();
  zov_syncDelete(deleted);
  for (const ZOV_SYNC handle : {deleted, ZOV_SYNC{0}, ZOV_NO_SYNC, event, mutex}) {
    const std::string asMutex = handle == mutex ? "" : "Invalid mutex\nInvalid mutex\n";
    EXPECT_EQ(outputOf([&] { zov_syncEnterExcl(handle), zov_syncExitExcl(handle); }), asMutex);
    const std::string asEvent = handle == event ? "" : "Invalid event\n";
    EXPECT_EQ(outputOf([&] {
                zov_syncStart(handle);
                zov_syncResume(handle);
                EXPECT_EQ(zov_syncWait(handle, 0), handle == event ? ZOV_OKAY : ZOV_ERROR);
              }),
              asEvent + asEvent + asEvent);
  }
  zov_syncDelete(0);
  zov_syncDelete(ZOV_NO_SYNC);
  for (const int32_t kind : {0, 3, -1, 65537}) {
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(zov_syncCreate_check(kind, ZOV_HERE), ZOV_NO_SYNC); }),
              "Invalid semaphore type\n");
  }
}

#ifndef NDEBUG
TEST_F(Sync, AnAssertingBuildStopsAtALockAgainstTheRanks) {
  zovtest::leavesThings = true;  // the framework does
  const ZOV_SYNC outer = zov::createMutex(zov::LockKind::kIni, ZOV_HERE);
  const ZOV_SYNC inner = zov::createMutex(zov::LockKind::kHeap, ZOV_HERE);
  const ZOV_SYNC plain = newMutex();
  for (const ZOV_SYNC mutex : {plain, outer, inner, outer, plain}) {
    zov_syncEnterExcl(mutex);  // outwards in, once more, and one without rank
  }
  zov_syncExitExcl(outer);
  zov_syncExitExcl(outer);
  EXPECT_DEATH(zov_syncEnterExcl(outer),
               "iniSem \\(rank 2\\) is taken while the heap's sem \\(rank 9\\) is held");
  EXPECT_DEATH(zov_enterCritSec(), "globalMutex \\(rank 1\\) .* the heap's sem \\(rank 9\\)");
  EXPECT_DEATH(zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE),
               "memory .* without a NoJump while the heap's sem");
  zov::forgetLock(inner);  // as for a caller that keeps it
  for (const ZOV_SYNC mutex : {outer, outer, inner, plain, plain}) {
    mutex == outer ? zov_syncEnterExcl(mutex) : zov_syncExitExcl(mutex);
  }
  zov_syncExitExcl(outer), zov_syncExitExcl(outer);
}
#endif

TEST_F(Sync, TableFillsUpAndRecycles) {
  std::set<ZOV_SYNC> handles;
  ZOV_SYNC handle = newMutex();
  const std::string output = outputOf([&] {
    for (; handle != ZOV_NO_SYNC; handle = zov_syncCreate_check(ZOV_SYNC_MUTEX, "maker", 42)) {
      handles.insert(handle);
    }
  });
  EXPECT_EQ(output, "Insufficient number of semaphores, called from maker:42\n");
  EXPECT_LE(handles.size(), 131072u);
  EXPECT_GT(handles.size(), 131072u - 100) << "the library itself holds a few";
  zov_syncDelete(*handles.begin());
  zov_syncDelete(*++handles.begin());
  EXPECT_EQ(newEvent(), *++handles.begin()) << "the slot freed last is taken first";
  EXPECT_EQ(newMutex(), *handles.begin());
}

}  // namespace
