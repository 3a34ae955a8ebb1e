// SPDX-License-Identifier: Apache-2.0
//
// A reply collects in memory and is sent when the database is free for others
// again, so that a client that does not read keeps nobody waiting but its worker,
// and that for a limited time.
#include "server/connection.h"

#include "engine/query.h"

namespace minidb {

namespace {

constexpr uint32_t kReceiveBytes = 16 * 1024;
constexpr uint32_t kKeptBytes = 1024 * 1024;  // of buffers between requests

void putItem(void *context, Item item, Text line) {
  Connection &connection = *static_cast<Connection *>(context);
  if (zov_outputBuffPutChar(connection.encoder, static_cast<char>(item)) != 0 ||
      putText(connection.encoder, line) != 0) {
    connection.failed = true;
  }
}

bool encodeReply(Connection &connection, const Request &request) {
  ZOV_OUTPUTBUFF out = connection.encoder;
  if (zov_outputBuffPutInt32(out, kMark) != 0) {
    return false;
  }
  const bool succeeded =
      runQuery(connection.session, request.query, {request.line, request.column});
  return !connection.failed && zov_outputBuffPutChar(out, kDone) == 0 &&
         zov_outputBuffPutChar(out, succeeded ? 1 : 0) == 0 && zov_outputBuffFlush(out) == 0;
}

void dropBytes(Buffer &buffer, uint32_t count) {
  buffer.length -= count;
  memmove(buffer.bytes, buffer.bytes + count, buffer.length);
}

// What one large request or reply took is not kept for as long as the client stays.
void shrink(Buffer &buffer, ZOV_TAG tag) {
  if (buffer.length == 0 && buffer.capacity > kKeptBytes) {
    zov_freeMem(buffer.bytes, tag);
    buffer = {};
  }
}

}  // namespace

Connection *openConnection(Peer peer, Database &database) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  Connection *connection = static_cast<Connection *>(
      zov_getMem(sizeof(Connection), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (connection != nullptr) {
    connection->peer = peer;
    connection->tag = tag;
    connection->sink = {&connection->reply, tag};
    connection->session = {&database, putItem, connection, nullptr, false};
    if (zov_outputBuffCreate(appendToSink, &connection->sink, 0, &connection->encoder) == 0) {
      return connection;
    }
  }
  zov_freeTagMemory(tag, 1);
  return nullptr;
}

void closeConnection(Connection *connection) {
  endSession(connection->session);
  zov_outputBuffDestroy(connection->encoder);
  closeSocket(connection->peer.socket);
  zov_freeTagMemory(connection->tag, 1);
}

void receiveSome(Connection &connection) {
  Buffer &received = connection.received;
  uint32_t count = 0;
  if (!reserveBytes(received, connection.tag, uint64_t{received.length} + kReceiveBytes) ||
      receiveNow(connection.peer.socket, received.bytes + received.length, kReceiveBytes, &count) !=
          0) {
    connection.failed = true;
  }
  received.length += count;
}

bool hasRequest(Connection &connection) {
  const uint32_t bytes = wholeRequest(textOf(connection.received));
  if (bytes == UINT32_MAX) {
    zov_log_err("minidb-server: a client sent what is no request.\n");
    connection.failed = true;
    return false;
  }
  return bytes != 0;
}

void answerRequest(Connection &connection) {
  const Text received = textOf(connection.received);
  const uint32_t bytes = wholeRequest(received);
  Request request;
  if (!getRequest(received, connection.query, connection.tag, request) ||
      !encodeReply(connection, request) ||
      sendToPeer(&connection.peer, connection.reply.bytes, connection.reply.length) != 0) {
    connection.failed = true;
    return;
  }
  dropBytes(connection.received, bytes);
  connection.query.length = 0;
  connection.reply.length = 0;
  shrink(connection.received, connection.tag);
  shrink(connection.query, connection.tag);
  shrink(connection.reply, connection.tag);
}

}  // namespace minidb
