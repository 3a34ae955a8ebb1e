// SPDX-License-Identifier: Apache-2.0
//
// What goes between a client and the server, in the encoding of libzov's typed
// buffers and in the machine's order of bytes, since both are on one machine.
//
//   request   int32  mark
//             int32  bytes of what follows
//             int32  line   \  where the query stands in what the user wrote
//             int32  column /
//             string query
//
//   reply     int32  mark
//             char 'R', 'N' or 'E', string    rows, notes and errors, any number
//             char 'D', char                  the end; 1 if every statement succeeded
//
// A request tells its length so that the server need not wait for the rest of one.
// A client sends the next request when it has the whole reply.
#ifndef MINIDB_PROTOCOL_H
#define MINIDB_PROTOCOL_H

#include "engine/encoding.h"
#include "engine/session.h"

namespace minidb {

constexpr int32_t kMark = 0x6d646231;  // changes with the protocol
constexpr uint32_t kHeadBytes = 8;
constexpr uint32_t kMaxRequestBytes = kMaxKeyBytes + kMaxValueBytes + 1024;
constexpr char kDone = 'D';

// A query with the place of its first character.
struct Request {
  Text query;
  int32_t line;
  int32_t column;
};

// Sends a request. 0 or a status of the channel.
int32_t putRequest(ZOV_OUTPUTBUFF out, const Request &request);

// Of the bytes that have come from a client, those of the first request, 0 when it
// has not come whole, or UINT32_MAX when it is none.
uint32_t wholeRequest(Text received);

// Takes such a request apart; the query is put into `text`. False when it is none.
bool getRequest(Text received, Buffer &text, ZOV_TAG tag, Request &request);

}  // namespace minidb

#endif
