// SPDX-License-Identifier: Apache-2.0
//
// Search, insertion, removal and enumeration in the tree of a directory. The
// cursor's path is the stack of every operation: insertion splits full nodes on
// the way up, removal combines underfull ones.
//
// Counts: a node is split when an insertion brings it to its capacity, 72 with
// nodes of 4096 bytes, and combined with a sibling when a removal leaves it with
// fewer than half of that. Siblings that do not fit into one node share by one
// entry at a time, and not at all when they differ by one.
//
// In moving slots about, an entry's left child lies before it in memory and its
// right child behind it: cutting at a slot's entry keeps the child left of it in
// place, cutting at the slot itself moves both.
//
// No locks of its own, no jumps; see zovmfile_tree.h.
#include "memstore/zovmfile_tree.h"

#include <assert.h>
#include <string.h>

#include <algorithm>
#include <bit>

namespace zov {
namespace {

// Bytes of a node besides its entries and their left children: the count and the
// last child.
constexpr uint32_t kNodeOverhead = 12;
constexpr uint32_t kSlotBytes = sizeof(TreeSlot);

uint32_t capacityOf(const Cursor &cursor) {
  return (cursor.tree->nodeBytes - kNodeOverhead) / kSlotBytes;
}

uint32_t fewestOf(const Cursor &cursor) {
  return (cursor.tree->nodeBytes - kNodeOverhead) / (2 * kSlotBytes);
}

PathElement &top(Cursor &cursor) {
  assert(cursor.depth >= 0);
  return cursor.path[cursor.depth];
}

// Moves the top of the path by `step` levels. Fetches no node: below the old top the
// element is the caller's to set.
void getPathNode(Cursor &cursor, int32_t step) {
  cursor.depth += step;
  assert(cursor.depth >= -1 && cursor.depth < kMaxDepth);
}

void push(Cursor &cursor, uint32_t node, uint16_t slot) {
  getPathNode(cursor, 1);
  top(cursor) = {node, slot};
}

// Copies `entries` slots and the child behind them.
void copySlots(TreeSlot *to, const TreeSlot *from, uint32_t entries) {
  memmove(to, from, entries * sizeof(TreeSlot) + offsetof(TreeSlot, entry));
}

// Makes room for an entry. The child left of it stays, the one right of it is
// the caller's to set.
void open_slots(TreeNode &node, uint32_t slot) {
  assert(slot <= node.count);
  TreeSlot *slots = node.slots();
  memmove(&slots[slot + 1].entry, &slots[slot].entry, (node.count - slot) * sizeof(TreeSlot));
  ++node.count;
}

// Drops an entry and the child left of it.
void close_slots(TreeNode &node, uint32_t slot) {
  assert(slot < node.count);
  TreeSlot *slots = node.slots();
  copySlots(&slots[slot], &slots[slot + 1], node.count - slot - 1);
  --node.count;
}

// The first slot whose name is not below a word, by the eight bytes from `at`
// on. Looks at every eighth name, and then at those before the first that is not
// below. The loads are independent, so their cache misses overlap, and no branch
// depends on a name.
uint32_t skipLower(const TreeSlot *slots, uint32_t count, uint64_t word, uint32_t at) {
  constexpr uint32_t kStride = 8;
  const auto below = [=](uint32_t slot) { return orderedWord(slots[slot].entry.name + at) < word; };
  uint32_t from = 0;
  for (uint32_t slot = kStride - 1; slot < count; slot += kStride) {
    from += below(slot) ? kStride : 0;
  }
  const uint32_t end = std::min(from + kStride - 1, count);
  uint32_t first = from;
  for (uint32_t slot = from; slot < end; ++slot) {
    first += below(slot) ? 1 : 0;
  }
  return first;
}

// The number of first bytes, at most 16, that the names of two entries share, and
// with them all names between.
uint32_t sharedBytes(const DirEntry &low, const DirEntry &high) {
  constexpr uint32_t kWordBytes = sizeof(uint64_t);
  for (uint32_t at = 0; at < 2 * kWordBytes; at += kWordBytes) {
    const uint64_t difference = orderedWord(low.name + at) ^ orderedWord(high.name + at);
    if (difference != 0) {
      return at + static_cast<uint32_t>(std::countl_zero(difference)) / 8;
    }
  }
  return 2 * kWordBytes;
}

// Search in a node that is not empty and whose names agree with the key in their
// first `shared` bytes. ZOV_OKAY with the slot of the name, or ZOV_NOTFOUND with
// the slot where it belongs.
int32_t node_search(const Cursor &cursor, const TreeNode &node, const NameKey &key, uint32_t shared,
                    uint16_t &slot) {
  const TreeSlot *slots = node.slots();
  const uint64_t word = orderedWord(key.first + shared);
  int32_t low = static_cast<int32_t>(skipLower(slots, node.count, word, shared));
  int32_t high = node.count - 1;
  if (low > high || orderedWord(slots[low].entry.name + shared) != word) {
    high = low - 1;  // the names from low on are above the key
  }
  // Mostly one name is left, the key's own. Several are left when names differ only
  // further behind.
  for (int32_t middle = low; low <= high; middle = (low + high) / 2) {
    const int32_t order = compareName(cursor, key, slots[middle].entry);
    if (order == 0) {
      slot = static_cast<uint16_t>(middle);
      return ZOV_OKAY;
    }
    if (order > 0) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  slot = static_cast<uint16_t>(low);
  return ZOV_NOTFOUND;
}

// An entry to be inserted one level up, with the subtree right of it.
struct Promoted {
  DirEntry entry;
  uint32_t rightChild;
};

// Splits a full node: the upper half moves to a new node, and the middle entry is
// promoted.
Promoted split_node(const Cursor &cursor, TreeNode &node) {
  assert(node.count == capacityOf(cursor));
  const uint32_t number = allocSubdirNode(cursor);
  TreeNode &upper = nodeAt(cursor, number);
  const uint32_t middle = node.count / 2;
  upper.count = static_cast<uint16_t>(node.count - middle - 1);
  copySlots(upper.slots(), &node.slots()[middle + 1], upper.count);
  node.count = static_cast<uint16_t>(middle);
  return {node.slots()[middle].entry, number};
}

// Splits the full root, which keeps its number: both halves move to new nodes.
void split_root(const Cursor &cursor, TreeNode &root) {
  const uint32_t lowerNumber = allocSubdirNode(cursor);
  const Promoted promoted = split_node(cursor, root);
  TreeNode &lower = nodeAt(cursor, lowerNumber);
  lower.count = root.count;
  copySlots(lower.slots(), root.slots(), root.count);
  TreeSlot *slots = root.slots();
  slots[0].child = lowerNumber;
  slots[0].entry = promoted.entry;
  slots[1].child = promoted.rightChild;
  root.count = 1;
}

// Moves one entry through the parent from the fuller of two siblings to the
// other, unless they differ by one.
void rebalance(DirEntry &separator, TreeNode &left, TreeNode &right) {
  TreeSlot *leftSlots = left.slots();
  TreeSlot *rightSlots = right.slots();
  if (left.count + 1 < right.count) {
    leftSlots[left.count].entry = separator;
    leftSlots[left.count + 1].child = rightSlots[0].child;
    ++left.count;
    separator = rightSlots[0].entry;
    close_slots(right, 0);
  } else if (right.count + 1 < left.count) {
    copySlots(&rightSlots[1], rightSlots, right.count);
    rightSlots[0].entry = separator;
    rightSlots[0].child = leftSlots[left.count].child;
    ++right.count;
    separator = leftSlots[left.count - 1].entry;
    --left.count;
  }
}

// Puts the left node and the separator in front of the right node's slots.
void prependSlots(TreeSlot *rightSlots, TreeNode &left, const DirEntry &separator) {
  copySlots(rightSlots, left.slots(), left.count);
  rightSlots[left.count].entry = separator;
}

// Two siblings and the entry of their parent between them.
struct Siblings {
  TreeNode &parent;
  uint32_t separator;  // slot in the parent
  TreeNode &left;
  TreeNode &right;
};

// Merges two siblings that fit into one node. The root takes them if it has no other
// children, so the tree loses a level, and the result is true. Else the right one
// takes both, and the caller drops the separator and the left child.
bool merge_nodes(const Cursor &cursor, const Siblings &siblings) {
  TreeNode &left = siblings.left;
  TreeNode &right = siblings.right;
  TreeSlot *slots = siblings.parent.slots();
  const DirEntry separator = slots[siblings.separator].entry;
  const uint32_t leftNumber = slots[siblings.separator].child;
  const uint16_t count = static_cast<uint16_t>(left.count + right.count + 1);
  assert(count < capacityOf(cursor));
  const bool intoRoot = cursor.depth == 1 && siblings.parent.count == 1;
  if (intoRoot) {
    const uint32_t rightNumber = slots[1].child;
    copySlots(&slots[left.count + 1], right.slots(), right.count);
    prependSlots(slots, left, separator);
    siblings.parent.count = count;
    deleteSubdirNode(cursor, rightNumber);
  } else {
    copySlots(&right.slots()[left.count + 1], right.slots(), right.count);
    prependSlots(right.slots(), left, separator);
    right.count = count;
  }
  deleteSubdirNode(cursor, leftNumber);
  return intoRoot;
}

// Combines the underfull node at the top of the path with a sibling. True when the
// parent has a slot to drop for that, at which the path then ends.
bool combine_nodes(Cursor &cursor) {
  PathElement &above = cursor.path[cursor.depth - 1];
  TreeNode &parent = nodeAt(cursor, above.node);
  if (above.slot == parent.count) {
    --above.slot;
  }
  TreeSlot *slots = parent.slots();
  TreeNode &left = nodeAt(cursor, slots[above.slot].child);
  TreeNode &right = nodeAt(cursor, slots[above.slot + 1].child);
  if (left.count + right.count + 1u >= capacityOf(cursor)) {
    rebalance(slots[above.slot].entry, left, right);
    return false;
  }
  if (merge_nodes(cursor, {parent, above.slot, left, right})) {
    return false;
  }
  getPathNode(cursor, -1);
  return true;
}

// Drops the slot at the end of the path, and combines the nodes from there up that
// become underfull.
void shrink_node(Cursor &cursor) {
  bool underfull = true;
  do {
    const PathElement place = top(cursor);
    TreeNode &node = nodeAt(cursor, place.node);
    close_slots(node, place.slot);
    underfull = place.node != kRootNode && node.count < fewestOf(cursor);
  } while (underfull && combine_nodes(cursor));
}

// Descends from a node along its first children, to the first entry there.
const DirEntry &getLeftMost(Cursor &cursor, uint32_t number) {
  for (; number != 0; number = nodeAt(cursor, number).slots()[0].child) {
    push(cursor, number, 0);
  }
  return readEntryInSubdir(cursor);
}

}  // namespace

int32_t locate(Cursor &cursor, const NameKey &key) {
  cursor.depth = -1;
  uint32_t shared = 0;
  for (uint32_t number = kRootNode; number != 0;) {
    const TreeNode &node = nodeAt(cursor, number);
    push(cursor, number, 0);
    if (node.count == 0) {
      return ZOV_NOTFOUND;
    }
    uint16_t &slot = top(cursor).slot;
    if (node_search(cursor, node, key, shared, slot) == ZOV_OKAY) {
      return ZOV_OKAY;
    }
    const TreeSlot *place = &node.slots()[slot];
    number = place->child;
    if (number != 0 && slot > 0 && slot < node.count) {
      shared = std::max(shared, sharedBytes(place[-1].entry, place->entry));
    }
  }
  return ZOV_NOTFOUND;
}

const DirEntry &readEntryInSubdir(const Cursor &cursor) {
  assert(cursor.depth >= 0);
  const PathElement &place = cursor.path[cursor.depth];
  assert(place.slot < nodeAt(cursor, place.node).count);
  return nodeAt(cursor, place.node).slots()[place.slot].entry;
}

uint32_t nodesToInsert(const Cursor &cursor) {
  uint32_t nodes = 0;
  for (int32_t depth = cursor.depth; depth >= 0; --depth) {
    if (nodeAt(cursor, cursor.path[depth].node).count + 1u < capacityOf(cursor)) {
      break;
    }
    nodes += depth == 0 ? 2 : 1;
  }
  return nodes;
}

void insertEntry(Cursor &cursor, const DirEntry &entry) {
  Promoted promoted = {entry, 0};
  for (;; getPathNode(cursor, -1)) {
    const PathElement place = top(cursor);
    TreeNode &node = nodeAt(cursor, place.node);
    assert(node.count < capacityOf(cursor));
    open_slots(node, place.slot);
    node.slots()[place.slot].entry = promoted.entry;
    node.slots()[place.slot + 1].child = promoted.rightChild;
    if (node.count < capacityOf(cursor)) {
      return;
    }
    if (place.node == kRootNode) {
      split_root(cursor, node);
      return;
    }
    promoted = split_node(cursor, node);
  }
}

void compress_node(Cursor &cursor) {
  PathElement &place = top(cursor);
  TreeSlot *slots = nodeAt(cursor, place.node).slots();
  const uint32_t right = slots[place.slot + 1].child;
  if (right != 0) {
    // The next entry in order, the first of a leaf, takes the place of this one;
    // its own slot is the one to drop.
    DirEntry &removed = slots[place.slot].entry;
    ++place.slot;
    removed = getLeftMost(cursor, right);
  }
  shrink_node(cursor);
}

const DirEntry *firstName(Cursor &cursor) {
  cursor.depth = -1;
  return nodeAt(cursor, kRootNode).count == 0 ? nullptr : &getLeftMost(cursor, kRootNode);
}

const DirEntry *nextName(Cursor &cursor, bool advance) {
  if (cursor.depth < 0) {
    return nullptr;
  }
  if (advance) {
    ++top(cursor).slot;
  }
  for (bool below = true; cursor.depth >= 0; below = false) {
    const PathElement place = top(cursor);
    const TreeNode &node = nodeAt(cursor, place.node);
    const TreeSlot &slot = node.slots()[place.slot];
    if (below && slot.child != 0) {
      return &getLeftMost(cursor, slot.child);
    }
    if (place.slot < node.count) {
      return &slot.entry;
    }
    getPathNode(cursor, -1);
  }
  return nullptr;
}

}  // namespace zov
