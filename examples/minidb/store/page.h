// SPDX-License-Identifier: Apache-2.0
//
// How a page looks. Numbers have the low byte first.
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

#include <bit>

#include "store/store.h"

namespace minidb {

enum class Kind : uint8_t { kMeta = 1, kLeaf, kInner, kChain };

constexpr uint32_t kHeaderBytes = 32;
constexpr uint32_t kChainStart = kHeaderBytes + 8;
constexpr uint32_t kChainBytes = kPageBytes - kChainStart;
constexpr uint32_t kLeafCell = 8;  // bytes of a cell before its key
constexpr uint32_t kInnerCell = 24;
constexpr uint32_t kMaxCell = (kPageBytes - kHeaderBytes) / 4 - 2;  // four to a page

using Bytes = uint8_t *;
using ConstBytes = const uint8_t *;

template <typename Number>
Number fileOrder(Number number) {
  if constexpr (std::endian::native == std::endian::big) {
    number = sizeof number == 2   ? static_cast<Number>(zov_swaporder16(number))
             : sizeof number == 4 ? static_cast<Number>(zov_swaporder32(number))
                                  : static_cast<Number>(zov_swaporder64(number));
  }
  return number;
}

template <typename Number>
Number get(ConstBytes at) {
  Number number;
  memcpy(&number, at, sizeof number);
  return fileOrder(number);
}

template <typename Number>
void put(Bytes at, Number number) {
  number = fileOrder(number);
  memcpy(at, &number, sizeof number);
}

inline Kind kindOf(ConstBytes page) {
  return static_cast<Kind>(page[4]);
}
inline uint32_t levelOf(ConstBytes page) {
  return page[5];
}
inline uint32_t countOf(ConstBytes page) {
  return get<uint16_t>(page + 6);
}
inline uint64_t numberOf(ConstBytes page) {
  return get<uint64_t>(page + 8);
}
inline uint64_t commitOf(ConstBytes page) {
  return get<uint64_t>(page + 16);
}
inline uint32_t lowestOf(ConstBytes page) {
  return get<uint32_t>(page + 24);
}
inline uint64_t nextOf(ConstBytes chain) {
  return get<uint64_t>(chain + kHeaderBytes);
}

inline uint32_t offsetOf(ConstBytes page, uint32_t index) {
  return get<uint16_t>(page + kHeaderBytes + 2 * index);
}
inline ConstBytes cellOf(ConstBytes page, uint32_t index) {
  return page + offsetOf(page, index);
}
inline Bytes cellOf(Bytes page, uint32_t index) {
  return page + offsetOf(page, index);
}

inline Text cellKey(ConstBytes page, uint32_t index) {
  ConstBytes cell = cellOf(page, index);
  const uint32_t head = kindOf(page) == Kind::kLeaf ? kLeafCell : kInnerCell;
  return {reinterpret_cast<const char *>(cell + head), get<uint16_t>(cell)};
}

inline uint64_t childOf(ConstBytes page, uint32_t index) {
  return get<uint64_t>(cellOf(page, index) + 8);
}
inline uint64_t recordsOf(ConstBytes page, uint32_t index) {
  return get<uint64_t>(cellOf(page, index) + 16);
}

inline uint32_t valueBytes(ConstBytes cell) {
  return get<uint32_t>(cell + 4);
}
inline bool isChained(uint32_t keyBytes, uint32_t valueBytes) {
  return kLeafCell + keyBytes + uint64_t{valueBytes} > kMaxCell;
}
// What stands behind the key of a leaf's cell, and whether it is the first page.
inline Bytes valueOf(Bytes cell) {
  return cell + kLeafCell + get<uint16_t>(cell);
}
inline ConstBytes valueOf(ConstBytes cell) {
  return cell + kLeafCell + get<uint16_t>(cell);
}
inline bool isChained(ConstBytes cell) {
  return isChained(get<uint16_t>(cell), valueBytes(cell));
}
// 0 for a value in the leaf.
inline uint64_t chainOf(ConstBytes cell) {
  return isChained(cell) ? get<uint64_t>(valueOf(cell)) : 0;
}
inline uint32_t chainPages(ConstBytes cell) {
  return isChained(cell) ? (valueBytes(cell) + kChainBytes - 1) / kChainBytes : 0;
}

// An empty page, zero-filled but for its header.
void initPage(Bytes page, Kind kind, uint32_t level, uint64_t number, uint64_t commit);

// Sets the checksum; tells whether checksum and number are right and the page is
// one whose cells can be looked at.
void sealPage(Bytes page);
bool isWhole(ConstBytes page, uint64_t number);

// The first cell whose key is not below this one.
uint32_t findCell(ConstBytes page, Text key, bool &found);

// The child that a key belongs to.
uint32_t findChild(ConstBytes page, Text key);

// Records in and below a page.
uint64_t sumRecords(ConstBytes page);

uint32_t cellBytes(ConstBytes page, uint32_t index);
bool hasRoom(ConstBytes page, uint32_t cellBytes);
void insertCell(Bytes page, uint32_t index, ConstBytes cell, uint32_t cellBytes);
void removeCell(Bytes page, uint32_t index);

}  // namespace minidb

#endif
