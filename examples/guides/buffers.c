/* SPDX-License-Identifier: Apache-2.0
 *
 * Sends a record through a channel of bytes and reads it back. The channel is an
 * array here, and a socket in a server. docs/buffers.md walks through it.
 */
#include <string.h>
#include <zov.h>

enum { CHANNEL_ENDED = 1, CHANNEL_FULL = 2 }; /* statuses of our own */

struct channel {
  unsigned char bytes[64];
  uint32_t written;
  uint32_t read;
};

static int32_t take(void *context, const void *data, uint32_t length) {
  struct channel *channel = context;
  if (length > sizeof channel->bytes - channel->written) {
    return CHANNEL_FULL;
  }
  memcpy(channel->bytes + channel->written, data, length);
  channel->written += length;
  return 0;
}

static int32_t deliver(void *context, void *buffer, uint32_t capacity, uint32_t *delivered) {
  struct channel *channel = context;
  const uint32_t left = channel->written - channel->read;
  if (left == 0) {
    return CHANNEL_ENDED;
  }
  *delivered = left < capacity ? left : capacity;
  memcpy(buffer, channel->bytes + channel->read, *delivered);
  channel->read += *delivered;
  return 0;
}

/* The first failure ends the message; nothing is sent before the flush. */
static int32_t sendRecord(ZOV_OUTPUTBUFF out) {
  int32_t status = zov_outputBuffPutInt32(out, 42);
  status = status != 0 ? status : zov_outputBuffPutStringWithLength(out, "Malmö");
  status = status != 0 ? status : zov_outputBuffPutStringWithLength(out, NULL);
  status = status != 0 ? status : zov_outputBuffPutFloat64(out, 12.25);
  return status != 0 ? status : zov_outputBuffFlush(out);
}

static int32_t receiveRecord(ZOV_INPUTBUFF in) {
  int32_t key = 0;
  char name[8];
  char *note = NULL;
  double value = 0;
  int32_t status = zov_inputBuffGetInt32(in, &key);
  status = status != 0 ? status : zov_inputBuffGetStringWithLength(in, name, sizeof name);
  status = status != 0 ? status : zov_inputBuffGetString(in, &note);
  status = status != 0 ? status : zov_inputBuffGetFloat64(in, &value);
  if (status == 0) {
    zov_printf("%d %s %s %.2f\n", key, name, note == NULL ? "without a note" : note, value);
  }
  zov_freeMem(note, ZOV_DEFAULT_TAG);
  return status;
}

static int32_t exchange(ZOV_OUTPUTBUFF out, ZOV_INPUTBUFF in, const struct channel *channel) {
  const int32_t status = sendRecord(out);
  zov_printf("sent %u bytes, status %d\n", channel->written, status);
  return status != 0 ? status : receiveRecord(in);
}

int main(void) {
  static struct channel channel;
  const uint16_t one = 1;
  const int swap = *(const unsigned char *)&one == 1; /* the wire is big-endian */
  ZOV_OUTPUTBUFF out = NULL;
  ZOV_INPUTBUFF in = NULL;
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  int32_t status = zov_outputBuffCreate(take, &channel, swap, &out);
  status = status != 0 ? status : zov_inputBuffCreate(deliver, NULL, &channel, swap, &in);
  status = status != 0 ? status : exchange(out, in, &channel);
  if (status == 0) {
    zov_printf("then status %d\n", receiveRecord(in));
  }
  zov_inputBuffDestroy(in);
  zov_outputBuffDestroy(out);
  zov_term();
  return status == 0 ? 0 : 1;
}
