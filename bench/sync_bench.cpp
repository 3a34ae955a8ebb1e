// SPDX-License-Identifier: Apache-2.0
//
// Sync objects beside POSIX's recursive mutexes and those of GLib, APR and libuv:
//
//   mutex-enter-exit     entered and left, alone and by several threads in turn
//   mutex-reenter        entered and left by the thread that is inside
//   mutex-create-delete  made and deleted, with so many objects there already
//   event-signal-wait    an event reset, signalled and waited for, on one thread
//   thread-begin         a thread started, and waited for until it runs
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <vector>

#if defined(ZOV_HAVE_APR)
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>
#endif
#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif
#if defined(ZOV_HAVE_UV)
#include <uv.h>
#endif

#include "bench_rows.h"
#include "zov.h"

namespace {

// --- mutexes ---

class Zov {
 public:
  static constexpr char kName[] = "zov";
  Zov() : mutex_(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE)) {}
  ~Zov() { zov_syncDelete(mutex_); }
  Zov(const Zov &) = delete;
  Zov &operator=(const Zov &) = delete;
  void enter() { zov_syncEnterExcl(mutex_); }
  void leave() { zov_syncExitExcl(mutex_); }
  bool isMade() const { return mutex_ != ZOV_NO_SYNC; }

 private:
  ZOV_SYNC mutex_;
};

// The attributes of a recursive mutex.
const pthread_mutexattr_t *recursive() {
  static const pthread_mutexattr_t attributes = [] {
    pthread_mutexattr_t made;
    pthread_mutexattr_init(&made);
    pthread_mutexattr_settype(&made, PTHREAD_MUTEX_RECURSIVE);
    return made;
  }();
  return &attributes;
}

class Posix {
 public:
  static constexpr char kName[] = "posix";
  Posix() { pthread_mutex_init(&mutex_, recursive()); }
  ~Posix() { pthread_mutex_destroy(&mutex_); }
  Posix(const Posix &) = delete;
  Posix &operator=(const Posix &) = delete;
  void enter() { pthread_mutex_lock(&mutex_); }
  void leave() { pthread_mutex_unlock(&mutex_); }
  bool isMade() {
    benchmark::DoNotOptimize(mutex_);
    return true;
  }

 private:
  pthread_mutex_t mutex_;
};

#if defined(ZOV_HAVE_APR)
class Apr {
 public:
  static constexpr char kName[] = "apr";
  Apr() {
    apr_pool_create(&pool_, nullptr);
    apr_thread_mutex_create(&mutex_, APR_THREAD_MUTEX_NESTED, pool_);
  }
  ~Apr() { apr_pool_destroy(pool_); }
  Apr(const Apr &) = delete;
  Apr &operator=(const Apr &) = delete;
  void enter() { apr_thread_mutex_lock(mutex_); }
  void leave() { apr_thread_mutex_unlock(mutex_); }
  bool isMade() const { return mutex_ != nullptr; }

 private:
  apr_pool_t *pool_ = nullptr;
  apr_thread_mutex_t *mutex_ = nullptr;
};
#endif

#if defined(ZOV_HAVE_GLIB)
class Glib {
 public:
  static constexpr char kName[] = "glib";
  Glib() { g_rec_mutex_init(&mutex_); }
  ~Glib() { g_rec_mutex_clear(&mutex_); }
  Glib(const Glib &) = delete;
  Glib &operator=(const Glib &) = delete;
  void enter() { g_rec_mutex_lock(&mutex_); }
  void leave() { g_rec_mutex_unlock(&mutex_); }
  bool isMade() const { return mutex_.p != nullptr; }

 private:
  GRecMutex mutex_;
};
#endif

#if defined(ZOV_HAVE_UV)
class Uv {
 public:
  static constexpr char kName[] = "uv";
  Uv() : isMade_(uv_mutex_init_recursive(&mutex_) == 0) {}
  ~Uv() { uv_mutex_destroy(&mutex_); }
  Uv(const Uv &) = delete;
  Uv &operator=(const Uv &) = delete;
  void enter() { uv_mutex_lock(&mutex_); }
  void leave() { uv_mutex_unlock(&mutex_); }
  bool isMade() const { return isMade_; }

 private:
  uv_mutex_t mutex_;
  bool isMade_;
};
#endif

template <typename Mutex>
void Pairs(benchmark::State &state) {
  static int64_t inside = 0;  // as many as may be
  Mutex &mutex = *common<Mutex>;
  for (auto _ : state) {
    mutex.enter();
    if (++inside != 1) [[unlikely]] {
      state.SkipWithError("two are inside");
    }
    --inside;
    mutex.leave();
  }
}

