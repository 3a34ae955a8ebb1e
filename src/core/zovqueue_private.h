// SPDX-License-Identifier: Apache-2.0
//
// What the sources of the message queues share, and what shut-down asks of them.
#ifndef ZOV_CORE_ZOVQUEUE_PRIVATE_H
#define ZOV_CORE_ZOVQUEUE_PRIVATE_H

#include <atomic>

#include "core/zov_lock.h"

namespace zov {

struct MessageNode;
struct QueueCell;

}  // namespace zov

// 1. count is the number of nodes from head to tail; both are null when it is 0.
// 2. count and flags are read without a lock. count is written under the list
//    mutex. kClosed is set by any thread and never cleared; the reader in the read
//    mutex sets the other two bits under the list mutex and clears them when it is
//    served or gives up; the writer that wakes it clears kReaderAsleep under the
//    list mutex.
// 3. The handles and the tag do not change, nor does the name until the queue is
//    deleted. The name is null from then on, which shows that the record is no queue
//    until its memory is used again.
// 4. cell belongs to queueTabMutex, and is null for a queue that is not listed.
struct MessageQueue {
  const char *name;  // null marks a record that is no queue
  zov::MessageNode *head ZOV_GUARDED_BY(listMutex);
  zov::MessageNode *tail ZOV_GUARDED_BY(listMutex);
  zov::MessageNode *freeNodes ZOV_GUARDED_BY(listMutex);
  std::atomic<uint32_t> count;
  std::atomic<uint32_t> flags;
  ZOV_SYNC arrivalEvent;  // reset by the reader that is about to wait
  ZOV_SYNC readMutex;     // rank 4: the right to wait
  ZOV_SYNC listMutex;     // rank 5: the nodes, the writing of count, the tag
  ZOV_TAG tag;
  zov::QueueCell *cell;
  std::atomic<uint32_t> wakers;   // threads that are about to signal the event
  std::atomic<uint32_t> readers;  // threads that want the read mutex or have it
};

namespace zov {

// Rank 3: the list of queues. ZOV_NO_SYNC while the module is not running. Written in
// the process-wide critical section and read without a lock: a release and an
// acquire, as a reader uses the mutex that it finds.
[[gnu::visibility("hidden")]] extern ZOV_SYNC queueTabMutex;

inline ZOV_SYNC tableMutex() {
  return std::atomic_ref<ZOV_SYNC>(queueTabMutex).load(std::memory_order_acquire);
}

// Makes message nodes unless a queue has a free one; false when memory is short.
bool provideNode(MessageQueue &queue);

// Forgets a queue module that its program did not end: its queues and its lock
// go with the tags and the sync objects that shut-down is about to destroy.
void abandonQueues();

}  // namespace zov

#endif
