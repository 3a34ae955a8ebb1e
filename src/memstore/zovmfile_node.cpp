// SPDX-License-Identifier: Apache-2.0
//
// The nodes of a directory's tree as pages: formatting, the table of the pinned
// pages, the free list, and the reservation of nodes, which keeps an insertion from
// failing half-way. Nodes are never given back to the segmented file: a directory
// does not shrink.
//
// No locks of its own, no jumps; see zovmfile_tree.h.
#include <algorithm>

#include "memstore/zovmfile_tree.h"
#include "memstore/zovshm_private.h"

namespace zov {
namespace {

constexpr uint32_t kPieceBytes = 512;

bool writeAll(ZOV_SEG seg, uint64_t offset, const void *bytes, uint32_t count) {
  return zov_segSeekWrite(seg, offset, bytes, count) == count;
}

// Grows the table of the pages to hold those below `end`.
bool makeSlots(Tree &tree, uint32_t end) {
  if (end <= tree.pageSlots) {
    return true;
  }
  const uint32_t slots = std::max(end, tree.pageSlots + tree.pageSlots / 2);
  void **pages = growTable(tree.pages, tree.pageSlots, slots, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (pages == nullptr) {
    return false;
  }
  tree.pages = pages;
  tree.pageSlots = slots;
  return true;
}

}  // namespace

int32_t initializeSubdir(ZOV_SEG seg) {
  static const char zeros[kPieceBytes] = {};
  const uint64_t end = uint64_t{2} * zov_segSegSize(seg);
  for (uint64_t offset = 0; offset < end; offset += kPieceBytes) {
    const uint64_t count = std::min<uint64_t>(end - offset, kPieceBytes);
    if (!writeAll(seg, offset, zeros, static_cast<uint32_t>(count))) {
      return ZOV_ERROR;
    }
  }
  const DirHeader header = {.freeNode = 0, .nextNode = kRootNode + 1, .freeExtra = {}};
  return writeAll(seg, 0, &header, sizeof header) ? ZOV_OKAY : ZOV_ERROR;
}

int32_t pinPages(Tree &tree, uint32_t end) {
  if (!makeSlots(tree, end)) {
    return ZOV_ERROR;
  }
  for (uint32_t &number = tree.numPages; number < end; ++number) {
    if (zov_segGetPtr(tree.seg, number, &tree.pages[number]) != ZOV_OKAY) {
      return ZOV_ERROR;
    }
  }
  return ZOV_OKAY;
}

void unpinPages(Tree &tree) {
  for (uint32_t number = 0; number < tree.numPages; ++number) {
    zov_segReleasePtr(tree.seg, number, tree.pages[number]);
  }
  zov_freeMem(tree.pages, ZOV_DEFAULT_TAG);
}

uint32_t allocSubdirNode(const Cursor &cursor) {
  DirHeader &header = headerOf(cursor);
  if (header.freeNode == 0) {
    assert(header.nextNode < cursor.tree->numPages);
    return header.nextNode++;
  }
  const uint32_t number = header.freeNode;
  header.freeNode = pageAt<FreeNode>(cursor, number)->next;
  return number;
}

void deleteSubdirNode(const Cursor &cursor, uint32_t number) {
  DirHeader &header = headerOf(cursor);
  assert(number > kRootNode && number < header.nextNode);
  pageAt<FreeNode>(cursor, number)->next = header.freeNode;
  header.freeNode = number;
}

int32_t reserveNodes(const Cursor &cursor, uint32_t wanted) {
  const DirHeader &header = headerOf(cursor);
  for (uint32_t number = header.freeNode; wanted > 0 && number != 0; --wanted) {
    number = pageAt<FreeNode>(cursor, number)->next;
  }
  return pinPages(*cursor.tree, header.nextNode + wanted);
}

}  // namespace zov
