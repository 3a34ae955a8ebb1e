// SPDX-License-Identifier: Apache-2.0
//
// Message queues: the messages of one queue, how they are written, waited for and
// read.
//
//   MessageQueue   head -> [node] -> [node] -> null,   tail = the last
//             freeNodes -> [node] -> null              for the next writes
//
// The list mutex guards the nodes and, since the tag has no lock of its own, the
// allocation of new ones. The read mutex is held by the one reader that waits, all
// through its wait. A thread that needs both takes the read mutex first. A reader
// that finds a message while no reader waits takes it under the list mutex alone,
// as it could have had the read mutex to itself. So a message costs one lock pair
// in and one out.
//
// The event is signalled only for a reader that sleeps, and with the list mutex
// released, which the reader needs next. A thread that signals it is counted in
// wakers until it has, as the reader may go on to delete the queue.
//
// Nothing here jumps: a queue's tag has no recovery point.
#include <assert.h>
#include <errno.h>

#include <atomic>

#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zov_word.h"
#include "core/zovqueue_private.h"
#include "core/zovuxthreads_private.h"

namespace zov {

ZOV_SYNC queueTabMutex = ZOV_NO_SYNC;

namespace {

// Bits of MessageQueue.flags.
constexpr uint32_t kClosed = 1;
constexpr uint32_t kReaderWaits = 2;   // the reader in the read mutex gets the next message
constexpr uint32_t kReaderAsleep = 4;  // and no thread has set out to wake it

// Nodes are allocated so many at a time. With the block's headers that is close
// to a kilobyte.
constexpr uint32_t kBlockNodes = 40;

// Passed by value: it fits two registers.
struct Message {
  uint64_t data;
  uint32_t code;
  uint32_t key;
};

}  // namespace

struct MessageNode {
  MessageNode *next;
  Message message;
};

namespace {

// True when there is a queue to work on. A record without a name is only
// reported. Leaves errno.
bool isUsable(const MessageQueue *queue) {
  if (tableMutex() == ZOV_NO_SYNC) [[unlikely]] {
    return false;
  }
  if (queue == nullptr || queue->name == nullptr) [[unlikely]] {
    const KeepErrno keepErrno;
    zov_log("Invalid queue handle");
  }
  return queue != nullptr;
}

// Acquires: a thread that finds the queue closed, and may go on to delete it, also
// finds the closer among the wakers.
bool isClosed(const MessageQueue &queue) {
  return (queue.flags.load(std::memory_order_acquire) & kClosed) != 0;
}

// GCOVR_EXCL_BR_START: only assertions ask these, which nothing makes false.

// Whether the nodes of a queue are the caller's. A record that is no queue has no
// mutex.
[[maybe_unused]] bool isLocked(const MessageQueue &queue) {
  return queue.name == nullptr || isEnteredHere(queue.listMutex);
}

// Whether the list is what its count says.
[[maybe_unused]] bool isSound(const MessageQueue &queue) ZOV_REQUIRES(queue.listMutex) {
  const bool isEmpty = queue.count.load(std::memory_order_relaxed) == 0;
  return (queue.head == nullptr) == isEmpty && (queue.tail == nullptr) == isEmpty &&
         (isEmpty || queue.tail->next == nullptr);
}

// GCOVR_EXCL_BR_STOP

void addToCount(MessageQueue &queue, uint32_t change) ZOV_REQUIRES(queue.listMutex) {
  const uint32_t count = queue.count.load(std::memory_order_relaxed);
  assert(change == 1 || count > 0);
  queue.count.store(count + change, std::memory_order_relaxed);
}

void recycleNode(MessageQueue &queue, MessageNode *node) ZOV_REQUIRES(queue.listMutex) {
  node->next = queue.freeNodes;
  queue.freeNodes = node;
}

// Adds a block of nodes to the free ones; false when memory is short.
bool addNodes(MessageQueue &queue) ZOV_REQUIRES(queue.listMutex) {
  assert(isLocked(queue));
  MessageNode *nodes = makeArray<MessageNode>(kBlockNodes, queue.tag, ZOV_HERE);
  for (uint32_t index = kBlockNodes; nodes != nullptr && index-- > 0;) {
    recycleNode(queue, &nodes[index]);
  }
  return nodes != nullptr;
}

// Puts a message on the list in a free node; there is one.
void linkMessage(MessageQueue &queue, Message message, bool inFront) ZOV_REQUIRES(queue.listMutex) {
  assert(isLocked(queue) && isSound(queue));
  MessageNode *node = queue.freeNodes;
  assert(node != nullptr);
  queue.freeNodes = node->next;
  node->next = nullptr;
  node->message = message;
  if (queue.head == nullptr) {
    queue.head = node;
    queue.tail = node;
  } else if (inFront) {
    node->next = queue.head;
    queue.head = node;
  } else {
    queue.tail->next = node;
    queue.tail = node;
  }
  addToCount(queue, 1);
}

// Takes the first message off the list. There is one.
Message fetch_msg(MessageQueue &queue) ZOV_REQUIRES(queue.listMutex) {
  assert(isLocked(queue) && isSound(queue));
  MessageNode *node = queue.head;
  assert(node != nullptr);
  queue.head = node->next;
  if (queue.head == nullptr) {
    queue.tail = nullptr;
  }
  addToCount(queue, UINT32_MAX);
  const Message message = node->message;
  recycleNode(queue, node);
  return message;
}

void purgeNodes(MessageQueue &queue, uint32_t key) ZOV_REQUIRES(queue.listMutex) {
  assert(isLocked(queue));
  MessageNode **link = &queue.head;
  MessageNode *lastKept = nullptr;
  while (*link != nullptr) {
    MessageNode *node = *link;
    if (key == ZOV_QUEUE_EVERY_KEY || node->message.key == key) {
      *link = node->next;
      recycleNode(queue, node);
      addToCount(queue, UINT32_MAX);
    } else {
      lastKept = node;
      link = &node->next;
    }
  }
  queue.tail = lastKept;
  assert(isSound(queue));
}

// True when the caller has to wake a reader, by wakeReader() and with the list
// mutex released: a reader that is woken under it would have to wait for it.
bool claimWake(MessageQueue &queue) ZOV_REQUIRES(queue.listMutex) {
  assert(isLocked(queue));
  if ((queue.flags.load(std::memory_order_relaxed) & kReaderAsleep) == 0) {
    return false;
  }
  queue.flags.fetch_and(~kReaderAsleep, std::memory_order_relaxed);
  queue.wakers.fetch_add(1, std::memory_order_relaxed);
  return true;
}

// Wakes the reader. The caller is counted in wakers and takes itself off last, as
// the queue may be deleted then: that is the release that the deleter acquires.
void wakeReader(MessageQueue &queue) {
  assert(queue.wakers.load(std::memory_order_relaxed) > 0);
  zov_syncResume(queue.arrivalEvent);
  queue.wakers.fetch_sub(1, std::memory_order_release);
}

// Writes a message. False when the queue is closed or has no free node.
bool writeMessage(MessageQueue &queue, Message message, bool inFront) {
  zov_syncEnterExcl(queue.listMutex);
  const bool written = !isClosed(queue) && queue.freeNodes != nullptr;
  bool wakes = false;
  if (written) {
    linkMessage(queue, message, inFront);
    wakes = claimWake(queue);
  }
  zov_syncExitExcl(queue.listMutex);
  if (wakes) {
    wakeReader(queue);
  }
  return written;
}

// Writes a message that found no free node, or drops it and says by errno why.
[[gnu::cold, gnu::noinline]] void writeOrDrop(MessageQueue &queue, Message message, bool inFront) {
  const int error = errno;
  do {
    if (isClosed(queue)) {
      errno = EPIPE;
      return;
    }
    if (!provideNode(queue)) {
      errno = ENOMEM;
      return;
    }
    // Another writer may use up the nodes made here.
  } while (!writeMessage(queue, message, inFront));
  errno = error;
}

// Takes a message if there is one and no other reader waits.
bool readAtOnce(MessageQueue &queue, Message &message) {
  if (queue.count.load(std::memory_order_relaxed) == 0) {
    return false;
  }
  zov_syncEnterExcl(queue.listMutex);
  const bool found = queue.head != nullptr && queue.flags.load(std::memory_order_relaxed) == 0;
  if (found) {
    message = fetch_msg(queue);
  }
  zov_syncExitExcl(queue.listMutex);
  return found;
}

// Sleeps until a writer or zov_queueClose() wakes the caller, which holds both
// mutexes and leaves the list mutex.
//
// The event is reset before the flags are set and read; zov_queueClose() sets its
// flag before it signals the event. All four are seq_cst: in their one order either
// the reset comes before the signal, which then stands, or kClosed is seen here.
int32_t sleepForMessage(MessageQueue &queue, uint32_t waitMs) ZOV_REQUIRES(queue.readMutex)
    ZOV_RELEASE(queue.listMutex) {
  assert(isLocked(queue));
  zov_syncStart(queue.arrivalEvent);
  const uint32_t before =
      queue.flags.fetch_or(kReaderWaits | kReaderAsleep, std::memory_order_seq_cst);
  zov_syncExitExcl(queue.listMutex);
  if ((before & kClosed) != 0) {
    return ZOV_QUEUE_CLOSED;
  }
  const int32_t status = zov_syncWait(queue.arrivalEvent, waitMs);
  return status == ZOV_OKAY && isClosed(queue) ? ZOV_QUEUE_CLOSED : status;
}

// After a first sleep with that status: sleeps on until there is a message or there
// was one. If so the caller holds the list mutex; else the status says why not.
bool awaitArrival(MessageQueue &queue, uint32_t waitMs, int32_t &status)
    ZOV_REQUIRES(queue.readMutex) ZOV_TRY_ACQUIRE(true, queue.listMutex) {
  while (status == ZOV_OKAY) {
    zov_syncEnterExcl(queue.listMutex);
    // kReaderAsleep still set: the wake-up was meant for an earlier reader, whose
    // time ran out.
    const uint32_t flags = queue.flags.load(std::memory_order_relaxed);
    if (queue.head != nullptr || (flags & kReaderAsleep) == 0) {
      break;
    }
    status = sleepForMessage(queue, waitMs);
  }
  queue.flags.fetch_and(~(kReaderWaits | kReaderAsleep), std::memory_order_relaxed);
  return status == ZOV_OKAY;
}

// Waits until there is something to fetch. If so the caller holds the list mutex;
// else the status says why not.
bool awaitTurn(MessageQueue &queue, uint32_t waitMs, int32_t &status) ZOV_REQUIRES(queue.readMutex)
    ZOV_TRY_ACQUIRE(true, queue.listMutex) {
  if (isClosed(queue)) {
    status = ZOV_QUEUE_CLOSED;
    return false;
  }
  status = ZOV_ERROR;
  if (waitMs == 0 && queue.count.load(std::memory_order_relaxed) == 0) {
    return false;
  }
  zov_syncEnterExcl(queue.listMutex);
  if (queue.head != nullptr) {
    status = ZOV_OKAY;
    return true;
  }
  if (waitMs == 0) {
    zov_syncExitExcl(queue.listMutex);
    return false;
  }
  status = sleepForMessage(queue, waitMs);
  return awaitArrival(queue, waitMs, status);
}

// The message that woke the caller was purged before it could fetch it, and the
// queue is taken to be corrupt: both mutexes stay entered for good, and the analysis
// is told that they are left. The message is sent under them.
int32_t keepInDoubt(const MessageQueue &queue) ZOV_RELEASE(queue.listMutex)
    ZOV_RELEASE(queue.readMutex) ZOV_NO_ANALYSIS {
  forgetLock(queue.listMutex);
  forgetLock(queue.readMutex);
  zov_log("unexpected empty queue on %s", queue.name);
  return ZOV_ERROR;
}

// Takes a message in the caller's turn.
int32_t readLocked(MessageQueue &queue, uint32_t waitMs, Message &message) {
  zov_syncEnterExcl(queue.readMutex);
  int32_t status = ZOV_ERROR;
  if (!awaitTurn(queue, waitMs, status)) {
    assert(status != ZOV_OKAY);
    zov_syncExitExcl(queue.readMutex);
    return status;
  }
  if (queue.head == nullptr) {
    return keepInDoubt(queue);
  }
  message = fetch_msg(queue);
  zov_syncExitExcl(queue.listMutex);
  zov_syncExitExcl(queue.readMutex);
  return ZOV_OKAY;
}

// The caller is counted in readers and takes itself off last, as the queue may be
// deleted then: that is the release that the deleter acquires.
int32_t readInTurn(MessageQueue &queue, uint32_t waitMs, Message &message) {
  queue.readers.fetch_add(1, std::memory_order_relaxed);
  const int32_t status = readLocked(queue, waitMs, message);
  queue.readers.fetch_sub(1, std::memory_order_release);
  return status;
}

}  // namespace

// Called by a thread whose write found no free node, and to make a queue.
[[gnu::noinline]] bool provideNode(MessageQueue &queue) {
  const NoJump noJump;
  const MutexLock lock(queue.listMutex);
  return queue.freeNodes != nullptr || addNodes(queue);
}

}  // namespace zov

