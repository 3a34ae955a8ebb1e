// SPDX-License-Identifier: Apache-2.0
//
// What shut-down asks of the message queues.
#ifndef ZOV_CORE_ZOVQUEUE_PRIVATE_H
#define ZOV_CORE_ZOVQUEUE_PRIVATE_H

namespace zov {

// Forgets a queue module that its program did not end: its queues and its lock
// go with the tags and the sync objects that shut-down is about to destroy.
void abandonQueues();

}  // namespace zov

#endif
