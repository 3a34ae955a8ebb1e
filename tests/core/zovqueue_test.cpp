// SPDX-License-Identifier: Apache-2.0
//
// Message queues: a random walk against a model, the life of queues and module, and
// the end of a queue between threads. Many writers and readers at once are in the soak.
// Where an order of events between threads matters, the locks of libc are replaced by
// ones that tell of it or act at that moment.
#include <array>
#include <deque>
#include <functional>
#include <map>

#include "support/faults.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using zovtest::outputOf;

void until(const std::atomic<uint32_t> &counter, uint32_t value) {
  zovtest::waitUntil([&] { return counter >= value; });
}

int32_t read(ZOV_QUEUE queue, uint32_t waitMs = 0) {
  uint64_t data = 0;
  return zov_queueRead(queue, &data, nullptr, nullptr, waitMs);
}

void write(ZOV_QUEUE queue) {
  zov_queueWrite(queue, 1, 2, 3, 0);
}

// Works, and does something first at some of the locks that are taken on the way.
using Acts = std::map<uint32_t, std::function<void()>>;
template <typename Work>
auto meanwhile(const Acts &acts, Work work) {
  const Fault locks(Call::pthread_mutex_lock, [&](uint32_t lock) {
    if (const auto act = acts.find(lock); act != acts.end()) {
      act->second();
    }
  });
  return work();
}

int32_t readWhile(const Acts &acts, ZOV_QUEUE queue, uint32_t waitMs = ZOV_WAIT_FOREVER) {
  return meanwhile(acts, [&] { return read(queue, waitMs); });
}

class Queue : public zovtest::Started {
 protected:
  Queue() {
    EXPECT_EQ(zov_queueInit(0), ZOV_OKAY);
    queue = zov_queueCreate("orders");
  }
  ~Queue() override { zov_queueTerm(1); }

  ZOV_QUEUE queue = nullptr;
};

// In its first half without memory: there is room for the forty messages that a
// queue is made with. It fills up in every second five hundred steps.
TEST_F(Queue, BehavesAsItsModel) {
  zovtest::Random random;
  using Message = std::array<uint64_t, 3>;  // data, code, key
  std::deque<Message> model;
  std::ptrdiff_t dropped = 0;
  zovtest::failAllocationAfter(0, true);
  const std::string out = outputOf([&] {
    for (int step = 0; step < 20000; ++step) {
      if (step == 10000) {
        EXPECT_TRUE(zovtest::stopFailing());
      }
      const uint32_t key = random.below(4);
      const uint32_t choice = random.below(step / 500 % 2 == 0 ? 16 : 64);
      uint64_t data = random();
      uint32_t code = static_cast<uint32_t>(random());
      if (choice == 0) {
        const bool every = random() % 8 == 0;
        zov_queuePurge(queue, every ? ZOV_QUEUE_EVERY_KEY : key);
        std::erase_if(model, [&](const auto &message) { return every || message[2] == key; });
      } else if (choice < 8) {
        uint32_t itsKey = 0;
        const int32_t status = zov_queueRead(queue, &data, &code, &itsKey, 0);
        ASSERT_EQ(status, model.empty() ? ZOV_ERROR : ZOV_OKAY);
        if (status == ZOV_OKAY) {
          ASSERT_EQ(model.front(), (Message{data, code, itsKey}));
          model.pop_front();
        }
      } else {
        const bool inFront = choice % 4 == 0;
        const bool fits = step >= 10000 || model.size() < 40;
        errno = EDOM;
        zov_queueWrite(queue, data, code, key, inFront ? ZOV_QUEUE_FRONT | 1 : 5);
        ASSERT_EQ(errno, fits ? EDOM : ENOMEM);
        dropped += fits ? 0 : 1;
        model.insert(inFront ? model.begin() : model.end(), fits ? 1 : 0, {data, code, key});
      }
      ASSERT_EQ(zov_queueCount(queue), model.size());
    }
  });
  EXPECT_EQ(std::ranges::count(out, '\n'), dropped) << out.substr(0, 99);
}

// Others come between its looks at the queue and the locks that it then takes.
TEST_F(Queue, TakesAndGivesWhatIsThereByThen) {
  const auto put = [&] { write(queue); };
  const auto purge = [&] { zov_queuePurge(queue, ZOV_QUEUE_EVERY_KEY); };
  const auto fill = [&] { std::ranges::for_each(std::array<int, 40>{}, [&](int) { put(); }); };
  EXPECT_EQ(readWhile({{1, put}}, queue, 0), ZOV_OKAY);
  EXPECT_EQ(readWhile({{1, put}, {2, purge}}, queue, 0), ZOV_ERROR);
  put();
  EXPECT_EQ(readWhile({{1, purge}}, queue, 0), ZOV_ERROR);
  fill();
  meanwhile({{2, purge}}, put);
  EXPECT_EQ(zov_queueCount(queue), 1u) << "a node was free again";
  purge();
  fill();
  meanwhile({{3, fill}}, put);
  EXPECT_EQ(zov_queueCount(queue), 81u) << "the nodes made for it were used up";
}

