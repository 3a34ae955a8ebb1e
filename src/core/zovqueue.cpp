// SPDX-License-Identifier: Apache-2.0
//
// Message queues. Each keeps everything it owns, its record, name, cell and
// message nodes, in a memory tag of its own, so that deleting it is one release:
//
//   qList -> [cell] -> [cell] -> null          newest queue first, both ways
//              |
//            MessageQueue   head -> [node] -> [node] -> null,   tail = the last
//                  freeNodes -> [node] -> null              for the next writes
//
// queueTabMutex guards the list of queues. A queue is taken off the list under
// it and deleted with it released, since that may wait for a reader.
//
// Of a queue, the list mutex guards the nodes and, since the tag has no lock of
// its own, the allocation of new ones; the read mutex is held by the one reader
// that waits, all through its wait. Where both are wanted the read mutex comes
// first. A reader that finds a message while nobody waits takes it under the
// list mutex alone: it could as well have had the read mutex to itself. So a
// message costs one lock pair in and one out.
//
// The event is signalled only for a reader that sleeps, and with the list mutex
// released, which the reader wants next. Whoever signals it is on record in
// wakers until then, so that the reader may go on to delete the queue.
//
// Nothing here jumps: a queue's tag has no recovery point.
#include <assert.h>
#include <errno.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "core/zov_lock.h"
#include "core/zov_shortage.h"
#include "core/zovqueue_private.h"
#include "core/zovuxthreads_private.h"

