// SPDX-License-Identifier: Apache-2.0
//
// The nodes of a directory's tree as pages: formatting, the free list, and the
// reservation that lets an insertion run without failing half-way. Nodes are
// never given back to the segmented file; a directory keeps what it grew to.
//
// No locks of its own, no jumps; see zovmfile_tree.h.
#include <algorithm>

#include "memstore/zovmfile_tree.h"

namespace {

constexpr uint32_t kPieceBytes = 512;

bool writeAll(ZOV_SEG seg, uint64_t offset, const void *bytes, uint32_t count) {
  return zov_segSeekWrite(seg, offset, bytes, count) == count;
}

}  // namespace

int32_t zov::initializeSubdir(ZOV_SEG seg) {
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

int32_t zov::allocSubdirNode(Cursor &cursor, uint32_t &number) {
  const Pin<DirHeader> header(cursor, kHeaderNode);
  if (!header) {
    return ZOV_ERROR;
  }
  const bool recycled = header->freeNode != 0;
  number = recycled ? header->freeNode : header->nextNode;
  const Pin<FreeNode> node(cursor, number);
  if (!node) {
    return ZOV_ERROR;
  }
  if (recycled) {
    header->freeNode = node->next;
  } else {
    ++header->nextNode;
  }
  return ZOV_OKAY;
}

void zov::deleteSubdirNode(Cursor &cursor, uint32_t number) {
  const Pin<DirHeader> header(cursor, kHeaderNode);
  const Pin<FreeNode> node(cursor, number);
  if (header && node) {
    node->next = header->freeNode;
    header->freeNode = number;
  }
}

int32_t zov::reserveNodes(Cursor &cursor, uint32_t wanted) {
  if (wanted == 0) {
    return ZOV_OKAY;
  }
  const Pin<DirHeader> header(cursor, kHeaderNode);
  if (!header) {
    return ZOV_ERROR;
  }
  for (uint32_t number = header->freeNode; wanted > 0 && number != 0; --wanted) {
    const Pin<FreeNode> node(cursor, number);
    if (!node) {
      return ZOV_ERROR;
    }
    number = node->next;
  }
  for (uint32_t fresh = 0; fresh < wanted; ++fresh) {
    const Pin<FreeNode> node(cursor, header->nextNode + fresh);
    if (!node) {
      return ZOV_ERROR;
    }
  }
  return ZOV_OKAY;
}