// A second reader comes when the message is there that the first was woken for.
TEST_F(Queue, ReadersTakeTurns) {
  std::jthread late;
  const auto overtake = [&] {
    late = std::jthread([&] { EXPECT_EQ(read(queue), ZOV_ERROR); });
    until(zovtest::locksFoundTaken, 1);
  };
  EXPECT_EQ(readWhile({{3, [&] { write(queue); }}, {4, overtake}}, queue), ZOV_OKAY);
}

TEST_F(Queue, WaitsForAMessageUnlessItIsClosed) {
  EXPECT_EQ(read(queue, 5), ZOV_TIMEOUT);
  write(queue);
  zov_queueClose(queue);
  write(queue);
  EXPECT_EQ(errno, EPIPE);
  zov_queuePurge(queue, ZOV_QUEUE_EVERY_KEY);
  EXPECT_EQ(zov_queueCount(queue), 1u) << "neither written nor purged";
  EXPECT_EQ(read(queue), ZOV_QUEUE_CLOSED) << "what it held is out of reach";
}

// Closes the queue before each lock that a reader takes on its way to sleep: read
// mutex, list mutex, event.
TEST_F(Queue, CloseIsNeverSleptThrough) {
  for (uint32_t moment = 1; moment <= 3; ++moment) {
    ZOV_QUEUE closing = zov_queueCreate("closing");
    EXPECT_EQ(readWhile({{moment, [&] { zov_queueClose(closing); }}}, closing), ZOV_QUEUE_CLOSED);
    zov_queueDelete(closing);
  }
}

// A writer sets out to wake a reader, which runs out of time before it gets
// there, so that the next one is woken in its place and has to sleep on.
TEST_F(Queue, LateWakeUpIsNotTakenForAMessage) {
  std::atomic<uint32_t> stage{0};
  std::thread writer;
  const auto startWriter = [&] {
    writer = std::thread([&] {
      const Fault locks(Call::pthread_mutex_lock, [&](uint32_t lock) {
        stage = std::max<uint32_t>(stage, lock == 2);
        until(stage, lock == 2 ? 2 : 0);
      });
      write(queue);
    });
    until(stage, 1);
  };
  EXPECT_EQ(readWhile({{3, startWriter}}, queue, 1), ZOV_TIMEOUT);
  EXPECT_EQ(read(queue), ZOV_OKAY);
  const auto finishWriter = [&] { stage = 2, writer.join(); };
  EXPECT_EQ(readWhile({{3, finishWriter}, {5, [&] { write(queue); }}}, queue), ZOV_OKAY);
  EXPECT_EQ(zov_queueCount(queue), 0u);
}

