// SPDX-License-Identifier: Apache-2.0
//
// A client of the server.
#ifndef MINIDB_CLIENT_H
#define MINIDB_CLIENT_H

#include "wire/protocol.h"
#include "wire/socket.h"

namespace minidb {

// Must not move while it is open. One thread at a time.
struct Client {
  Peer peer;
  ZOV_OUTPUTBUFF out;
  ZOV_INPUTBUFF in;
  ZOV_TAG tag;
  Buffer text;  // of the item received last
  int32_t waitMs;
};

// Connects to the server at a path, whose replies may take so long to begin.
// False on failure, which is reported; nothing is owed then.
bool openClient(Client &client, const char *path, int32_t waitMs);

void closeClient(Client &client);

// Has the server run a query and outputs its reply. False when a statement failed,
// and when the server does not answer as it should, which is reported.
bool ask(Client &client, const Request &request, Output output, void *outputContext);

}  // namespace minidb

#endif
