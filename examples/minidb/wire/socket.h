// SPDX-License-Identifier: Apache-2.0
//
// Unix-domain sockets, the one thing that this program does with the operating
// system by itself. Sockets are descriptors, -1 when absent.
#ifndef MINIDB_SOCKET_H
#define MINIDB_SOCKET_H

#include <stdint.h>

namespace minidb {

// A socket that accepts clients, of this user alone, at a path that a dead server
// may have left. -1 on failure, which is reported, also if a server is there.
int listenAt(const char *path);

// -1 on failure, which is reported.
int connectTo(const char *path);

void closeSocket(int socket);

// The other side of a connection. The context of the channels below.
struct Peer {
  int socket;
  int32_t waitMs;  // how long sending may make no progress
};

// The channel of an output buffer.
int32_t sendToPeer(void *peer, const void *data, uint32_t length);

// The channels of an input buffer. The plain one waits as long as sending.
int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered);
int32_t receiveInTime(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered,
                      uint32_t waitMs);

// Receives what is there, without waiting. 0, also when nothing is, or a status.
int32_t receiveNow(int socket, void *buffer, uint32_t capacity, uint32_t *delivered);

}  // namespace minidb

#endif
