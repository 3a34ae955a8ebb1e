// SPDX-License-Identifier: Apache-2.0
#include "engine/encoding.h"

namespace minidb {

int32_t appendToSink(void *sink, const void *data, uint32_t length) {
  const Sink &to = *static_cast<const Sink *>(sink);
  return appendBytes(*to.buffer, to.tag, data, length) ? 0 : ZOV_BUFF_NOMEMORY;
}

int32_t readFromSource(void *source, void *buffer, uint32_t capacity, uint32_t *delivered) {
  Source &from = *static_cast<Source *>(source);
  if (from.length == 0) {
    return kChannelEnd;
  }
  const uint32_t count = from.length < capacity ? static_cast<uint32_t>(from.length) : capacity;
  memcpy(buffer, from.bytes, count);
  from.bytes += count;
  from.length -= count;
  *delivered = count;
  return 0;
}

int32_t putText(ZOV_OUTPUTBUFF out, Text text) {
  const int32_t status = zov_outputBuffPutInt32(out, static_cast<int32_t>(text.length));
  return status != 0 ? status : zov_outputBuffPutBytes(out, text.bytes, text.length);
}

int32_t getText(ZOV_INPUTBUFF in, Buffer &text, ZOV_TAG tag, uint32_t limit) {
  int32_t word = 0;
  const int32_t status = zov_inputBuffGetInt32(in, &word);
  if (status != 0) {
    return status;
  }
  const uint32_t length = static_cast<uint32_t>(word);
  if (length > limit) {
    return kBadItem;
  }
  if (!reserveBytes(text, tag, uint64_t{length} + 1)) {
    return ZOV_BUFF_NOMEMORY;
  }
  text.length = length;
  text.bytes[length] = '\0';
  return zov_inputBuffGetBytes(in, text.bytes, length);
}

}  // namespace minidb
