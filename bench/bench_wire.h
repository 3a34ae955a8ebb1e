// SPDX-License-Identifier: Apache-2.0
//
// The channel of the typed buffers that are measured, a copy to or from memory, and
// what goes over it: integers, or strings of 16 characters, 4000 bytes either way.
#ifndef BENCH_BENCH_WIRE_H
#define BENCH_BENCH_WIRE_H

#include <stdint.h>
#include <string.h>

constexpr int32_t kIntegers = 1000;
constexpr int32_t kStrings = 200;
constexpr uint32_t kWireBytes = 4000;

inline char wireString[] = "sixteen letters!";
inline char wire[5000];

inline int32_t writeWire(void *, const void *data, uint32_t length) {
  memcpy(wire, data, length);
  return 0;
}

// Delivers whole items, over and over.
inline int32_t readWire(void *, void *buffer, uint32_t, uint32_t *delivered) {
  memcpy(buffer, wire, kWireBytes);
  *delivered = kWireBytes;
  return 0;
}

#endif
