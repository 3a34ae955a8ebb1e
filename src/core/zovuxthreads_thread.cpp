// SPDX-License-Identifier: Apache-2.0
//
// Threads, a thin layer over POSIX threads. Every thread is started detached,
// so the system reclaims it when it ends and nothing here keeps track of it.
//
// A new thread inherits the signal mask of its starter, which is why
// SIGINT, SIGTERM and SIGCHLD are blocked around its creation: a process that
// handles them does so on its main thread. Signals that come in between stay
// pending and are delivered when the starter's mask is restored.
//
// No locks, no allocations from a tag, no messages; nothing jumps.
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <type_traits>

#include "core/zov_flags.h"

namespace {

static_assert(std::is_same_v<pthread_t, ZOV_THREAD>);

// Creates the thread with its signals blocked and restores the caller's mask
// whatever comes of it. Returns the platform's error number.
int createBlocked(pthread_t &thread, const pthread_attr_t &attributes, void *(*start)(void *),
                  void *argument) {
  sigset_t blocked;
  sigset_t previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  const int error = pthread_create(&thread, &attributes, start, argument);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return error;
}

// Puts a level's place in the range from lowest to highest into priority; false
// for a level that does not exist.
bool priorityOf(int32_t level, int lowest, int highest, int &priority) {
  switch (level) {
    case ZOV_THREAD_NORMAL:
      priority = (highest + lowest) / 2;
      return true;
    case ZOV_THREAD_HIGH:
      priority = (3 * highest + lowest) / 4;
      return true;
    case ZOV_THREAD_LOW:
      priority = (3 * lowest + highest) / 4;
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" {

int32_t zov_threadBegin(void *(*start)(void *), uint32_t stackBytes, void *argument) {
  return zov_threadBeginEx(start, stackBytes, argument, nullptr);
}

int32_t zov_threadBeginEx(void *(*start)(void *), uint32_t stackBytes, void *argument,
                          ZOV_THREAD *thread) {
  pthread_attr_t attributes;
  if (!zov::started() || pthread_attr_init(&attributes) != 0) {
    return ZOV_ERROR;
  }
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (stackBytes != 0) {
    pthread_attr_setstacksize(&attributes, stackBytes);
  }
  pthread_t created;
  const int error = createBlocked(created, attributes, start, argument);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    return ZOV_ERROR;
  }
  if (thread != nullptr) {
    *thread = created;
  }
  return ZOV_OKAY;
}

uint32_t zov_threadSetPriority(ZOV_THREAD thread, int32_t level) {
  int policy;
  sched_param parameters;
  if (pthread_getschedparam(thread, &policy, &parameters) != 0) {
    return ZOV_THREAD_UNREADABLE;
  }
  const int highest = sched_get_priority_max(policy);
  const int lowest = sched_get_priority_min(policy);
  if (highest == -1 || lowest == -1 ||
      !priorityOf(level, lowest, highest, parameters.sched_priority)) {
    return ZOV_ERROR;
  }
  return pthread_setschedparam(thread, policy, &parameters) == 0 ? ZOV_OKAY : ZOV_ERROR;
}

// Unwinds the thread's frames: neither this one nor any between it and the
// start routine may be noexcept.
void zov_threadEnd() {
  pthread_exit(nullptr);
}

ZOV_THREAD zov_threadId() {
  return pthread_self();
}

int32_t zov_threadJoin(ZOV_THREAD) {
  return ZOV_UNSUPPORTED;
}
}
