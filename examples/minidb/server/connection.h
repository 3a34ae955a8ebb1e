// SPDX-License-Identifier: Apache-2.0
//
// The server's side of a client.
#ifndef MINIDB_CONNECTION_H
#define MINIDB_CONNECTION_H

#include "wire/protocol.h"
#include "wire/socket.h"

namespace minidb {

// While it is busy a connection belongs to the worker that answers its request,
// else to the thread that accepts clients.
struct Connection {
  Connection *next;
  Peer peer;
  ZOV_TAG tag;      // of all its memory, its own included
  Buffer received;  // from the start of a request
  Buffer query;
  Buffer reply;
  Sink sink;
  ZOV_OUTPUTBUFF encoder;  // fills the reply
  Session session;
  bool busy;
  bool failed;  // only to be closed
};

// Null when memory is missing; the socket is the caller's still then.
Connection *openConnection(Peer peer, Database &database);

void closeConnection(Connection *connection);

// Receives what is there, as far as the request goes. A client that is gone or
// sends what is no request makes the connection fail.
void receiveSome(Connection &connection);

// Whether a request has come whole. One that is none makes the connection fail.
bool hasRequest(Connection &connection);

// Runs the request that has come, sends the reply, and drops both.
void answerRequest(Connection &connection);

}  // namespace minidb

#endif
