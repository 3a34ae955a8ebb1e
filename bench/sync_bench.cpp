// SPDX-License-Identifier: Apache-2.0
//
// Sync objects beside POSIX's: recursive mutexes alone, entered again, contended
// and made; an event that is reset, signalled and waited for.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <vector>

#include "zov.h"

namespace {

pthread_mutex_t recursiveMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
ZOV_SYNC mutex = ZOV_NO_SYNC;

void start(const benchmark::State &) {
  zov_init();
  mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
}

void stop(const benchmark::State &) {
  zov_term();
}

struct Posix {
  static void enter() { pthread_mutex_lock(&recursiveMutex); }
  static void leave() { pthread_mutex_unlock(&recursiveMutex); }
};

struct Zov {
  static void enter() { zov_syncEnterExcl(mutex); }
  static void leave() { zov_syncExitExcl(mutex); }
};

template <typename Mutex>
void Pairs(benchmark::State &state) {
  for (auto _ : state) {
    Mutex::enter();
    Mutex::leave();
  }
}

template <typename Mutex>
void Reentered(benchmark::State &state) {
  Mutex::enter();
  for (auto _ : state) {
    Mutex::enter();
    Mutex::leave();
  }
  Mutex::leave();
}

#define ZOV_BENCH(scenario, peer, name) \
  BENCHMARK_TEMPLATE(scenario, peer)->Name(name)->Setup(start)->Teardown(stop)

ZOV_BENCH(Pairs, Posix, "mutex-enter-exit/posix")->ThreadRange(1, 4)->UseRealTime();
ZOV_BENCH(Pairs, Zov, "mutex-enter-exit/zov")->ThreadRange(1, 4)->UseRealTime();
ZOV_BENCH(Reentered, Posix, "mutex-reenter/posix");
ZOV_BENCH(Reentered, Zov, "mutex-reenter/zov");

// With so many objects there already.
void CreateDelete(benchmark::State &state) {
  zov_init();
  std::vector<ZOV_SYNC> there(static_cast<size_t>(state.range(0)));
  for (ZOV_SYNC &each : there) {
    each = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  }
  for (auto _ : state) {
    const ZOV_SYNC made = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
    if (made == ZOV_NO_SYNC) {
      state.SkipWithError("no sync object");
      break;
    }
    zov_syncDelete(made);
  }
  zov_term();
}
BENCHMARK(CreateDelete)->Name("mutex-create-delete/zov")->Arg(0)->Arg(10'000)->Arg(130'000);

void CreateDeletePosix(benchmark::State &state) {
  pthread_mutexattr_t recursive;
  pthread_mutexattr_init(&recursive);
  pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
  for (auto _ : state) {
    pthread_mutex_t made;
    pthread_mutex_init(&made, &recursive);
    benchmark::DoNotOptimize(made);
    pthread_mutex_destroy(&made);
  }
  pthread_mutexattr_destroy(&recursive);
}
BENCHMARK(CreateDeletePosix)->Name("mutex-create-delete/posix");

void SignalWait(benchmark::State &state) {
  zov_init();
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  for (auto _ : state) {
    zov_syncStart(event);
    zov_syncResume(event);
    benchmark::DoNotOptimize(zov_syncWait(event, ZOV_WAIT_FOREVER));
  }
  zov_term();
}
BENCHMARK(SignalWait)->Name("event-signal-wait/zov");

void SignalWaitPosix(benchmark::State &state) {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  bool signalled = false;
  for (auto _ : state) {
    pthread_mutex_lock(&lock);
    signalled = true;
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&lock);
    pthread_mutex_lock(&lock);
    while (!signalled) {
      pthread_cond_wait(&condition, &lock);
    }
    signalled = false;
    pthread_mutex_unlock(&lock);
  }
}
BENCHMARK(SignalWaitPosix)->Name("event-signal-wait/posix");

// A detached thread started, and waited for until it runs.
void *post(void *ran) {
  sem_post(static_cast<sem_t *>(ran));
  return nullptr;
}

template <typename Begin>
void threads(benchmark::State &state, Begin begin) {
  sem_t ran;
  sem_init(&ran, 0, 0);
  for (auto _ : state) {
    if (begin(&ran) != 0) {
      state.SkipWithError("no thread");
      break;
    }
    sem_wait(&ran);
  }
  sem_destroy(&ran);
}

void ThreadBegin(benchmark::State &state) {
  zov_init();
  threads(state, [](sem_t *ran) { return zov_threadBegin(post, 0, ran); });
  zov_term();
}
BENCHMARK(ThreadBegin)->Name("thread-begin/zov")->UseRealTime();

void ThreadBeginPosix(benchmark::State &state) {
  pthread_attr_t detached;
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  threads(state, [&detached](sem_t *ran) {
    pthread_t thread;
    return pthread_create(&thread, &detached, post, ran);
  });
  pthread_attr_destroy(&detached);
}
BENCHMARK(ThreadBeginPosix)->Name("thread-begin/posix")->UseRealTime();

}  // namespace
