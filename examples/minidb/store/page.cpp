// SPDX-License-Identifier: Apache-2.0
#include "store/page.h"

#include <array>

namespace minidb {

namespace {

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// For eight bytes at a time: table k holds the sums of a byte with k zero bytes
// behind it.
constexpr Tables makeTables() {
  Tables tables = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t sum = byte;
    for (int bit = 0; bit < 8; ++bit) {
      sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0x82f63b78u : 0);
    }
    tables[0][byte] = sum;
  }
  for (uint32_t byte = 0; byte < 256; ++byte) {
    for (uint32_t table = 1; table < 8; ++table) {
      const uint32_t before = tables[table - 1][byte];
      tables[table][byte] = (before >> 8) ^ tables[0][before & 0xff];
    }
  }
  return tables;
}

constexpr Tables kTables = makeTables();

uint32_t checksumOf(ConstBytes page) {
  uint32_t sum = 0xffffffff ^ get<uint32_t>(page + 4);
  // The first four bytes have no part in it: 4092 bytes are 511 eights and a half.
  sum = kTables[3][sum & 0xff] ^ kTables[2][(sum >> 8) & 0xff] ^ kTables[1][(sum >> 16) & 0xff] ^
        kTables[0][sum >> 24];
  for (uint32_t at = 8; at < kPageBytes; at += 8) {
    const uint64_t next = get<uint64_t>(page + at) ^ sum;
    sum = 0;
    for (uint32_t byte = 0; byte < 8; ++byte) {
      sum ^= kTables[7 - byte][(next >> (8 * byte)) & 0xff];
    }
  }
  return ~sum;
}

// A cell that ends within the page, whatever stands in it.
bool cellFits(ConstBytes page, uint32_t index) {
  const uint32_t head = kindOf(page) == Kind::kLeaf ? kLeafCell : kInnerCell;
  const uint32_t offset = offsetOf(page, index);
  return offset >= lowestOf(page) && offset + head <= kPageBytes &&
         get<uint16_t>(page + offset) <= kMaxKeyBytes &&
         offset + cellBytes(page, index) <= kPageBytes;
}

bool cellsFit(ConstBytes page) {
  const uint32_t count = countOf(page);
  uint32_t sum = lowestOf(page);
  if (sum < kHeaderBytes + 2 * count || sum > kPageBytes || count == 0) {
    return false;
  }
  for (uint32_t index = 0; index < count; ++index) {
    if (!cellFits(page, index)) {
      return false;
    }
    sum += cellBytes(page, index);
  }
  return sum == kPageBytes;
}

}  // namespace

void initPage(Bytes page, Kind kind, uint32_t level, uint64_t number, uint64_t commit) {
  memset(page, 0, kPageBytes);
  page[4] = static_cast<uint8_t>(kind);
  page[5] = static_cast<uint8_t>(level);
  put(page + 8, number);
  put(page + 16, commit);
  put(page + 24, kPageBytes);
}

void sealPage(Bytes page) {
  put(page, checksumOf(page));
}

bool isWhole(ConstBytes page, uint64_t number) {
  if (get<uint32_t>(page) != checksumOf(page) || numberOf(page) != number) {
    return false;
  }
  switch (kindOf(page)) {
    case Kind::kLeaf:
    case Kind::kInner:
      return (kindOf(page) == Kind::kLeaf) == (levelOf(page) == 0) && cellsFit(page);
    case Kind::kChain:
      return lowestOf(page) <= kChainBytes;
    default:
      return kindOf(page) == Kind::kMeta;
  }
}

uint32_t findCell(ConstBytes page, Text key, bool &found) {
  uint32_t low = 0;
  uint32_t high = countOf(page);
  found = false;
  while (low < high) {
    const uint32_t middle = (low + high) / 2;
    const int order = compareTexts(cellKey(page, middle), key);
    found = found || order == 0;
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

uint32_t findChild(ConstBytes page, Text key) {
  bool found = false;
  const uint32_t index = findCell(page, key, found);
  return found || index == 0 ? index : index - 1;
}

uint64_t sumRecords(ConstBytes page) {
  uint64_t sum = kindOf(page) == Kind::kLeaf ? countOf(page) : 0;
  for (uint32_t index = 0; kindOf(page) == Kind::kInner && index < countOf(page); ++index) {
    sum += recordsOf(page, index);
  }
  return sum;
}

uint32_t cellBytes(ConstBytes page, uint32_t index) {
  ConstBytes cell = cellOf(page, index);
  const uint32_t keyBytes = get<uint16_t>(cell);
  if (kindOf(page) == Kind::kInner) {
    return kInnerCell + keyBytes;
  }
  return kLeafCell + keyBytes + (isChained(cell) ? 8 : valueBytes(cell));
}

bool hasRoom(ConstBytes page, uint32_t cellBytes) {
  return kHeaderBytes + 2 * (countOf(page) + 1) + cellBytes <= lowestOf(page);
}

void insertCell(Bytes page, uint32_t index, ConstBytes cell, uint32_t cellBytes) {
  const uint32_t count = countOf(page);
  const uint32_t lowest = lowestOf(page) - cellBytes;
  Bytes slot = page + kHeaderBytes + 2 * index;
  memcpy(page + lowest, cell, cellBytes);
  memmove(slot + 2, slot, 2 * (count - index));
  put(slot, static_cast<uint16_t>(lowest));
  put(page + 6, static_cast<uint16_t>(count + 1));
  put(page + 24, lowest);
}

void removeCell(Bytes page, uint32_t index) {
  uint8_t old[kPageBytes];
  memcpy(old, page, sizeof old);
  initPage(page, kindOf(old), levelOf(old), numberOf(old), commitOf(old));
  for (uint32_t each = 0; each < countOf(old); ++each) {
    if (each != index) {
      insertCell(page, countOf(page), cellOf(old, each), cellBytes(old, each));
    }
  }
}

}  // namespace minidb
