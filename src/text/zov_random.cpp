// SPDX-License-Identifier: Apache-2.0
//
// Random numbers: the 32-bit Mersenne Twister MT19937 (Matsumoto and Nishimura,
// 1998), one generator for each user. A generator is one block of the default tag;
// it hands out its 624 words of state one by one and makes the next 624 when they
// are used up. Words are stored raw and tempered when drawn, which costs nothing
// beside the call.
//
// There is no lock: a generator belongs to one thread at a time. Only
// zov_randCreate() allocates and may jump; it does so before anything else.
#include <assert.h>

#include "core/zov_make.h"
#include "zov.h"

// The name behind the public handle.
struct RandState {
  const uint32_t *next;  // next word to hand out, within state or at end
  const uint32_t *end;   // of state: kept, since a draw compares with it
  uint32_t state[624];
};

namespace zov {
namespace {

constexpr uint32_t kStateWords = sizeof RandState::state / sizeof(uint32_t);
constexpr uint32_t kShiftWords = 397;
constexpr uint32_t kDefaultSeed = 0x8DF1337C;

// The next value of a word: its top bit and the low bits of the word behind it,
// shifted and folded into the word at a fixed distance.
inline uint32_t twist(uint32_t word, uint32_t following, uint32_t distant) {
  const uint32_t mixed = (word & 0x80000000) | (following & 0x7FFFFFFF);
  return distant ^ (mixed >> 1) ^ ((0 - (mixed & 1)) & 0x9908B0DF);
}

inline uint32_t temper(uint32_t word) {
  word ^= word >> 11;
  word ^= (word << 7) & 0x9D2C5680;
  word ^= (word << 15) & 0xEFC60000;
  return word ^ (word >> 18);
}

// Makes the next 624 words, in runs without branches instead of with indices
// modulo 624, so that the compiler can do several words at once.
[[gnu::noinline]] void zov_randGenerateNumbers(RandState &generator) {
  uint32_t *state = generator.state;
  constexpr uint32_t kWrap = kStateWords - kShiftWords;
  for (uint32_t index = 0; index < kWrap; ++index) {
    state[index] = twist(state[index], state[index + 1], state[index + kShiftWords]);
  }
  for (uint32_t index = kWrap; index < kStateWords - 1; ++index) {
    state[index] = twist(state[index], state[index + 1], state[index - kWrap]);
  }
  state[kStateWords - 1] = twist(state[kStateWords - 1], state[0], state[kShiftWords - 1]);
  generator.next = state;
}

// Apart from its caller, so that a plain draw needs no stack frame.
[[gnu::noinline]] uint32_t drawFirst(RandState &generator) {
  zov_randGenerateNumbers(generator);
  return temper(*generator.next++);
}

inline uint32_t draw(RandState &generator) {
  assert(generator.next <= generator.end);
  if (generator.next == generator.end) [[unlikely]] {
    return drawFirst(generator);
  }
  return temper(*generator.next++);
}

void seedState(RandState &generator, uint32_t seed) {
  uint32_t *state = generator.state;
  state[0] = seed;
  for (uint32_t index = 1; index < kStateWords; ++index) {
    state[index] = 1812433253 * (state[index - 1] ^ (state[index - 1] >> 30)) + index;
  }
  zov_randGenerateNumbers(generator);
}

}  // namespace
}  // namespace zov

extern "C" {

ZOV_RAND zov_randCreate(uint32_t seed) {
  RandState *generator = zov::makeUncleared<RandState>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (generator == nullptr) {
    return nullptr;
  }
  generator->end = generator->state + zov::kStateWords;
  zov::seedState(*generator, seed == 0 ? zov::kDefaultSeed : seed);
  return generator;
}

void zov_randDestroy(ZOV_RAND generator) {
  zov_freeMem(generator, ZOV_DEFAULT_TAG);
}

void zov_randSetSeed(ZOV_RAND generator, uint32_t seed) {
  zov::seedState(*generator, seed);
}

void zov_randResetSeed(ZOV_RAND generator, uint32_t seed) {
  zov::seedState(*generator, seed);
}

// Aligned, since code as short as this costs a tenth more when it lies across two
// lines of the cache.
[[gnu::aligned(64)]] uint32_t zov_randGetNext(ZOV_RAND generator) {
  return zov::draw(*generator);
}

int32_t zov_randGet(ZOV_RAND generator) {
  return static_cast<int32_t>(zov::draw(*generator) & 0x7FFFFFFF);
}

[[gnu::aligned(64)]] uint32_t zov_randGetUInt32(ZOV_RAND generator) {
  return zov::draw(*generator);
}

uint64_t zov_randGetUInt64(ZOV_RAND generator) {
  const uint64_t high = zov::draw(*generator);
  return (high << 32) | zov::draw(*generator);
}

double zov_randGetDouble(ZOV_RAND generator) {
  return zov::draw(*generator) / 4294967295.0;
}
}
