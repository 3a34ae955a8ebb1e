// SPDX-License-Identifier: Apache-2.0
//
// Texts, and how a page looks. Numbers have the low byte first.
//
//   0   checksum, CRC-32C of all that follows
//   4   kind; 5 level, 0 for a leaf; 6 count of cells
//   8   number of the page
//   16  number of the commit that wrote it
//   24  offset of the lowest cell; of a chain, the bytes that it holds
//   32  leaf, inner: offsets of the cells, in the order of their keys; the cells
//       stand packed at the end of the page
//       chain: number of the next page or 0, then the bytes
//       meta: see file.cpp
//
//   cell of a leaf    key length (2), 0 (2), value length (4), key, value; in place
//                     of a value that makes the cell too long its first page (8)
//   inner cell        key length (2), 0 (6), child (8), its records (8), key
//
// The key of an inner cell is not above any key of its child and above all keys to
// the left. That of the first cell does not count.
#ifndef MINIDB_STORE_PAGE_H
#define MINIDB_STORE_PAGE_H

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <bit>

namespace minidb {

// Bytes that need not end in a NUL and may hold some. Null means that there are none.
struct Text {
  const char *bytes;
  uint32_t length;
};

inline Text textOf(const char *string) {
  return {string, static_cast<uint32_t>(strlen(string))};
}

// Orders texts by their bytes, as memcmp() does, the shorter one first.
inline int compareTexts(Text first, Text second) {
  const uint32_t common = std::min(first.length, second.length);
  const int order = common == 0 ? 0 : memcmp(first.bytes, second.bytes, common);
  return order != 0 ? order : (first.length > second.length) - (first.length < second.length);
}

constexpr uint32_t kPageBytes = 4096;
constexpr uint32_t kMaxKeyBytes = 960;
constexpr uint32_t kHeaderBytes = 32;
constexpr uint32_t kChainStart = kHeaderBytes + 8;
constexpr uint32_t kChainBytes = kPageBytes - kChainStart;
constexpr uint32_t kLeafCell = 8;  // bytes of a cell before its key
constexpr uint32_t kInnerCell = 24;
constexpr uint32_t kMaxCell = (kPageBytes - kHeaderBytes) / 4 - 2;  // four to a page

enum class Kind : uint8_t { kMeta = 1, kLeaf, kInner, kChain };

template <typename Number>
Number get(const uint8_t *at) {
  uint8_t bytes[sizeof(Number)];
  memcpy(bytes, at, sizeof bytes);
  if constexpr (std::endian::native == std::endian::big) {
    std::reverse(bytes, bytes + sizeof bytes);
  }
  return std::bit_cast<Number>(bytes);
}

template <typename Number>
void put(uint8_t *at, Number number) {
  memcpy(at, &number, sizeof number);
  if constexpr (std::endian::native == std::endian::big) {
    std::reverse(at, at + sizeof number);
  }
}

inline bool isChained(uint32_t keyBytes, uint32_t valueBytes) {
  return kLeafCell + keyBytes + uint64_t{valueBytes} > kMaxCell;
}

struct Page {
  uint8_t bytes[kPageBytes];

  Kind kind() const { return static_cast<Kind>(bytes[4]); }
  uint32_t level() const { return bytes[5]; }
  uint32_t count() const { return get<uint16_t>(bytes + 6); }
  uint64_t number() const { return get<uint64_t>(bytes + 8); }
  uint64_t commit() const { return get<uint64_t>(bytes + 16); }
  uint32_t lowest() const { return get<uint32_t>(bytes + 24); }
  uint64_t next() const { return get<uint64_t>(bytes + kHeaderBytes); }

  // Makes it empty, zero-filled but for the header.
  void init(Kind kind, uint32_t level, uint64_t number, uint64_t commit);

  // Gives it a number and a commit.
  void stamp(uint64_t number, uint64_t commit);

  // Sets the checksum; tells whether checksum and number are right and the page is one
  // whose cells can be looked at.
  void seal();
  bool isWhole(uint64_t number) const;

  // Of leaves and inner pages.
  const uint8_t *cell(uint32_t index) const { return bytes + offset(index); }
  uint32_t offset(uint32_t index) const { return get<uint16_t>(bytes + kHeaderBytes + 2 * index); }
  uint32_t headBytes() const { return kind() == Kind::kLeaf ? kLeafCell : kInnerCell; }
  uint32_t keyBytes(uint32_t index) const { return get<uint16_t>(cell(index)); }
  uint32_t cellBytes(uint32_t index) const;
  Text key(uint32_t index) const {
    return {reinterpret_cast<const char *>(cell(index)) + headBytes(), keyBytes(index)};
  }

  // The first cell whose key is not below this one.
  uint32_t find(Text key, bool &found) const;
  bool hasRoom(uint32_t length) const {
    return kHeaderBytes + 2 * (count() + 1) + length <= lowest();
  }
  void insert(uint32_t index, const uint8_t *cell, uint32_t length);
  void remove(uint32_t index);

  // Of leaves: the value, or the number of its first page.
  const uint8_t *value(uint32_t index) const { return cell(index) + kLeafCell + keyBytes(index); }
  uint32_t valueBytes(uint32_t index) const { return get<uint32_t>(cell(index) + 4); }
  bool chained(uint32_t index) const { return isChained(keyBytes(index), valueBytes(index)); }
  uint64_t chain(uint32_t index) const { return chained(index) ? get<uint64_t>(value(index)) : 0; }
  uint32_t chainPages(uint32_t index) const {
    return chained(index) ? (valueBytes(index) + kChainBytes - 1) / kChainBytes : 0;
  }

  // Of inner pages.
  uint64_t child(uint32_t index) const { return get<uint64_t>(cell(index) + 8); }
  uint64_t records(uint32_t index) const { return get<uint64_t>(cell(index) + 16); }
  void setChild(uint32_t index, uint64_t child) { put(bytes + offset(index) + 8, child); }
  void setRecords(uint32_t index, uint64_t sum) { put(bytes + offset(index) + 16, sum); }

  // Records in and below the page, or below its cells up to one.
  uint64_t sumRecords(uint32_t end) const;
  uint64_t sumRecords() const { return sumRecords(count()); }
};

}  // namespace minidb

#endif