template <typename Mutex>
void Reentered(benchmark::State &state) {
  Mutex &mutex = *common<Mutex>;
  mutex.enter();
  for (auto _ : state) {
    mutex.enter();
    mutex.leave();
  }
  mutex.leave();
}

template <typename Mutex>
void CreateDelete(benchmark::State &state) {
  for (auto _ : state) {
    Mutex made;
    if (!made.isMade()) {
      state.SkipWithError("no mutex");
      break;
    }
  }
}

// With objects there already.
void CreateDeleteAmong(benchmark::State &state) {
  std::vector<ZOV_SYNC> there(static_cast<size_t>(state.range(0)));
  for (ZOV_SYNC &each : there) {
    each = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  }
  CreateDelete<Zov>(state);
  for (const ZOV_SYNC each : there) {
    zov_syncDelete(each);
  }
}

void startStop(benchmark::internal::Benchmark *row) {
  row->Setup(startLibraries)->Teardown(stopLibraries);
}

template <typename Mutex>
bool addMutex() {
  return addRows(
      Mutex::kName,
      {{"mutex-enter-exit", Pairs<Mutex>, onThreads}, {"mutex-reenter", Reentered<Mutex>}},
      withCommon<Mutex, startLibraries, stopLibraries>);
}

template <typename Mutex>
bool addPeer() {
  return addMutex<Mutex>() &&
         addRows(Mutex::kName, {{"mutex-create-delete", CreateDelete<Mutex>}}, startStop);
}

// --- events ---

void SignalWait(benchmark::State &state) {
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  for (auto _ : state) {
    zov_syncStart(event);
    zov_syncResume(event);
    if (zov_syncWait(event, ZOV_WAIT_FOREVER) != ZOV_OKAY) {
      state.SkipWithError("not signalled");
      break;
    }
  }
  zov_syncDelete(event);
}

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

// --- threads ---

void *post(void *ran) {
  sem_post(static_cast<sem_t *>(ran));
  return nullptr;
}

template <int (*kBegin)(sem_t *ran)>
void ThreadBegin(benchmark::State &state) {
  sem_t ran;
  sem_init(&ran, 0, 0);
  for (auto _ : state) {
    if (kBegin(&ran) != 0) {
      state.SkipWithError("no thread");
      break;
    }
    sem_wait(&ran);
  }
  sem_destroy(&ran);
}

int beginZov(sem_t *ran) {
  return zov_threadBegin(post, 0, ran);
}

int beginPosix(sem_t *ran) {
  pthread_t thread;
  const int status = pthread_create(&thread, nullptr, post, ran);
  return status != 0 ? status : pthread_detach(thread);
}

#if defined(ZOV_HAVE_APR)
int beginApr(sem_t *ran) {
  apr_pool_t *pool = nullptr;
  apr_pool_create(&pool, nullptr);
  apr_thread_t *thread = nullptr;
  const auto body = [](apr_thread_t *, void *argument) { return post(argument); };
  apr_status_t status = apr_thread_create(&thread, nullptr, body, ran, pool);
  if (status == APR_SUCCESS) {
    apr_status_t result;
    status = apr_thread_join(&result, thread);
  }
  apr_pool_destroy(pool);
  return status;
}
#endif

#if defined(ZOV_HAVE_UV)
int beginUv(sem_t *ran) {
  uv_thread_t thread;
  const int status = uv_thread_create(
      &thread, [](void *argument) { post(argument); }, ran);
  return status != 0 ? status : pthread_detach(thread);
}
#endif

void wallTime(benchmark::internal::Benchmark *row) {
  row->UseRealTime();
}

const bool added = [] {
  addMutex<Zov>();
  addPeer<Posix>();
  addRows(Zov::kName,
          {{"mutex-create-delete", CreateDeleteAmong,
            [](auto *row) { row->Arg(0)->Arg(10'000)->Arg(130'000); }},
           {"event-signal-wait", SignalWait},
           {"thread-begin", ThreadBegin<beginZov>, wallTime}},
          startStop);
  addRows(
      Posix::kName,
      {{"event-signal-wait", SignalWaitPosix}, {"thread-begin", ThreadBegin<beginPosix>, wallTime}},
      startStop);
#if defined(ZOV_HAVE_APR)
  addPeer<Apr>();
  addRows(Apr::kName, {{"thread-begin", ThreadBegin<beginApr>, wallTime}}, startStop);
#endif
#if defined(ZOV_HAVE_GLIB)
  addPeer<Glib>();
#endif
#if defined(ZOV_HAVE_UV)
  addPeer<Uv>();
  addRows(Uv::kName, {{"thread-begin", ThreadBegin<beginUv>, wallTime}}, startStop);
#endif
  return true;
}();

}  // namespace
