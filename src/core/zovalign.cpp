// SPDX-License-Identifier: Apache-2.0
//
// Alignment of the fields of a record. A field type is named by a letter, the
// letter selects a class, the class an alignment. Two read-only tables; what
// each letter stands for is the business of the programs that use them.
#include <iterator>

#include "zov.h"

namespace {

struct AlignType {
  uint8_t letter;
  uint8_t alignClass;
};

constexpr AlignType alignTypes[] = {
    {'c', 0}, {'C', 2}, {'v', 0}, {'V', 2}, {'n', 1}, {'s', 1}, {'i', 3}, {'l', 3},
    {'L', 5}, {'d', 3}, {'a', 5}, {'D', 5}, {'b', 5}, {'f', 4}, {'F', 6}, {'g', 0},
};

// Bytes, by class.
constexpr uint16_t alignData[] = {1, 2, 4, 4, 4, 8, 8};

}  // namespace

extern "C" {

uint32_t zov_alignType(int32_t letter) {
  for (const AlignType &type : alignTypes) {
    if (type.letter == static_cast<uint8_t>(letter)) {
      return type.alignClass;
    }
  }
  return 0;
}

uint16_t zov_align(uint16_t offset, uint32_t alignClass) {
  if (alignClass >= std::size(alignData)) {
    return offset;
  }
  const uint32_t alignment = alignData[alignClass];
  return static_cast<uint16_t>((offset + alignment - 1) & ~(alignment - 1));
}
}