// Purges what a reader was woken for before it gets there. The queue stays
// locked, so this test takes nothing down.
void putInDoubt() {
  ASSERT_EQ(zov_init() | zov_queueInit(0), ZOV_OKAY);
  ZOV_QUEUE queue = zov_queueCreate("orders");
  const Acts acts = {{3, [&] { write(queue); }}, {4, [&] { zov_queuePurge(queue, 3); }}};
  EXPECT_EQ(outputOf([&] { EXPECT_EQ(readWhile(acts, queue, 1000), ZOV_ERROR); }),
            "unexpected empty queue on orders");
  std::thread(read, queue, 0).detach();
  until(zovtest::locksFoundTaken, 1);
  std::thread(write, queue).detach();
  until(zovtest::locksFoundTaken, 2);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(QueueInDoubt, StaysLocked) {
  zovtest::leavesThings = true;  // the framework does
  EXPECT_EXIT(putInDoubt(), testing::ExitedWithCode(0), "");
}

// Of more than 16 bits count, which are deleted in the order that would cost a
// search most, without a word.
TEST_F(Queue, IsFoundByName) {
  EXPECT_EQ(zov_queueFind("Orders"), nullptr);
  std::vector<ZOV_QUEUE> queues(33000);
  std::generate(queues.begin(), queues.end(), [] { return zov_queueCreate("orders"); });
  ZOV_QUEUE unnamed = zov_queueCreate(nullptr);
  EXPECT_EQ(zov_queueFind(""), unnamed);
  EXPECT_EQ(outputOf([&] {
              for (ZOV_QUEUE each : queues) {
                EXPECT_EQ(zov_queueFind("orders"), queues.back());
                zov_queueDelete(each);
              }
            }),
            "");
  EXPECT_EQ(zov_queueFind("orders"), queue);
  zov_queueDelete(queue);
  EXPECT_EQ(zov_queueFind("orders"), nullptr);
}

TEST_F(Queue, ForcedEndReleasesTheReaders) {
  ZOV_QUEUE queues[] = {queue, zov_queueCreate("more"), queue, queue};
  std::atomic<uint32_t> waiting{0};
  zovtest::onThreads(5, [&](uint32_t id) {
    if (id < 4) {
      EXPECT_EQ(readWhile({{1, [&] { ++waiting; }}}, queues[id]), ZOV_QUEUE_CLOSED);
    } else {
      until(waiting, 4);
      zov_queueTerm(1);
    }
  });
}

// The last two handles are a queue that is not on the list, as if deleted
// before, and one without a name, which the calls complain of but use.
TEST_F(Queue, BadHandlesAreReported) {
  const std::string invalid = "Invalid queue handle";
  EXPECT_EQ(outputOf([] {
              write(nullptr);
              EXPECT_EQ(read(nullptr), ZOV_ERROR);
              zov_queuePurge(nullptr, 1);
              zov_queueClose(nullptr);
              zov_queueDelete(nullptr);
              EXPECT_EQ(zov_queueCount(nullptr), 0u);
            }),
            invalid + invalid + invalid);
  uint64_t record[16] = {reinterpret_cast<uint64_t>("deleted")};
  const auto erase = [&] { zov_queueDelete(reinterpret_cast<ZOV_QUEUE>(record)); };
  erase();
  EXPECT_EQ(outputOf(erase), "Deleted too many queues");
  record[0] = 0;
  ZOV_QUEUE nameless = reinterpret_cast<ZOV_QUEUE>(record);
  EXPECT_TRUE(outputOf([&] { write(nameless); }).starts_with(invalid));
  EXPECT_EQ(zov_queueCount(nameless), 1u);
}

TEST(QueueModule, LivesBetweenInitAndTerm) {
  zovtest::leavesThings = true;
  EXPECT_EQ(zov_queueInit(0), ZOV_ERROR) << "the library is not started";
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    EXPECT_EQ(zov_queueCreate("early"), nullptr);
    EXPECT_EQ(zov_queueFind("early"), nullptr);
    EXPECT_EQ(read(nullptr), ZOV_ERROR);
    EXPECT_EQ(zov_queueInit(0), ZOV_OKAY);
    ZOV_QUEUE queue = zov_queueCreate("kept");
    zov_enterCritSec();  // a running module has no need of it
    EXPECT_EQ(zov_queueInit(0x10000), ZOV_OKAY);
    zov_exitCritSec();
    zov_queueTerm(0x10000);
    EXPECT_EQ(zov_queueFind("kept"), queue) << "the high half forces nothing";
    EXPECT_EQ(zov_queueInit(1), ZOV_OKAY);
    EXPECT_EQ(zov_queueFind("kept"), nullptr);
    zov_queueTerm(0);
    EXPECT_EQ(zov_queueInit(0), ZOV_OKAY);
    EXPECT_NE(zov_queueCreate("left over"), nullptr);
    zov_term();  // with the module running
  }
}

// Deletes each queue as soon as its last message or its end was read, while the
// writer or closer may not be back from its call.
TEST_F(Queue, MayBeDeletedByWhoReadsItsEnd) {
  std::jthread other([&] {
    uint64_t handle = 0;
    uint32_t closes = 0;
    while (zov_queueRead(queue, &handle, &closes, nullptr, ZOV_WAIT_FOREVER) == ZOV_OKAY) {
      (closes != 0 ? zov_queueClose : write)(reinterpret_cast<ZOV_QUEUE>(handle));
    }
  });
  for (uint32_t round = 0; round < 3000; ++round) {
    const bool closes = round % 2 != 0;
    ZOV_QUEUE reply = zov_queueCreate("reply");
    zov_queueWrite(queue, reinterpret_cast<uint64_t>(reply), closes, 0, 0);
    EXPECT_EQ(read(reply, ZOV_WAIT_FOREVER), closes ? ZOV_QUEUE_CLOSED : ZOV_OKAY);
    zov_queueDelete(reply);
  }
  zov_queueClose(queue);
}

}  // namespace