extern "C" {

void zov_queueWrite(ZOV_QUEUE queue, uint64_t data, uint32_t code, uint32_t key, int32_t flags) {
  if (!zov::isUsable(queue)) {
    return;
  }
  const zov::Message message{data, code, key};
  const bool inFront = (flags & ZOV_QUEUE_FRONT) != 0;
  if (!zov::writeMessage(*queue, message, inFront)) [[unlikely]] {
    zov::writeOrDrop(*queue, message, inFront);
  }
}

int32_t zov_queueRead(ZOV_QUEUE queue, uint64_t *data, uint32_t *code, uint32_t *key,
                      uint32_t waitMs) {
  if (!zov::isUsable(queue)) {
    return ZOV_ERROR;
  }
  zov::Message message;
  if (!zov::readAtOnce(*queue, message)) {
    const int32_t status = zov::readInTurn(*queue, waitMs, message);
    if (status != ZOV_OKAY) {
      return status;
    }
  }
  *data = message.data;
  if (code != nullptr) {
    *code = message.code;
  }
  if (key != nullptr) {
    *key = message.key;
  }
  return ZOV_OKAY;
}

void zov_queuePurge(ZOV_QUEUE queue, uint32_t key) {
  if (!zov::isUsable(queue) || zov::isClosed(*queue)) {
    return;
  }
  const zov::MutexLock lock(queue->listMutex);
  zov::purgeNodes(*queue, key);
}

void zov_queueClose(ZOV_QUEUE queue) {
  if (zov::tableMutex() == ZOV_NO_SYNC || queue == nullptr) {
    return;
  }
  queue->wakers.fetch_add(1, std::memory_order_relaxed);
  // seq_cst for sleepForMessage(), and the release of the count above.
  queue->flags.fetch_or(zov::kClosed, std::memory_order_seq_cst);
  zov::wakeReader(*queue);
}

uint32_t zov_queueCount(ZOV_QUEUE queue) {
  return zov::tableMutex() != ZOV_NO_SYNC && queue != nullptr
             ? queue->count.load(std::memory_order_relaxed)
             : 0;
}
}
