// SPDX-License-Identifier: Apache-2.0
//
// Byte reversal. Each integer form is one instruction. The float forms reverse
// the bit pattern and never convert: a pattern that is no number in between
// comes back unchanged from the second swap.
#include <bit>

#include "zov.h"

extern "C" {

uint16_t zov_swaporder16(uint16_t value) {
  return __builtin_bswap16(value);
}

uint32_t zov_swaporder32(uint32_t value) {
  return __builtin_bswap32(value);
}

uint64_t zov_swaporder64(uint64_t value) {
  return __builtin_bswap64(value);
}

float zov_swaporderf32(float value) {
  return std::bit_cast<float>(__builtin_bswap32(std::bit_cast<uint32_t>(value)));
}

double zov_swaporderf64(double value) {
  return std::bit_cast<double>(__builtin_bswap64(std::bit_cast<uint64_t>(value)));
}
}
