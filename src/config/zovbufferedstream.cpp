// SPDX-License-Identifier: Apache-2.0
//
// Typed buffers over a byte channel that the caller supplies as callbacks. An
// input buffer pulls bytes and decodes them, an output buffer encodes and pushes.
// Each is one block of the default tag, its record in front of its 5000 bytes:
//
//   input:   | handed out | buffered          |            |
//            0            position            filled       capacity
//   output:  | waiting to be sent             |            |
//            0                                used         capacity
//
// A value that lies whole in the buffer is copied straight out of it or into it;
// one across its end takes the loops that refill and flush. Bytes of a value taken
// before a callback failed stay taken, in both directions.
//
// There is no lock: a buffer belongs to one thread at a time. Callbacks run with
// no lock held and jumps allowed. Creating a buffer and zov_inputBuffGetString()
// allocate and may jump; the latter then leaves the stream behind the length or
// further on.
#include <assert.h>
#include <string.h>

#include <algorithm>

#include "core/zov_make.h"
#include "core/zovmem_private.h"

namespace zov {
namespace {

constexpr uint32_t kCapacity = 5000;

// The most that is allocated for a string before any of its text has arrived.
constexpr uint64_t kFirstText = 65536;

// The length of a null string on the wire.
constexpr uint32_t kNullLength = UINT32_MAX;

// The most that one direct write carries: the callback counts in 32 bits.
constexpr uint64_t kLargestWrite = UINT32_MAX;

}  // namespace
}  // namespace zov

// 1. position <= filled <= kCapacity.
// 2. Both are 0 after a failed refill: all bytes before it were handed out.
struct InputBuffer {
  ZOV_BUFF_READ read;
  ZOV_BUFF_TIMED_READ timedRead;  // or null
  void *context;
  uint32_t filled;    // bytes delivered by the last callback
  uint32_t position;  // next byte to hand out
  bool swap;
  char buffer[zov::kCapacity];
};

// used <= kCapacity.
struct OutputBuffer {
  ZOV_BUFF_WRITE write;
  void *context;
  uint32_t used;
  bool swap;
  char buffer[zov::kCapacity];
};

