// SPDX-License-Identifier: Apache-2.0
#include "client/client.h"

#include "engine/report.h"

namespace minidb {

namespace {

constexpr int32_t kPauseMs = 10000;  // the longest pause within a reply

bool broken(int32_t status) {
  const char *why = "the connection to the server broke";
  if (status == kChannelTimeout) {
    why = "the server does not answer";
  } else if (status == kBadItem) {
    why = "what answers is no minidb server";
  }
  zov_log_err("minidb: %s.\n", why);
  return false;
}

// Receives the next item. Sets `ended` and whether all succeeded with the last one.
int32_t getItem(Client &client, Item &item, bool &ended, bool &succeeded) {
  char kind = 0;
  int32_t status = zov_inputBuffGetChar(client.in, &kind);
  if (status != 0) {
    return status;
  }
  if (kind == kDone) {
    ended = true;
    status = zov_inputBuffGetChar(client.in, &kind);
    succeeded = status == 0 && kind == 1;
    return status;
  }
  item = static_cast<Item>(kind);
  if (item != Item::kRow && item != Item::kNote && item != Item::kError) {
    return kBadItem;
  }
  return getText(client.in, client.text, client.tag, UINT32_MAX - 1);
}

int32_t getMark(Client &client) {
  int32_t mark = 0;
  const int32_t status =
      zov_inputBuffGetInt32Timeout(client.in, &mark, static_cast<uint32_t>(client.waitMs));
  return status == 0 && mark != kMark ? static_cast<int32_t>(kBadItem) : status;
}

}  // namespace

bool openClient(Client &client, const char *path, int32_t waitMs) {
  client = {};
  client.waitMs = waitMs;
  client.peer = {connectTo(path), kPauseMs};
  client.tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  if (client.peer.socket >= 0 && client.tag != ZOV_NO_TAG &&
      zov_outputBuffCreate(sendToPeer, &client.peer, 0, &client.out) == 0 &&
      zov_inputBuffCreate(receiveFromPeer, receiveInTime, &client.peer, 0, &client.in) == 0) {
    return true;
  }
  closeClient(client);
  return false;
}

void closeClient(Client &client) {
  zov_inputBuffDestroy(client.in);
  zov_outputBuffDestroy(client.out);
  zov_freeTagMemory(client.tag, 1);
  closeSocket(client.peer.socket);
}

bool ask(Client &client, const Request &request, Output output, void *outputContext) {
  int32_t status = putRequest(client.out, request);
  if (status == 0) {
    status = getMark(client);
  }
  bool ended = false;
  bool succeeded = false;
  while (status == 0 && !ended) {
    Item item = Item::kRow;
    status = getItem(client, item, ended, succeeded);
    if (status == 0 && !ended) {
      output(outputContext, item, textOf(client.text));
    }
  }
  return status == 0 ? succeeded : broken(status);
}

}  // namespace minidb
