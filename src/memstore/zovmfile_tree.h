// SPDX-License-Identifier: Apache-2.0
//
// A directory of the memory file system as a tree: its format in the pages of the
// directory's segmented file, and the operations on it.
//
//   page 0: DirHeader            the free lists
//   page 1: TreeNode             the root, for ever
//   page n: TreeNode, or ExtraEntry[B / 32], or a node on the free list
//
// A TreeNode holds `count` entries in name order, and left of each, and right of
// the last, the number of the node with the names between; 0 in a leaf. Names
// are ordered by their bytes with ASCII letters in lower case, so that no locale
// can reorder them. A name's first 22 bytes stand in its entry, the rest in a
// chain of extra entries.
//
// Everything here runs under the directory's lock and with jumps held off, and
// through the one handle that changes the directory. Every page stays pinned through
// that handle, so access to a page cannot fail. An operation reserves the nodes it
// needs before it changes anything.
#ifndef ZOV_MEMSTORE_ZOVMFILE_TREE_H
#define ZOV_MEMSTORE_ZOVMFILE_TREE_H

#include <assert.h>
#include <stddef.h>
#include <string.h>

#include <bit>

#include "core/zov_word.h"
#include "zov.h"

namespace zov {

constexpr uint32_t kHeaderNode = 0;
constexpr uint32_t kRootNode = 1;

// Bytes of a name in its entry, and in each extra entry.
constexpr uint32_t kEntryNameBytes = 22;
constexpr uint32_t kExtraNameBytes = 24;
constexpr size_t kLongestName = UINT16_MAX;

// Types of an entry, and the one of a look-up for either.
constexpr uint16_t kTypeFile = 0;
constexpr uint16_t kTypeDirectory = 1;
constexpr uint16_t kTypeAny = UINT16_MAX;

// The place of an extra entry; all zero means none.
struct ExtraLink {
  uint32_t node;
  uint16_t index;
  uint16_t zero;
};

struct ExtraEntry {
  ExtraLink next;  // of the same name, or of the free list
  char name[kExtraNameBytes];
};

struct DirHeader {
  uint32_t freeNode;    // first node of the free list, 0 when it is empty
  uint32_t nextNode;    // lowest node never handed out
  ExtraLink freeExtra;  // first free extra entry
};

struct DirEntry {
  uint64_t fileId;
  uint16_t nameLen;
  uint16_t type;
  ExtraLink extra;  // the rest of the name
  char name[kEntryNameBytes];
  char zero[6];
};

// The subtree left of an entry, and the entry. The slot behind the last entry holds
// a subtree only.
struct TreeSlot {
  uint32_t child;
  uint32_t unused;
  DirEntry entry;
};

struct alignas(8) TreeNode {
  uint16_t count;
  uint16_t unused[3];

  TreeSlot *slots() { return reinterpret_cast<TreeSlot *>(this + 1); }
  const TreeSlot *slots() const { return reinterpret_cast<const TreeSlot *>(this + 1); }
};

struct FreeNode {
  uint32_t next;
};

static_assert(sizeof(ExtraEntry) == 32 && sizeof(DirHeader) == 16 && sizeof(DirEntry) == 48);
static_assert(offsetof(DirEntry, extra) == 12 && offsetof(DirEntry, name) == 20);
static_assert(sizeof(TreeNode) == 8 && offsetof(TreeSlot, entry) == 8 && sizeof(TreeSlot) == 56);

struct PathElement {
  uint32_t node;
  uint16_t slot;
};

// More levels than any tree has: nodes below the root keep 35 entries or more, and
// their numbers have 32 bits.
constexpr int32_t kMaxDepth = 16;

// A tree, with its pages pinned: numPages of them from page 0 on, all that were
// ever handed out and perhaps some that are reserved.
struct Tree {
  ZOV_SEG seg;
  uint32_t nodeBytes;  // B, the size of a node; seg's segment size, repeated for speed
  uint32_t numPages;
  uint32_t pageSlots;  // in pages
  void **pages;
};

// A place in a tree and the path to it from the root.
struct Cursor {
  Tree *tree;
  int32_t depth;  // of the last element of path; -1 for none
  PathElement path[kMaxDepth];
};

template <typename Page>
Page *pageAt(const Cursor &cursor, uint32_t number) {
  assert(number < cursor.tree->numPages);
  return static_cast<Page *>(cursor.tree->pages[number]);
}

inline DirHeader &headerOf(const Cursor &cursor) {
  return *pageAt<DirHeader>(cursor, kHeaderNode);
}

inline TreeNode &nodeAt(const Cursor &cursor, uint32_t number) {
  return *pageAt<TreeNode>(cursor, number);
}

// Eight bytes of a name as a number that compares as they do.
inline uint64_t orderedWord(const char *bytes) {
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  word = foldWord(word);
  return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

// A name as look-ups take it.
struct NameKey {
  explicit NameKey(const char *name) : NameKey(name, strlen(name)) {}
  NameKey(const char *name, size_t length);

  const char *text;  // not ended by a NUL
  size_t length;
  char first[24];  // its bytes in an entry, and zeros behind them
};

// Nodes (zovmfile_node.cpp). Statuses are ZOV_OKAY or ZOV_ERROR.

int32_t initializeSubdir(ZOV_SEG seg);

// Makes and pins the missing pages below `end`. When that fails those before stay.
int32_t pinPages(Tree &tree, uint32_t end);

// Undoes all pins and frees the table of the pages.
void unpinPages(Tree &tree);

// Takes a reserved node. Its contents are undefined.
uint32_t allocSubdirNode(const Cursor &cursor);
void deleteSubdirNode(const Cursor &cursor, uint32_t number);

// Makes pages until so many nodes can be taken.
int32_t reserveNodes(const Cursor &cursor, uint32_t wanted);

// Names (zovmfile_name.cpp).

// Stores a name of at most kLongestName bytes in an entry. A failure takes no extra
// entry.
int32_t setName(const Cursor &cursor, DirEntry &entry, const NameKey &key);

// Gives back the extra entries of a name.
void removeName(const Cursor &cursor, const DirEntry &entry);

// Writes nameLen bytes and a NUL.
void getName(const Cursor &cursor, const DirEntry &entry, char *name);

// Below, at or above 0 as the key is to the entry's name.
int32_t compareName(const Cursor &cursor, const NameKey &key, const DirEntry &entry);

// Whether two keys are one name.
bool isSameName(const NameKey &first, const NameKey &second);

// The tree (zovmfile_tree.cpp).

// Finds a name. ZOV_OKAY with the cursor at its entry, or ZOV_NOTFOUND with the
// cursor at the slot of a leaf where it belongs.
int32_t locate(Cursor &cursor, const NameKey &key);

// The entry at the cursor.
const DirEntry &readEntryInSubdir(const Cursor &cursor);

// Inserts an entry at the cursor, which locate() left with ZOV_NOTFOUND. The caller
// has reserved the nodes that this takes: nodesToInsert() of them.
void insertEntry(Cursor &cursor, const DirEntry &entry);
uint32_t nodesToInsert(const Cursor &cursor);

// Removes the entry at the cursor and combines the nodes that this leaves underfull.
// The extra entries of the name stay.
void compress_node(Cursor &cursor);

// Step in name order: the entry, with the cursor at it, or null when there is
// none. Without advance the cursor's own entry is the next one.
const DirEntry *firstName(Cursor &cursor);
const DirEntry *nextName(Cursor &cursor, bool advance);

}  // namespace zov

#endif
