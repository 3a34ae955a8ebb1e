// SPDX-License-Identifier: Apache-2.0
//
// Message queues beside a deque under a mutex, GLib's asynchronous queue, and the
// bounded queues of TBB and APR, with room enough that no writer waits:
//
//   queue-write-read   a message in, a message out, on one thread
//   queue-shared       the same on several threads that share the queue
//   queue-burst        a hundred messages in, then out
//   queue-two-threads  a hundred messages that one thread writes and one reads
//   queue-wake-up      there and back between two threads that sleep
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#if defined(ZOV_HAVE_APR)
#include <apr_queue.h>
#endif
#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif
#if defined(ZOV_HAVE_TBB)
#include <tbb/concurrent_queue.h>
#endif

#include "bench_rows.h"
#include "zov.h"

namespace {

constexpr uint64_t kStop = UINT64_MAX;
constexpr uint64_t kBurst = 100;
constexpr uint32_t kRoom = 1000;  // of a bounded queue

class ZovMessages {
 public:
  static constexpr char kName[] = "zov";
  ZovMessages() : queue_(zov_queueCreate("bench")) {}
  ~ZovMessages() { zov_queueDelete(queue_); }
  ZovMessages(const ZovMessages &) = delete;
  ZovMessages &operator=(const ZovMessages &) = delete;
  void put(uint64_t data) { zov_queueWrite(queue_, data, 1, 2, 0); }
  uint64_t take() {
    uint64_t data = 0;
    zov_queueRead(queue_, &data, nullptr, nullptr, ZOV_WAIT_FOREVER);
    return data;
  }

 private:
  ZOV_QUEUE queue_;
};

class DequeMessages {
 public:
  static constexpr char kName[] = "deque";
  void put(uint64_t data) {
    {
      const std::lock_guard lock(mutex_);
      messages_.push_back({data, 1, 2});
    }
    arrived_.notify_one();
  }
  uint64_t take() {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [this] { return !messages_.empty(); });
    const uint64_t data = messages_.front().data;
    messages_.pop_front();
    return data;
  }

 private:
  struct Message {
    uint64_t data;
    uint32_t code;
    uint32_t key;
  };
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Message> messages_;
};

#if defined(ZOV_HAVE_GLIB)
// Its messages are bare pointers, and may not be null.
class GlibMessages {
 public:
  static constexpr char kName[] = "glib";
  GlibMessages() : queue_(g_async_queue_new()) {}
  ~GlibMessages() { g_async_queue_unref(queue_); }
  GlibMessages(const GlibMessages &) = delete;
  GlibMessages &operator=(const GlibMessages &) = delete;
  void put(uint64_t data) { g_async_queue_push(queue_, reinterpret_cast<void *>(data)); }
  uint64_t take() { return reinterpret_cast<uint64_t>(g_async_queue_pop(queue_)); }

 private:
  GAsyncQueue *queue_;
};
#endif

#if defined(ZOV_HAVE_APR)
// Bare pointers as well.
class AprMessages {
 public:
  static constexpr char kName[] = "apr";
  AprMessages() {
    apr_pool_create(&pool_, nullptr);
    apr_queue_create(&queue_, kRoom, pool_);
  }
  ~AprMessages() { apr_pool_destroy(pool_); }
  AprMessages(const AprMessages &) = delete;
  AprMessages &operator=(const AprMessages &) = delete;
  void put(uint64_t data) { apr_queue_push(queue_, reinterpret_cast<void *>(data)); }
  uint64_t take() {
    void *data = nullptr;
    apr_queue_pop(queue_, &data);
    return reinterpret_cast<uint64_t>(data);
  }

 private:
  apr_pool_t *pool_ = nullptr;
  apr_queue_t *queue_ = nullptr;
};
#endif

#if defined(ZOV_HAVE_TBB)
class TbbMessages {
 public:
  static constexpr char kName[] = "tbb";
  TbbMessages() { queue_.set_capacity(kRoom); }
  void put(uint64_t data) { queue_.push(data); }
  uint64_t take() {
    uint64_t data = 0;
    queue_.pop(data);
    return data;
  }

 private:
  tbb::concurrent_bounded_queue<uint64_t> queue_;
};
#endif

void start(const benchmark::State &state) {
  startLibraries(state);
  zov_queueInit(0);
}

void stop(const benchmark::State &state) {
  zov_queueTerm(1);
  stopLibraries(state);
}

template <typename Messages>
void WriteRead(benchmark::State &state) {
  Messages &messages = *common<Messages>;
  for (auto _ : state) {
    messages.put(1);
    if (messages.take() != 1) {
      state.SkipWithError("another message");
      break;
    }
  }
}

template <typename Messages>
void Burst(benchmark::State &state) {
  Messages &messages = *common<Messages>;
  for (auto _ : state) {
    for (uint64_t sent = 1; sent <= kBurst; ++sent) {
      messages.put(sent);
    }
    for (uint64_t expected = 1; expected <= kBurst; ++expected) {
      if (messages.take() != expected) {
        state.SkipWithError("another message");
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBurst));
}

// A burst counts until the reader has taken all of it, so that no backlog grows.
template <typename Messages>
void ProducerReader(benchmark::State &state) {
  Messages &messages = *common<Messages>;
  std::atomic<uint64_t> taken = 0;
  std::thread reader([&messages, &taken] {
    while (messages.take() != kStop) {
      taken.fetch_add(1, std::memory_order_release);
    }
  });
  uint64_t written = 0;
  for (auto _ : state) {
    for (uint64_t i = 0; i < kBurst; ++i) {
      messages.put(1);
    }
    written += kBurst;
    while (taken.load(std::memory_order_acquire) != written) {
    }
  }
  messages.put(kStop);
  reader.join();
  state.SetItemsProcessed(static_cast<int64_t>(written));
}

template <typename Messages>
void WakeUp(benchmark::State &state) {
  Messages &there = *common<Messages>;
  Messages back;
  std::thread echo([&there, &back] {
    uint64_t data;
    while ((data = there.take()) != kStop) {
      back.put(data);
    }
  });
  for (auto _ : state) {
    there.put(1);
    benchmark::DoNotOptimize(back.take());
  }
  there.put(kStop);
  echo.join();
}

template <typename Messages>
void realTime(benchmark::internal::Benchmark *row) {
  withCommon<Messages, start, stop>(row->UseRealTime());
}

template <typename Messages>
bool addQueue() {
  return addRows(Messages::kName,
                 {{"queue-write-read", WriteRead<Messages>},
                  {"queue-shared", WriteRead<Messages>, onThreads},
                  {"queue-burst", Burst<Messages>},
                  {"queue-two-threads", ProducerReader<Messages>},
                  {"queue-wake-up", WakeUp<Messages>}},
                 realTime<Messages>);
}

const bool added = [] {
  addQueue<ZovMessages>();
  addQueue<DequeMessages>();
#if defined(ZOV_HAVE_APR)
  addQueue<AprMessages>();
#endif
#if defined(ZOV_HAVE_GLIB)
  addQueue<GlibMessages>();
#endif
#if defined(ZOV_HAVE_TBB)
  addQueue<TbbMessages>();
#endif
  return true;
}();

}  // namespace
