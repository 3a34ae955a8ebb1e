// SPDX-License-Identifier: Apache-2.0
//
// Message queues: the list of them, how they are made and deleted, and the start
// and end of the module. zovqueue_message.cpp writes and reads. Each queue keeps
// everything it owns, its record, name, cell and message nodes, in a memory tag of
// its own, so that deleting it is one release:
//
//   qList -> [cell] -> [cell] -> null          newest queue first, both ways
//              |
//            MessageQueue
//
// queueTabMutex guards the list. A queue is taken off the list under it and deleted
// with it released, since that may wait for a reader.
//
// Nothing here jumps: a queue's tag has no recovery point.
#include <assert.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zovqueue_private.h"

namespace zov {

struct QueueCell {
  MessageQueue *queue;
  QueueCell *next;
  QueueCell **link;  // what points at this cell: qList, or next of the cell before
};

namespace {

// How long deleting a queue sleeps before it looks again for readers and wakers.
constexpr timespec kPause{0, 50'000};

QueueCell *qList ZOV_GUARDED_BY(queueTabMutex) = nullptr;

// The queues made less the calls to delete one, among them those that come too late.
int32_t nQueues ZOV_GUARDED_BY(queueTabMutex) = 0;

// Holds queueTabMutex, as its caller found it, for a scope in which nothing jumps.
class ZOV_SCOPED_CAPABILITY TableLock {
 public:
  explicit TableLock(ZOV_SYNC table) ZOV_ACQUIRE(queueTabMutex) : lock_(table) {}
  ~TableLock() ZOV_RELEASE() {}
  TableLock(const TableLock &) = delete;
  TableLock &operator=(const TableLock &) = delete;

 private:
  const MutexLock lock_;
};

// At shut-down there is one thread.
void assumeAlone() ZOV_ASSERT_HELD(queueTabMutex) {}

bool running() {
  return tableMutex() != ZOV_NO_SYNC;
}

void setTableMutex(ZOV_SYNC mutex) {
  std::atomic_ref<ZOV_SYNC>(queueTabMutex).store(mutex, std::memory_order_release);
}

bool forced(int32_t force) {
  return static_cast<uint16_t>(force) != 0;
}

bool createQueueMutex(ZOV_SYNC &handle, LockKind kind) {
  handle = createMutex(kind, ZOV_HERE);
  return handle != ZOV_NO_SYNC;
}

// Takes the handles one by one, as the queue's record may be gone. One that is absent
// is ignored.
void deleteSyncs(ZOV_SYNC arrivalEvent, ZOV_SYNC readMutex, ZOV_SYNC listMutex) {
  zov_syncDelete(arrivalEvent);
  zov_syncDelete(readMutex);
  zov_syncDelete(listMutex);
}

// Makes the event, the mutexes and the first nodes, or nothing that stays.
bool equip(MessageQueue &queue) {
  queue.arrivalEvent = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  if (queue.arrivalEvent != ZOV_NO_SYNC &&
      createQueueMutex(queue.readMutex, LockKind::kQueueReader) &&
      createQueueMutex(queue.listMutex, LockKind::kQueueList) && provideNode(queue)) {
    return true;
  }
  deleteSyncs(queue.arrivalEvent, queue.readMutex, queue.listMutex);
  return false;
}

// Makes a queue and its cell in the tag. Null on failure, and then only the tag is
// to be released.
QueueCell *newQueue(ZOV_TAG tag, const char *name) {
  QueueCell *cell = make<QueueCell>(tag, ZOV_HERE);
  MessageQueue *queue = make<MessageQueue>(tag, ZOV_HERE);
  const char *copy = copyString(name == nullptr ? "" : name, tag, ZOV_HERE);
  if (cell == nullptr || queue == nullptr || copy == nullptr) {
    return nullptr;
  }
  queue->name = copy;
  queue->tag = tag;
  if (!equip(*queue)) {
    return nullptr;
  }
  cell->queue = queue;
  queue->cell = cell;
  return cell;
}

void linkQueue(QueueCell *cell) ZOV_REQUIRES(queueTabMutex) {
  cell->next = qList;
  cell->link = &qList;
  if (qList != nullptr) {
    qList->link = &cell->next;
  }
  qList = cell;
}

// Takes a queue off the list; false when it is not there.
bool unlinkQueue(MessageQueue &queue) ZOV_REQUIRES(queueTabMutex) {
  QueueCell *cell = queue.cell;
  if (cell == nullptr) {
    return false;
  }
  assert(cell->queue == &queue && *cell->link == cell);
  queue.cell = nullptr;
  *cell->link = cell->next;
  if (cell->next != nullptr) {
    cell->next->link = cell->link;
  }
  return true;
}

// Takes every queue off the list and returns the first cell of the chain, which
// stays.
QueueCell *takeAll() ZOV_REQUIRES(queueTabMutex) {
  QueueCell *first = qList;
  for (const QueueCell *cell = first; cell != nullptr; cell = cell->next) {
    cell->queue->cell = nullptr;
  }
  qList = nullptr;
  nQueues = 0;
  return first;
}

// Sleeps until a count of threads is 0. They may be slow to run when the caller has
// the higher priority. Acquires what they did before they took themselves off.
void awaitNone(const std::atomic<uint32_t> &threads) {
  while (threads.load(std::memory_order_acquire) != 0) {
    nanosleep(&kPause, nullptr);
  }
}

// Waits for the readers that are inside, and for threads that woke one. The record
// and its cell go with the tag.
void queueDelete(MessageQueue &queue) {
  const ZOV_SYNC arrivalEvent = queue.arrivalEvent;
  const ZOV_SYNC readMutex = queue.readMutex;
  const ZOV_SYNC listMutex = queue.listMutex;
  awaitNone(queue.readers);
  {
    const MutexLock readLock(readMutex);
    const MutexLock listLock(listMutex);
    awaitNone(queue.wakers);
    queue.name = nullptr;
    zov_freeTagMemory(queue.tag, 1);
  }
  deleteSyncs(arrivalEvent, readMutex, listMutex);
}

}  // namespace

void abandonQueues() {
  assumeAlone();
  setTableMutex(ZOV_NO_SYNC);
  qList = nullptr;
  nQueues = 0;
}

}  // namespace zov

extern "C" {

ZOV_QUEUE zov_queueCreate(const char *name) {
  const ZOV_SYNC table = zov::tableMutex();
  if (table == ZOV_NO_SYNC) {
    return nullptr;
  }
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  if (tag == ZOV_NO_TAG) {
    return nullptr;
  }
  zov::QueueCell *cell = zov::newQueue(tag, name);
  if (cell == nullptr) {
    zov_freeTagMemory(tag, 1);
    return nullptr;
  }
  MessageQueue *queue = cell->queue;
  const zov::TableLock lock(table);
  zov::linkQueue(cell);
  ++zov::nQueues;
  return queue;
}

// A queue that is not on the list was deleted before.
void zov_queueDelete(ZOV_QUEUE queue) {
  const ZOV_SYNC table = zov::tableMutex();
  if (table == ZOV_NO_SYNC) {
    return;
  }
  bool listed = false;
  bool tooMany = false;
  {
    const zov::TableLock lock(table);
    if (queue != nullptr && queue->name != nullptr) {
      listed = zov::unlinkQueue(*queue);
      --zov::nQueues;
    }
    tooMany = zov::nQueues < 0;
  }
  if (listed) {
    zov::queueDelete(*queue);
  }
  if (tooMany) {
    zov_log("Deleted too many queues");
  }
}

ZOV_QUEUE zov_queueFind(const char *name) {
  const ZOV_SYNC table = zov::tableMutex();
  if (table == ZOV_NO_SYNC || name == nullptr) {
    return nullptr;
  }
  const zov::TableLock lock(table);
  const zov::QueueCell *cell = zov::qList;
  while (cell != nullptr && strcmp(cell->queue->name, name) != 0) {
    cell = cell->next;
  }
  return cell == nullptr ? nullptr : cell->queue;
}

int32_t zov_queueInit(int32_t force) {
  if (zov::forced(force)) {
    zov_queueTerm(force);
  }
  if (zov::running()) {
    return ZOV_OKAY;
  }
  const zov::NoJump noJump;
  zov_enterCritSec();
  if (!zov::running()) {
    zov::setTableMutex(zov::createMutex(zov::LockKind::kQueueTable, ZOV_HERE));
  }
  const int32_t status = zov::running() ? ZOV_OKAY : ZOV_ERROR;
  zov_exitCritSec();
  return status;
}

void zov_queueTerm(int32_t force) {
  const ZOV_SYNC table = zov::tableMutex();
  if (table == ZOV_NO_SYNC) {
    return;
  }
  zov::QueueCell *cell = nullptr;
  {
    const zov::TableLock lock(table);
    if (!zov::forced(force) && zov::qList != nullptr) {
      return;
    }
    cell = zov::takeAll();
  }
  // Every reader is on its way out before the first queue is waited for.
  for (const zov::QueueCell *each = cell; each != nullptr; each = each->next) {
    zov_queueClose(each->queue);
  }
  while (cell != nullptr) {
    zov::QueueCell *next = cell->next;
    zov::queueDelete(*cell->queue);
    cell = next;
  }
  zov_enterCritSec();
  zov::setTableMutex(ZOV_NO_SYNC);
  zov_exitCritSec();
  zov_syncDelete(table);
}
}