namespace {

// Bits of MessageQueue.flags.
constexpr uint32_t kClosed = 1;
constexpr uint32_t kReaderWaits = 2;   // the reader in the read mutex gets the next message
constexpr uint32_t kReaderAsleep = 4;  // and nobody has set out to wake it

// Nodes are allocated so many at a time. With the block's headers that is close
// to a kilobyte.
constexpr uint32_t kBlockNodes = 40;

// How long deleting a queue sleeps before it looks again for readers and wakers.
constexpr timespec kPause{0, 50'000};

// Passed by value: it fits two registers.
struct Message {
  uint64_t data;
  uint32_t code;
  uint32_t key;
};

struct MessageNode {
  MessageNode *next;
  Message message;
};

struct QueueCell {
  MessageQueue *queue;
  QueueCell *next;
  QueueCell **link;  // what points at this cell: qList, or next of the cell before
};

}  // namespace

// 1. count is the number of nodes from head to tail; both are null when it is 0.
// 2. count and flags are read without a lock. count is written under the list
//    mutex. kClosed is set by anyone and never cleared; the reader in the read
//    mutex sets the other two bits under the list mutex and clears them when it
//    is served or gives up; the writer that shall wake it clears kReaderAsleep
//    under the list mutex.
// 3. The handles and the tag do not change, nor does the name until the queue is
//    deleted. It is taken away then, so that the record is seen to be no queue for
//    as long as nobody else gets its memory.
// 4. cell belongs to queueTabMutex, and is null for a queue that is not listed.
struct MessageQueue {
  const char *name;  // null marks a record that is no queue
  MessageNode *head;
  MessageNode *tail;
  MessageNode *freeNodes;
  std::atomic<uint32_t> count;
  std::atomic<uint32_t> flags;
  ZOV_SYNC arrivalEvent;  // reset by the reader that is about to wait
  ZOV_SYNC readMutex;     // rank 4: the right to wait
  ZOV_SYNC listMutex;     // rank 5: head, tail, freeNodes, count, the tag
  ZOV_TAG tag;
  QueueCell *cell;
  std::atomic<uint32_t> wakers;   // threads that are about to signal the event
  std::atomic<uint32_t> readers;  // threads that want the read mutex or have it
};

namespace {

// Rank 3: qList, its cells and nQueues. ZOV_NO_SYNC while the module is not running. Read
// without a lock, written in the process-wide critical section.
std::atomic<uint64_t> queueTabMutex{ZOV_NO_SYNC};

QueueCell *qList = nullptr;
int32_t nQueues = 0;

ZOV_SYNC tableMutex() {
  return queueTabMutex.load(std::memory_order_acquire);
}

bool running() {
  return tableMutex() != ZOV_NO_SYNC;
}

bool forced(int32_t force) {
  return static_cast<uint16_t>(force) != 0;
}

// True when there is a queue to work on. A record without a name is only
// reported. Leaves errno.
bool isUsable(const MessageQueue *queue) {
  if (!running()) [[unlikely]] {
    return false;
  }
  if (queue == nullptr || queue->name == nullptr) [[unlikely]] {
    const int error = errno;
    zov_log("Invalid queue handle");
    errno = error;
  }
  return queue != nullptr;
}

bool isClosed(const MessageQueue &queue) {
  return (queue.flags.load(std::memory_order_seq_cst) & kClosed) != 0;
}

// The helpers from here to claimWake() want the list mutex held.

void addToCount(MessageQueue &queue, uint32_t change) {
  const uint32_t count = queue.count.load(std::memory_order_relaxed);
  queue.count.store(count + change, std::memory_order_relaxed);
}

void recycleNode(MessageQueue &queue, MessageNode *node) {
  node->next = queue.freeNodes;
  queue.freeNodes = node;
}

// Adds a block of nodes to the free ones; false when memory is short.
bool addNodes(MessageQueue &queue) {
  void *block =
      zov_getMem(sizeof(MessageNode) * kBlockNodes, queue.tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  if (block == nullptr) {
    return false;
  }
  MessageNode *nodes = static_cast<MessageNode *>(block);
  for (uint32_t index = kBlockNodes; index-- > 0;) {
    recycleNode(queue, &nodes[index]);
  }
  return true;
}

// Puts a message on the list in a free node; there is one.
void linkMessage(MessageQueue &queue, Message message, bool inFront) {
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
Message fetch_msg(MessageQueue &queue) {
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

void purgeNodes(MessageQueue &queue, uint32_t key) {
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
}

// True when the caller has to wake a reader, by wakeReader() and with the list
// mutex released: a reader woken under it would only run against it.
bool claimWake(MessageQueue &queue) {
  if ((queue.flags.load(std::memory_order_relaxed) & kReaderAsleep) == 0) {
    return false;
  }
  queue.flags.fetch_and(~kReaderAsleep, std::memory_order_relaxed);
  queue.wakers.fetch_add(1, std::memory_order_relaxed);
  return true;
}

// Wakes the reader. The caller is counted among queue.wakers and leaves that
// last, for the queue may be deleted as soon as the reader has run.
void wakeReader(MessageQueue &queue) {
  zov_syncResume(queue.arrivalEvent);
  queue.wakers.fetch_sub(1, std::memory_order_release);
}

// Makes nodes unless there is a free one; false when memory is short.
[[gnu::noinline]] bool provideNode(MessageQueue &queue) {
  const zov::NoJump noJump;
  zov_syncEnterExcl(queue.listMutex);
  const bool provided = queue.freeNodes != nullptr || addNodes(queue);
  zov_syncExitExcl(queue.listMutex);
  return provided;
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
    // Another writer may be the one who gets to use the nodes made here.
  } while (!writeMessage(queue, message, inFront));
  errno = error;
}

// Takes a message if there is one and no reader was there before.
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
// mutexes; gives up the list mutex.
//
// The event is reset before the flags are set, and zov_queueClose() does it the
// other way round: either it finds the event reset and signals it again, or its
// flag is seen here.
int32_t sleepForMessage(MessageQueue &queue, uint32_t waitMs) ZOV_NO_ANALYSIS {
  zov_syncStart(queue.arrivalEvent);
  const uint32_t before = queue.flags.fetch_or(kReaderWaits | kReaderAsleep);
  zov_syncExitExcl(queue.listMutex);
  if ((before & kClosed) != 0) {
    return ZOV_QUEUE_CLOSED;
  }
  const int32_t status = zov_syncWait(queue.arrivalEvent, waitMs);
  return status == ZOV_OKAY && isClosed(queue) ? ZOV_QUEUE_CLOSED : status;
}

// Waits until there is a message or there was one, for a caller that holds both
// mutexes. With ZOV_OKAY it holds them again, else the read mutex alone.
//
// Who wakes with kReaderAsleep still up was woken by a writer that was late: the
// reader it meant has run out of time and left. It sleeps on.
int32_t awaitArrival(MessageQueue &queue, uint32_t waitMs) ZOV_NO_ANALYSIS {
  int32_t status = sleepForMessage(queue, waitMs);
  while (status == ZOV_OKAY) {
    zov_syncEnterExcl(queue.listMutex);
    const uint32_t flags = queue.flags.load(std::memory_order_relaxed);
    if (queue.head != nullptr || (flags & kReaderAsleep) == 0) {
      break;
    }
    status = sleepForMessage(queue, waitMs);
  }
  queue.flags.fetch_and(~(kReaderWaits | kReaderAsleep), std::memory_order_relaxed);
  return status;
}

// Waits until there is something to fetch, for a caller that holds the read
// mutex. With ZOV_OKAY it holds the list mutex as well.
int32_t awaitTurn(MessageQueue &queue, uint32_t waitMs) ZOV_NO_ANALYSIS {
  if (isClosed(queue)) {
    return ZOV_QUEUE_CLOSED;
  }
  if (waitMs == 0 && queue.count.load(std::memory_order_relaxed) == 0) {
    return ZOV_ERROR;
  }
  zov_syncEnterExcl(queue.listMutex);
  if (queue.head != nullptr) {
    return ZOV_OKAY;
  }
  if (waitMs == 0) {
    zov_syncExitExcl(queue.listMutex);
    return ZOV_ERROR;
  }
  return awaitArrival(queue, waitMs);
}

// Takes a message in the caller's turn. When what it was woken for was purged by
// the time it gets there, it says so and keeps both mutexes, the message written
// under them: the queue is taken to be corrupt.
int32_t readLocked(MessageQueue &queue, uint32_t waitMs, Message &message) ZOV_NO_ANALYSIS {
  zov_syncEnterExcl(queue.readMutex);
  const int32_t status = awaitTurn(queue, waitMs);
  if (status == ZOV_OKAY) {
    if (queue.head == nullptr) {
      zov::forgetLock(queue.listMutex);
      zov::forgetLock(queue.readMutex);
      zov_log("unexpected empty queue on %s", queue.name);
      return ZOV_ERROR;
    }
    message = fetch_msg(queue);
    zov_syncExitExcl(queue.listMutex);
  }
  zov_syncExitExcl(queue.readMutex);
  return status;
}

// The queue is not touched after the count: it may be deleted then.
int32_t readInTurn(MessageQueue &queue, uint32_t waitMs, Message &message) {
  queue.readers.fetch_add(1, std::memory_order_relaxed);
  const int32_t status = readLocked(queue, waitMs, message);
  queue.readers.fetch_sub(1, std::memory_order_release);
  return status;
}

bool createMutex(ZOV_SYNC &handle, zov::LockKind kind) {
  handle = zov::createMutex(kind, ZOV_HERE);
  return handle != ZOV_NO_SYNC;
}

// The handles that could not be made stay as they are, which is absent: deleting
// them does nothing.
bool createSyncs(MessageQueue &queue) {
  queue.arrivalEvent = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  if (queue.arrivalEvent != ZOV_NO_SYNC &&
      createMutex(queue.readMutex, zov::LockKind::kQueueReader) &&
      createMutex(queue.listMutex, zov::LockKind::kQueueList)) {
    return true;
  }
  zov_syncDelete(queue.arrivalEvent);
  zov_syncDelete(queue.readMutex);
  return false;
}

// Makes a queue and its cell in the tag; null when something is missing, and
// then only the tag is to be released.
QueueCell *newQueue(ZOV_TAG tag, const char *name) {
  void *cellBlock = zov_getMem(sizeof(QueueCell), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
  void *queueBlock = zov_getMem(sizeof(MessageQueue), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
  const void *nameBlock = zov_getMem(0, tag, ZOV_MEM_STRDUP, name == nullptr ? "" : name, ZOV_HERE);
  if (cellBlock == nullptr || queueBlock == nullptr || nameBlock == nullptr) {
    return nullptr;
  }
  MessageQueue *queue = static_cast<MessageQueue *>(queueBlock);
  queue->name = static_cast<const char *>(nameBlock);
  queue->tag = tag;
  if (!addNodes(*queue) || !createSyncs(*queue)) {
    return nullptr;
  }
  QueueCell *cell = static_cast<QueueCell *>(cellBlock);
  cell->queue = queue;
  queue->cell = cell;
  return cell;
}

// The helpers from here to takeAll() want queueTabMutex held.

void linkQueue(QueueCell *cell) {
  cell->next = qList;
  cell->link = &qList;
  if (qList != nullptr) {
    qList->link = &cell->next;
  }
  qList = cell;
}

// Takes a queue off the list; false when it is not there.
bool unlinkQueue(MessageQueue &queue) {
  QueueCell *cell = queue.cell;
  if (cell == nullptr) {
    return false;
  }
  queue.cell = nullptr;
  *cell->link = cell->next;
  if (cell->next != nullptr) {
    cell->next->link = cell->link;
  }
  return true;
}

// Takes every queue off the list and gives the first cell of the chain that they
// still are.
QueueCell *takeAll() {
  QueueCell *first = qList;
  for (const QueueCell *cell = first; cell != nullptr; cell = cell->next) {
    cell->queue->cell = nullptr;
  }
  qList = nullptr;
  nQueues = 0;
  return first;
}

// Sleeps until a count of threads is 0: they may be slow to run when the caller
// outranks them.
void awaitNone(const std::atomic<uint32_t> &threads) {
  while (threads.load(std::memory_order_acquire) != 0) {
    nanosleep(&kPause, nullptr);
  }
}

// Waits for the readers that are inside, and for whoever woke them. The record
// and its cell go with the tag.
void queueDelete(MessageQueue &queue) {
  const ZOV_SYNC arrivalEvent = queue.arrivalEvent;
  const ZOV_SYNC readMutex = queue.readMutex;
  const ZOV_SYNC listMutex = queue.listMutex;
  awaitNone(queue.readers);
  zov_syncEnterExcl(readMutex);
  zov_syncEnterExcl(listMutex);
  awaitNone(queue.wakers);
  queue.name = nullptr;
  zov_freeTagMemory(queue.tag, 1);
  zov_syncExitExcl(listMutex);
  zov_syncExitExcl(readMutex);
  zov_syncDelete(arrivalEvent);
  zov_syncDelete(readMutex);
  zov_syncDelete(listMutex);
}

}  // namespace

void zov::abandonQueues() {
  queueTabMutex.store(ZOV_NO_SYNC, std::memory_order_relaxed);
  qList = nullptr;
  nQueues = 0;
}

extern "C" {

ZOV_QUEUE zov_queueCreate(const char *name) {
  const ZOV_SYNC table = tableMutex();
  if (table == ZOV_NO_SYNC) {
    return nullptr;
  }
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  if (tag == ZOV_NO_TAG) {
    return nullptr;
  }
  QueueCell *cell = newQueue(tag, name);
  if (cell == nullptr) {
    zov_freeTagMemory(tag, 1);
    return nullptr;
  }
  MessageQueue *queue = cell->queue;
  zov_syncEnterExcl(table);
  linkQueue(cell);
  ++nQueues;
  zov_syncExitExcl(table);
  return queue;
}

void zov_queueDelete(ZOV_QUEUE queue) {
  const ZOV_SYNC table = tableMutex();
  if (table == ZOV_NO_SYNC) {
    return;
  }
  bool listed = false;
  zov_syncEnterExcl(table);
  if (queue != nullptr && queue->name != nullptr) {
    listed = unlinkQueue(*queue);
    --nQueues;
  }
  const bool tooMany = nQueues < 0;
  zov_syncExitExcl(table);
  // A queue that is not on the list was deleted before.
  if (listed) {
    queueDelete(*queue);
  }
  if (tooMany) {
    zov_log("Deleted too many queues");
  }
}

void zov_queueWrite(ZOV_QUEUE queue, uint64_t data, uint32_t code, uint32_t key, int32_t flags) {
  if (!isUsable(queue)) {
    return;
  }
  const Message message{data, code, key};
  const bool inFront = (flags & ZOV_QUEUE_FRONT) != 0;
  if (!writeMessage(*queue, message, inFront)) [[unlikely]] {
    writeOrDrop(*queue, message, inFront);
  }
}

int32_t zov_queueRead(ZOV_QUEUE queue, uint64_t *data, uint32_t *code, uint32_t *key,
                      uint32_t waitMs) {
  if (!isUsable(queue)) {
    return ZOV_ERROR;
  }
  Message message;
  if (!readAtOnce(*queue, message)) {
    const int32_t status = readInTurn(*queue, waitMs, message);
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
  if (!isUsable(queue) || isClosed(*queue)) {
    return;
  }
  zov_syncEnterExcl(queue->listMutex);
  purgeNodes(*queue, key);
  zov_syncExitExcl(queue->listMutex);
}

void zov_queueClose(ZOV_QUEUE queue) {
  if (!running() || queue == nullptr) {
    return;
  }
  queue->wakers.fetch_add(1);
  queue->flags.fetch_or(kClosed);
  wakeReader(*queue);
}

uint32_t zov_queueCount(ZOV_QUEUE queue) {
  return running() && queue != nullptr ? queue->count.load(std::memory_order_relaxed) : 0;
}

ZOV_QUEUE zov_queueFind(const char *name) {
  const ZOV_SYNC table = tableMutex();
  if (table == ZOV_NO_SYNC || name == nullptr) {
    return nullptr;
  }
  MessageQueue *found = nullptr;
  zov_syncEnterExcl(table);
  for (const QueueCell *cell = qList; cell != nullptr && found == nullptr; cell = cell->next) {
    if (strcmp(cell->queue->name, name) == 0) {
      found = cell->queue;
    }
  }
  zov_syncExitExcl(table);
  return found;
}

int32_t zov_queueInit(int32_t force) {
  if (forced(force)) {
    zov_queueTerm(force);
  }
  if (running()) {
    return ZOV_OKAY;
  }
  const zov::NoJump noJump;
  zov_enterCritSec();
  if (!running()) {
    queueTabMutex.store(zov::createMutex(zov::LockKind::kQueueTable, ZOV_HERE),
                        std::memory_order_release);
  }
  const int32_t status = running() ? ZOV_OKAY : ZOV_ERROR;
  zov_exitCritSec();
  return status;
}

void zov_queueTerm(int32_t force) {
  const ZOV_SYNC table = tableMutex();
  if (table == ZOV_NO_SYNC) {
    return;
  }
  zov_syncEnterExcl(table);
  const bool ends = forced(force) || qList == nullptr;
  QueueCell *cell = ends ? takeAll() : nullptr;
  zov_syncExitExcl(table);
  if (!ends) {
    return;
  }
  // Every reader is on its way out before the first queue is waited for.
  for (const QueueCell *each = cell; each != nullptr; each = each->next) {
    zov_queueClose(each->queue);
  }
  while (cell != nullptr) {
    QueueCell *next = cell->next;
    queueDelete(*cell->queue);
    cell = next;
  }
  zov_enterCritSec();
  queueTabMutex.store(ZOV_NO_SYNC, std::memory_order_release);
  zov_exitCritSec();
  zov_syncDelete(table);
}
}
