// SPDX-License-Identifier: Apache-2.0
//
// How a data file looks. Its numbers have the low byte first.
//
//   0     magic
//   512   commit slot \  written in turn, each in a sector of its own
//   1024  commit slot /
//   2048  entries, one behind the other
//
// An entry is, in the encoding of libzov's typed buffers: a 64-bit check, a byte
// for its kind, the key and the value as strings with length. A later entry
// replaces the earlier ones of its key.
//
// The commit slot that is whole and has the higher sequence number tells how
// far the file counts. A commit makes the entries safe first, then the slot, so
// that whatever interrupts it leaves one slot that is true.
#ifndef MINIDB_FORMAT_H
#define MINIDB_FORMAT_H

#include <bit>

#include "engine/buffer.h"

namespace minidb {

constexpr char kMagic[16] = "minidb file 2\r\n";
constexpr int64_t kSlotOffset[2] = {512, 1024};
constexpr int64_t kFirstEntry = 2048;

// Whether the numbers of a file have to be reversed on this machine.
constexpr bool kSwaps = std::endian::native == std::endian::big;

struct CommitSlot {
  uint64_t sequence;
  uint64_t committedBytes;  // length of the file that counts
  uint64_t check;           // of the two fields above
};

enum class Kind : char { kPut = 'P', kDelete = 'D' };

struct Entry {
  Kind kind;
  Text key;
  Text value;  // empty in an entry that deletes
};

// Bytes of an entry apart from its texts: check, kind and two lengths; and where
// the key begins.
constexpr uint32_t kEntryFrameBytes = 8 + 1 + 4 + 4;
constexpr uint32_t kKeyOffset = 8 + 1 + 4;

// FNV-1a, 64 bits: the public-domain hash of Fowler, Noll and Vo. It finds torn
// and overwritten entries, and spreads keys over the index.
constexpr uint64_t kHashStart = 14695981039346656037u;

inline uint64_t hashBytes(Text text, uint64_t hash = kHashStart) {
  for (uint32_t index = 0; index < text.length; ++index) {
    hash = (hash ^ static_cast<unsigned char>(text.bytes[index])) * 1099511628211u;
  }
  return hash;
}

inline uint64_t hashNumber(uint64_t number, uint64_t hash = kHashStart) {
  for (int shift = 0; shift < 64; shift += 8) {
    hash = (hash ^ ((number >> shift) & 0xff)) * 1099511628211u;
  }
  return hash;
}

inline uint64_t checkOf(const CommitSlot &slot) {
  return hashNumber(slot.committedBytes, hashNumber(slot.sequence));
}

inline uint64_t checkOf(const Entry &entry) {
  const uint64_t head = hashNumber(entry.key.length, hashNumber(static_cast<uint8_t>(entry.kind)));
  return hashBytes(entry.value, hashBytes(entry.key, head));
}

}  // namespace minidb

#endif
