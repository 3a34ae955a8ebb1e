// SPDX-License-Identifier: Apache-2.0
//
// What goes between a client and the server, over a Unix-domain socket, which libzov
// does not have. It is in the encoding of libzov's typed buffers and in the machine's
// order of bytes, since both are on one machine. A string is its length and its bytes.
//
//   request   int32  kRequest
//             int32  line   \  where the query stands in what the user wrote,
//             int32  column /  both from 1 to kMaxPosition
//             string query, of at most kMaxRequestBytes
//
//   reply     char 'R', 'N' or 'E', string    rows, notes and errors, any number
//             char 'D', char                  the end and how it went, of Ending
//
//   int32 kInterrupt, while a reply is under way, ends the statement that runs
//
// A client sends the next request when it has the whole reply.
#ifndef MINIDB_WIRE_H
#define MINIDB_WIRE_H

#include "engine/session.h"

namespace minidb {

constexpr int32_t kRequest = 0x6d646232;  // changes with the protocol
constexpr int32_t kInterrupt = 0x6d646269;
constexpr int32_t kMaxPosition = 1 << 30;
constexpr uint32_t kMaxRequestBytes = 64 << 20;
constexpr char kDone = 'D';

// Any of these together.
enum Ending : uint8_t {
  kSucceeded = 1,
  kQuits = 2,         // there will be no other reply
  kInTransaction = 4  // one is open
};

// How a query went, and what it left.
uint8_t endingOf(const Session &session, bool succeeded);

// A query with the place of its first character.
struct Request {
  Text query;
  Position position;
};

// Statuses of channels and of what is read from them, beside libzov's.
enum ChannelStatus : int32_t {
  kChannelEnd = 1,   // the other side is gone
  kChannelTimeout,   // it was silent, or did not read, for too long
  kChannelFailed,    // errno says why
  kChannelNonsense,  // what came is not of the protocol
};

// Sends a request. 0 or a status.
int32_t putRequest(ZOV_OUTPUTBUFF out, const Request &request);

// Takes a request, in memory of the tag, which has a recovery point. 0 or a status.
int32_t getRequest(ZOV_INPUTBUFF in, Request &request, ZOV_TAG tag);

// A socket that accepts clients, of this user alone, at a path where the caller keeps
// other servers out: a socket that is there was left by a dead one. -1 on failure, with
// a problem(); so does connectTo().
int listenAt(const char *path);
int connectTo(const char *path);

void closeSocket(int socket);

// The other side of a connection. The context of the channels below.
struct Peer {
  int socket;
  int32_t waitMs;  // how long it may not read, or be silent where that is limited
  bool (*interrupted)(void *context);  // asked when a signal ends a wait, or null
  void *context;
};

// The channel of an output buffer.
int32_t sendToPeer(void *peer, const void *data, uint32_t length);

// The channel of an input buffer, which waits for ever, or only for so long.
int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered);
int32_t receiveInTime(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered);

// Whether kInterrupt waits to be received.
bool isInterrupting(int socket);

}  // namespace minidb

#endif
