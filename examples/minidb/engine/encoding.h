// SPDX-License-Identifier: Apache-2.0
//
// Texts in libzov's typed buffers, and channels for these over memory. Entries
// of a data file and messages to and from a server are made of both.
#ifndef MINIDB_ENCODING_H
#define MINIDB_ENCODING_H

#include "engine/buffer.h"

namespace minidb {

// Statuses of this program's channels, which typed buffers pass on.
enum ChannelStatus : int32_t {
  kChannelEnd = 1,      // nothing more comes
  kChannelFailed = 2,   // it cannot be read or written
  kChannelTimeout = 3,  // nothing came in time
  kBadItem = 4,         // what came is not what is expected
};

// Where an output buffer puts bytes that stay in memory. The context of
// appendToSink().
struct Sink {
  Buffer *buffer;
  ZOV_TAG tag;
};

// A channel of an output buffer.
int32_t appendToSink(void *sink, const void *data, uint32_t length);

// Bytes in memory that an input buffer reads. The context of readFromSource().
struct Source {
  const char *bytes;
  uint64_t length;
};

// A channel of an input buffer.
int32_t readFromSource(void *source, void *buffer, uint32_t capacity, uint32_t *delivered);

// Puts a text as a string with length, which may hold any bytes. 0 or a status
// of the channel.
int32_t putText(ZOV_OUTPUTBUFF out, Text text);

// Gets a string with length into a buffer, in place of what is there, with a NUL
// behind it. 0, a status of the channel, ZOV_BUFF_NOMEMORY, or kBadItem for one
// longer than the limit.
int32_t getText(ZOV_INPUTBUFF in, Buffer &text, ZOV_TAG tag, uint32_t limit);

}  // namespace minidb

#endif
