// SPDX-License-Identifier: Apache-2.0
#include "store/page.h"

#include <array>

namespace minidb {

namespace {

// For eight bytes at a time: table k holds the sums of a byte with k zero bytes
// behind it.
constexpr auto kTables = [] {
  std::array<std::array<uint32_t, 256>, 8> tables = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t sum = byte;
    for (int bit = 0; bit < 8; ++bit) {
      sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0x82f63b78u : 0);
    }
    tables[0][byte] = sum;
  }
  for (uint32_t at = 256; at < 8 * 256; ++at) {
    const uint32_t before = tables[at / 256 - 1][at % 256];
    tables[at / 256][at % 256] = (before >> 8) ^ tables[0][before & 0xff];
  }
  return tables;
}();

uint32_t checksumOf(const Page &page) {
  // The first four bytes have no part in it: 4092 bytes are 511 eights and a half.
  const uint32_t half = ~get<uint32_t>(page.bytes + 4);
  uint32_t sum = kTables[3][half & 0xff] ^ kTables[2][(half >> 8) & 0xff] ^
                 kTables[1][(half >> 16) & 0xff] ^ kTables[0][half >> 24];
  for (uint32_t at = 8; at < kPageBytes; at += 8) {
    const uint64_t next = get<uint64_t>(page.bytes + at) ^ sum;
    sum = 0;
    for (uint32_t byte = 0; byte < 8; ++byte) {
      sum ^= kTables[7 - byte][(next >> (8 * byte)) & 0xff];
    }
  }
  return ~sum;
}

// Each cell ends within the page, whatever stands in it, and they fill its end.
bool cellsFit(const Page &page) {
  const uint32_t count = page.count();
  const uint32_t lowest = page.lowest();
  uint32_t sum = lowest;
  if (lowest < kHeaderBytes + 2 * count || lowest > kPageBytes || count == 0) {
    return false;
  }
  for (uint32_t index = 0; index < count; ++index) {
    const uint32_t offset = page.offset(index);
    if (offset < lowest || offset + page.headBytes() > kPageBytes ||
        page.keyBytes(index) > kMaxKeyBytes || offset + page.cellBytes(index) > kPageBytes) {
      return false;
    }
    sum += page.cellBytes(index);
  }
  return sum == kPageBytes;
}

}  // namespace

void Page::init(Kind kind, uint32_t level, uint64_t number, uint64_t commit) {
  memset(bytes, 0, sizeof bytes);
  bytes[4] = static_cast<uint8_t>(kind);
  bytes[5] = static_cast<uint8_t>(level);
  stamp(number, commit);
  put(bytes + 24, kPageBytes);
}

void Page::stamp(uint64_t number, uint64_t commit) {
  put(bytes + 8, number);
  put(bytes + 16, commit);
}

void Page::seal() {
  put(bytes, checksumOf(*this));
}

bool Page::isWhole(uint64_t number) const {
  if (get<uint32_t>(bytes) != checksumOf(*this) || this->number() != number) {
    return false;
  }
  switch (kind()) {
    case Kind::kLeaf:
    case Kind::kInner:
      return (kind() == Kind::kLeaf) == (level() == 0) && cellsFit(*this);
    case Kind::kChain:
      return lowest() <= kChainBytes;
    default:
      return kind() == Kind::kMeta;
  }
}

uint32_t Page::cellBytes(uint32_t index) const {
  const uint32_t rest = kind() == Kind::kInner ? 0 : chained(index) ? 8 : valueBytes(index);
  return headBytes() + keyBytes(index) + rest;
}

uint32_t Page::find(Text key, bool &found) const {
  uint32_t low = 0;
  uint32_t high = count();
  found = false;
  while (low < high) {
    const uint32_t middle = (low + high) / 2;
    const int order = compareTexts(this->key(middle), key);
    found = found || order == 0;
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

void Page::insert(uint32_t index, const uint8_t *cell, uint32_t length) {
  const uint32_t old = count();
  const uint32_t place = lowest() - length;
  uint8_t *slot = bytes + kHeaderBytes + 2 * index;
  memcpy(bytes + place, cell, length);
  memmove(slot + 2, slot, 2 * (old - index));
  put(slot, static_cast<uint16_t>(place));
  put(bytes + 6, static_cast<uint16_t>(old + 1));
  put(bytes + 24, place);
}

void Page::remove(uint32_t index) {
  const Page old = *this;
  init(old.kind(), old.level(), old.number(), old.commit());
  for (uint32_t each = 0; each < old.count(); ++each) {
    if (each != index) {
      insert(count(), old.cell(each), old.cellBytes(each));
    }
  }
}

uint64_t Page::sumRecords(uint32_t end) const {
  uint64_t sum = kind() == Kind::kLeaf ? end : 0;
  for (uint32_t index = 0; kind() == Kind::kInner && index < end; ++index) {
    sum += records(index);
  }
  return sum;
}

}  // namespace minidb
