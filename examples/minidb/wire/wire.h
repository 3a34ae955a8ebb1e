// SPDX-License-Identifier: Apache-2.0
//
// What goes between a client and a session, over a Unix-domain socket, which libzov does
// not have: to a server, or to a thread of the client's own. It is in the encoding of
// libzov's typed buffers and in the machine's order of bytes, since both are on one
// machine. A string is its length and its bytes.
//
//   request   int32  kRequest
//             int32  line   \  where the query stands in what the user wrote,
//             int32  column /  both from 1 to kMaxPosition
//             string query, of at most kMaxRequestBytes
//
//   reply     char 'R', 'N' or 'E', string    items, of Item, any number
//             char 'D', char                  the end and how it went, of Ending
//
//   int32 kInterrupt, while a reply is under way, ends the statement that runs
//
// A client sends the next request when it has the whole reply.
#ifndef MINIDB_WIRE_H
#define MINIDB_WIRE_H

#include "engine/engine.h"

namespace minidb {

constexpr int32_t kRequest = 0x6d646233;  // changes with the protocol
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

// A socket that is connected to a server, or that accepts clients, of this user alone, at
// a path where the caller keeps other servers out: a socket that is there was left by a
// dead one. -1 with a problem().
int openSocket(const char *path, bool listens);

// The other side of a connection. The context of the channels below.
struct Peer {
  int socket;
  int32_t silentMs;                     // how long it may be silent, -1 for ever,
  int32_t deafMs;                       // and not read
  const std::atomic<bool> *isStopping;  // whether statements are to end, or null
};

// The channels of an output buffer and of an input buffer.
int32_t sendToPeer(void *peer, const void *data, uint32_t length);
int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered);

// Ends the statement that runs for this side of a connection. For signal handlers too.
void interruptPeer(int socket);

// Has a session of the database answer a client until it leaves.
void serve(Database &database, Peer &peer);

}  // namespace minidb

#endif
