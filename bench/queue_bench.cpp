// SPDX-License-Identifier: Apache-2.0
//
// Message queues beside a deque under a mutex and GLib's asynchronous queue:
//
//   queue-write-read   a message in, a message out, on one thread
//   queue-burst        a hundred messages in, then out
//   queue-two-threads  a hundred messages that one thread writes and one reads
//   queue-wake-up      there and back between two threads that sleep
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif

#include "zov.h"

namespace {

constexpr uint64_t kStop = UINT64_MAX;
constexpr uint64_t kBurst = 100;

void start(const benchmark::State &) {
  zov_init();
  zov_queueInit(0);
}

void stop(const benchmark::State &) {
  zov_queueTerm(1);
  zov_term();
}

class ZovMessages {
 public:
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

template <typename Messages>
void WriteRead(benchmark::State &state) {
  Messages messages;
  for (auto _ : state) {
    messages.put(1);
    benchmark::DoNotOptimize(messages.take());
  }
}

template <typename Messages>
void Burst(benchmark::State &state) {
  Messages messages;
  for (auto _ : state) {
    for (uint64_t i = 0; i < kBurst; ++i) {
      messages.put(1);
    }
    for (uint64_t i = 0; i < kBurst; ++i) {
      benchmark::DoNotOptimize(messages.take());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBurst));
}

// A burst counts until the reader has taken all of it, so that no backlog grows.
template <typename Messages>
void ProducerReader(benchmark::State &state) {
  Messages messages;
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
  Messages there;
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

#define ZOV_BENCH(scenario, peer, name) \
  BENCHMARK_TEMPLATE(scenario, peer)->Name(name)->UseRealTime()->Setup(start)->Teardown(stop)
#if defined(ZOV_HAVE_GLIB)
#define ZOV_BENCH_GLIB(scenario, name) ZOV_BENCH(scenario, GlibMessages, name)
#else
#define ZOV_BENCH_GLIB(scenario, name) static_assert(true)
#endif
#define ZOV_COMPARE(scenario, operation)                  \
  ZOV_BENCH(scenario, ZovMessages, operation "/zov");     \
  ZOV_BENCH(scenario, DequeMessages, operation "/deque"); \
  ZOV_BENCH_GLIB(scenario, operation "/glib")

ZOV_COMPARE(WriteRead, "queue-write-read");
ZOV_COMPARE(Burst, "queue-burst");
ZOV_COMPARE(ProducerReader, "queue-two-threads");
ZOV_COMPARE(WakeUp, "queue-wake-up");

}  // namespace
