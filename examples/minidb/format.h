// SPDX-License-Identifier: Apache-2.0
//
// How a data file looks. Numbers stand in the byte order of the machine.
//
//   0     magic
//   512   commit slot \  written in turn, each in a sector of its own
//   1024  commit slot /
//   2048  entries: header, key, value; one behind the other
//
// The commit slot that is whole and has the higher sequence number tells how
// far the file counts. A commit makes the entries safe first, then the slot, so
// that whatever interrupts it leaves one slot that is true.
#ifndef MINIDB_FORMAT_H
#define MINIDB_FORMAT_H

#include <stdint.h>

namespace minidb {

constexpr char kMagic[16] = "minidb file 1\r\n";
constexpr int64_t kSlotOffset[2] = {512, 1024};
constexpr int64_t kFirstEntry = 2048;

struct CommitSlot {
  uint64_t sequence;
  int64_t committedBytes;  // length of the file that counts
  uint64_t check;          // of the two fields above
};

struct EntryHeader {
  uint64_t check;  // of the lengths, the key and the value
  uint32_t keyBytes;
  uint32_t valueBytes;
};

// FNV-1a, 64 bits: the public-domain hash of Fowler, Noll and Vo. It finds torn
// and overwritten entries, and spreads keys over the index.
inline uint64_t hashBytes(const void *bytes, uint64_t length,
                          uint64_t hash = 14695981039346656037u) {
  const unsigned char *at = static_cast<const unsigned char *>(bytes);
  for (uint64_t index = 0; index < length; ++index) {
    hash = (hash ^ at[index]) * 1099511628211u;
  }
  return hash;
}

inline uint64_t checkOf(const CommitSlot &slot) {
  return hashBytes(&slot, sizeof slot.sequence + sizeof slot.committedBytes);
}

// The key and the value stand together behind the header.
inline uint64_t checkOf(const EntryHeader &header, const char *body) {
  const uint64_t lengths = hashBytes(&header.keyBytes, 2 * sizeof(uint32_t));
  return hashBytes(body, uint64_t{header.keyBytes} + header.valueBytes, lengths);
}

}  // namespace minidb

#endif