namespace zov {
namespace {

// zov_swaporder16() and its like without the call.
uint16_t swapped(uint16_t value) {
  return __builtin_bswap16(value);
}
uint32_t swapped(uint32_t value) {
  return __builtin_bswap32(value);
}
uint64_t swapped(uint64_t value) {
  return __builtin_bswap64(value);
}

// Gets the next bytes from the channel, which counts in a variable of this frame: a
// channel that fails half-way, or claims more than the buffer holds, leaves the
// record in order.
int32_t refill(InputBuffer &input, uint32_t waitMs) {
  uint32_t delivered = 0;
  const int32_t status =
      waitMs != 0 && input.timedRead != nullptr
          ? input.timedRead(input.context, input.buffer, kCapacity, &delivered, waitMs)
          : input.read(input.context, input.buffer, kCapacity, &delivered);
  input.filled = status == 0 ? std::min(delivered, kCapacity) : 0;
  input.position = 0;
  return status;
}

// Reads bytes, or drops them when there is no destination. Asks a channel that
// delivers nothing again: only the callbacks know an end or a time-out.
[[gnu::noinline]] int32_t inputBuffGetTimeout(InputBuffer &input, void *destination, uint64_t count,
                                              uint32_t waitMs) {
  char *place = static_cast<char *>(destination);
  while (count > 0) {
    assert(input.position <= input.filled && input.filled <= kCapacity);
    if (input.position == input.filled) {
      const int32_t status = refill(input, waitMs);
      if (status != 0) {
        return status;
      }
    }
    const uint64_t taken = std::min<uint64_t>(count, input.filled - input.position);
    if (place != nullptr) {
      memcpy(place, input.buffer + input.position, taken);
      place += taken;
    }
    input.position += static_cast<uint32_t>(taken);
    count -= taken;
  }
  return 0;
}

int32_t inputBuffGet(InputBuffer &input, void *destination, uint64_t count) {
  return inputBuffGetTimeout(input, destination, count, 0);
}

// Reads an integer of the wire. The place is written only when it arrived whole.
template <typename Integer>
inline int32_t getInteger(InputBuffer &input, Integer &place, uint32_t waitMs = 0) {
  Integer value;
  assert(input.position <= input.filled && input.filled <= kCapacity);
  if (input.filled - input.position >= sizeof value) [[likely]] {
    memcpy(&value, input.buffer + input.position, sizeof value);
    input.position += static_cast<uint32_t>(sizeof value);
  } else {
    const int32_t status = inputBuffGetTimeout(input, &value, sizeof value, waitMs);
    if (status != 0) {
      return status;
    }
  }
  place = input.swap ? swapped(value) : value;
  return 0;
}

// As getInteger(), into a value of the same size. A float is swapped as an integer,
// since a signalling pattern might not survive as a number.
template <typename Integer, typename Value>
inline int32_t getValue(InputBuffer &input, Value *place, uint32_t waitMs = 0) {
  static_assert(sizeof(Integer) == sizeof(Value));
  Integer value;
  const int32_t status = getInteger(input, value, waitMs);
  if (status == 0) {
    memcpy(place, &value, sizeof value);
  }
  return status;
}

// Reads a text of which size - 1 bytes fit, in front of a NUL. With a size of 0
// nothing fits, not even an empty text.
int32_t getText(InputBuffer &input, char *buffer, uint64_t size, uint64_t length) {
  const uint64_t kept = size == 0 ? 0 : std::min(size - 1, length);
  int32_t status = inputBuffGet(input, buffer, kept);
  if (size > 0) {
    buffer[status == 0 ? kept : 0] = '\0';
  }
  if (status != 0 || (size > 0 && kept == length)) {
    return status;
  }
  status = inputBuffGet(input, nullptr, length - kept);
  return status == 0 ? ZOV_BUFF_TRUNCATED : status;
}

// Grows the block of a string. Without memory the block is released, before the jump
// if there is one.
char *growText(char *block, uint64_t size) {
  char *grown = nullptr;
  workOrJump(
      ZOV_DEFAULT_TAG,
      [&] {
        grown = static_cast<char *>(zov_extendMem(block, size, ZOV_DEFAULT_TAG, 0, 0, ZOV_HERE));
        return grown != nullptr;
      },
      [&] { zov_freeMem(block, ZOV_DEFAULT_TAG); });
  if (grown == nullptr) {
    zov_freeMem(block, ZOV_DEFAULT_TAG);
  }
  return grown;
}

// Reads a text into a block of its own. The length is the sender's word, so the
// block doubles only when it is full.
int32_t getTextBlock(InputBuffer &input, uint64_t length, char **text) {
  uint64_t size = std::min(length + 1, kFirstText);
  uint64_t arrived = 0;
  char *block = makeArray<char>(size, ZOV_DEFAULT_TAG, ZOV_HERE);
  while (block != nullptr) {
    const uint64_t wanted = std::min(size, length) - arrived;
    const int32_t status = inputBuffGet(input, block + arrived, wanted);
    if (status != 0) {
      zov_freeMem(block, ZOV_DEFAULT_TAG);
      return status;
    }
    arrived += wanted;
    if (size > length) {
      block[length] = '\0';
      *text = block;
      return 0;
    }
    size = std::min(2 * size, length + 1);
    block = growText(block, size);
  }
  return ZOV_BUFF_NOMEMORY;
}

// On failure the bytes wait for another attempt.
int32_t outBuffFlush(OutputBuffer &output) {
  if (output.used == 0) {
    return 0;
  }
  const int32_t status = output.write(output.context, output.buffer, output.used);
  if (status == 0) {
    output.used = 0;
  }
  return status;
}

// Writes bytes. A full buffer is sent when the next byte comes, not before.
[[gnu::noinline]] int32_t outBuffPut(OutputBuffer &output, const void *source, uint64_t count) {
  const char *place = static_cast<const char *>(source);
  while (count > 0) {
    assert(output.used <= kCapacity);
    if (output.used == kCapacity) {
      const int32_t status = outBuffFlush(output);
      if (status != 0) {
        return status;
      }
    }
    const uint64_t taken = std::min<uint64_t>(count, kCapacity - output.used);
    memcpy(output.buffer + output.used, place, taken);
    output.used += static_cast<uint32_t>(taken);
    place += taken;
    count -= taken;
  }
  return 0;
}

template <typename Integer>
inline int32_t putInteger(OutputBuffer &output, Integer value) {
  const Integer sent = output.swap ? swapped(value) : value;
  assert(output.used <= kCapacity);
  if (kCapacity - output.used < sizeof sent) [[unlikely]] {
    return outBuffPut(output, &sent, sizeof sent);
  }
  memcpy(output.buffer + output.used, &sent, sizeof sent);
  output.used += static_cast<uint32_t>(sizeof sent);
  return 0;
}

template <typename Integer, typename Value>
inline int32_t putValue(OutputBuffer &output, Value value) {
  static_assert(sizeof(Integer) == sizeof(Value));
  Integer bits;
  memcpy(&bits, &value, sizeof bits);
  return putInteger(output, bits);
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_inputBuffCreate(ZOV_BUFF_READ read, ZOV_BUFF_TIMED_READ timedRead, void *context,
                            int32_t swap, ZOV_INPUTBUFF *handle) {
  *handle = nullptr;
  InputBuffer *input = zov::make<InputBuffer>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (input == nullptr) {
    return ZOV_BUFF_NOMEMORY;
  }
  input->read = read;
  input->timedRead = timedRead;
  input->context = context;
  input->swap = swap != 0;
  *handle = input;
  return 0;
}

void zov_inputBuffDestroy(ZOV_INPUTBUFF handle) {
  zov_freeMem(handle, ZOV_DEFAULT_TAG);
}

int32_t zov_inputBuffGetChar(ZOV_INPUTBUFF handle, char *place) {
  if (handle->position == handle->filled) {
    return zov::inputBuffGet(*handle, place, 1);
  }
  *place = handle->buffer[handle->position++];
  return 0;
}

int32_t zov_inputBuffGetInt16(ZOV_INPUTBUFF handle, int16_t *place) {
  return zov::getValue<uint16_t>(*handle, place);
}

int32_t zov_inputBuffGetInt32(ZOV_INPUTBUFF handle, int32_t *place) {
  return zov::getValue<uint32_t>(*handle, place);
}

int32_t zov_inputBuffGetInt64(ZOV_INPUTBUFF handle, int64_t *place) {
  return zov::getValue<uint64_t>(*handle, place);
}

int32_t zov_inputBuffGetFloat32(ZOV_INPUTBUFF handle, float *place) {
  return zov::getValue<uint32_t>(*handle, place);
}

int32_t zov_inputBuffGetFloat64(ZOV_INPUTBUFF handle, double *place) {
  return zov::getValue<uint64_t>(*handle, place);
}

int32_t zov_inputBuffGetInt32Timeout(ZOV_INPUTBUFF handle, int32_t *place, uint32_t waitMs) {
  return zov::getValue<uint32_t>(*handle, place, waitMs);
}

int32_t zov_inputBuffGetStringWithLength(ZOV_INPUTBUFF handle, char *buffer, uint64_t size) {
  uint32_t length = 0;
  const int32_t status = zov::getInteger(*handle, length);
  if (status != 0) {
    return status;
  }
  return zov::getText(*handle, buffer, size, length == zov::kNullLength ? 0 : length);
}

int32_t zov_inputBuffGetString(ZOV_INPUTBUFF handle, char **text) {
  *text = nullptr;
  uint32_t length = 0;
  const int32_t status = zov::getInteger(*handle, length);
  return status != 0 || length == zov::kNullLength ? status
                                                   : zov::getTextBlock(*handle, length, text);
}

int32_t zov_inputBuffGetBytes(ZOV_INPUTBUFF handle, void *destination, uint64_t count) {
  return zov::inputBuffGet(*handle, destination, count);
}

void zov_inputBuffReset(ZOV_INPUTBUFF handle) {
  handle->filled = 0;
  handle->position = 0;
}

int32_t zov_outputBuffCreate(ZOV_BUFF_WRITE write, void *context, int32_t swap,
                             ZOV_OUTPUTBUFF *handle) {
  *handle = nullptr;
  OutputBuffer *output = zov::makeUncleared<OutputBuffer>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (output == nullptr) {
    return ZOV_BUFF_NOMEMORY;
  }
  output->write = write;
  output->context = context;
  output->used = 0;
  output->swap = swap != 0;
  *handle = output;
  return 0;
}

void zov_outputBuffDestroy(ZOV_OUTPUTBUFF handle) {
  zov_freeMem(handle, ZOV_DEFAULT_TAG);
}

int32_t zov_outputBuffPutChar(ZOV_OUTPUTBUFF handle, int32_t value) {
  const char byte = static_cast<char>(value);
  return zov::outBuffPut(*handle, &byte, 1);
}

int32_t zov_outputBuffPutInt16(ZOV_OUTPUTBUFF handle, int16_t value) {
  return zov::putValue<uint16_t>(*handle, value);
}

int32_t zov_outputBuffPutInt32(ZOV_OUTPUTBUFF handle, int32_t value) {
  return zov::putValue<uint32_t>(*handle, value);
}

int32_t zov_outputBuffPutInt64(ZOV_OUTPUTBUFF handle, int64_t value) {
  return zov::putValue<uint64_t>(*handle, value);
}

int32_t zov_outputBuffPutFloat32(ZOV_OUTPUTBUFF handle, float value) {
  return zov::putValue<uint32_t>(*handle, value);
}

int32_t zov_outputBuffPutFloat64(ZOV_OUTPUTBUFF handle, double value) {
  return zov::putValue<uint64_t>(*handle, value);
}

int32_t zov_outputBuffPutString(ZOV_OUTPUTBUFF handle, const char *text) {
  return zov::outBuffPut(*handle, text, strlen(text));
}

int32_t zov_outputBuffPutStringWithLength(ZOV_OUTPUTBUFF handle, const char *text) {
  if (text == nullptr) {
    return zov::putInteger(*handle, zov::kNullLength);
  }
  const uint64_t length = strlen(text);
  if (length >= zov::kNullLength) {
    return ZOV_BUFF_TRUNCATED;
  }
  const int32_t status = zov::putInteger(*handle, static_cast<uint32_t>(length));
  return status == 0 ? zov::outBuffPut(*handle, text, length) : status;
}

int32_t zov_outputBuffPutBytes(ZOV_OUTPUTBUFF handle, const void *data, uint64_t count) {
  return zov::outBuffPut(*handle, data, count);
}

int32_t zov_outputBuffFlush(ZOV_OUTPUTBUFF handle) {
  return zov::outBuffFlush(*handle);
}

int32_t zov_outputBuffSendDirect(ZOV_OUTPUTBUFF handle, const void *data, uint64_t count) {
  if (count == 0) {
    return 0;
  }
  int32_t status = zov::outBuffFlush(*handle);
  const char *place = static_cast<const char *>(data);
  while (status == 0 && count > 0) {
    const uint64_t sent = std::min(count, zov::kLargestWrite);
    status = handle->write(handle->context, place, static_cast<uint32_t>(sent));
    place += sent;
    count -= sent;
  }
  return status;
}
}
