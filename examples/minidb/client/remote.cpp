// SPDX-License-Identifier: Apache-2.0
#include "client/client.h"

namespace minidb {

namespace {

bool broken(const Remote &remote, int32_t status) {
  switch (status) {
    case kChannelTimeout:
      return fail("no answer in %d ms; the statement is under way and may still be carried out",
                  remote.peer.waitMs);
    case kChannelNonsense:
      return fail("what answers is no minidb server");
    default:
      return fail(
          "the connection to the server broke; a statement under way may have been carried out");
  }
}

// Passes a row on piece by piece.
int32_t passRow(Remote &remote, Output &output) {
  char piece[4096];
  int32_t word = 0;
  int32_t status = zov_inputBuffGetInt32(remote.in, &word);
  uint32_t left = static_cast<uint32_t>(word);
  while (status == 0 && left > 0) {
    const uint32_t count = left < sizeof piece ? left : static_cast<uint32_t>(sizeof piece);
    status = zov_inputBuffGetBytes(remote.in, piece, count);
    if (status == 0) {
      putPart(output, {piece, count});
    }
    left -= count;
  }
  endRow(output);
  return status;
}

int32_t passItem(Remote &remote, char kind, Output &output) {
  const Item item = static_cast<Item>(kind);
  if (item == Item::kRow) {
    return passRow(remote, output);
  }
  if (item != Item::kNote && item != Item::kError) {
    return kChannelNonsense;
  }
  char text[kMessageBytes];
  const int32_t status = zov_inputBuffGetStringWithLength(remote.in, text, sizeof text);
  if (status == 0 && output.status == 0) {
    say(output, item, "%s", text);
  }
  return status;
}

int32_t interrupt(Remote &remote) {
  return sendToPeer(&remote.peer, &kInterrupt, sizeof kInterrupt);
}

// Takes the items of a reply up to its ending. Where nobody reads them any more the
// statement is to end.
int32_t passItems(Remote &remote, Output &output, uint8_t &ending) {
  bool gone = false;
  char kind = 0;
  int32_t status = zov_inputBuffGetChar(remote.in, &kind);
  while (status == 0 && kind != kDone) {
    status = passItem(remote, kind, output);
    if (status == 0 && output.status != 0 && !gone) {
      gone = true;
      status = interrupt(remote);
    }
    status = status != 0 ? status : zov_inputBuffGetChar(remote.in, &kind);
  }
  status = status != 0 ? status : zov_inputBuffGetChar(remote.in, &kind);
  ending = static_cast<uint8_t>(kind);
  return status;
}

}  // namespace

bool openRemote(Remote &remote, const char *path, int32_t waitMs) {
  const auto passInterrupt = [](void *context) {
    return !isMarked() || interrupt(*static_cast<Remote *>(context)) == 0;
  };
  remote = {{connectTo(path), waitMs, passInterrupt, &remote}, nullptr, nullptr};
  if (remote.peer.socket < 0) {
    return false;
  }
  if (zov_outputBuffCreate(sendToPeer, &remote.peer, 0, &remote.out) == 0 &&
      zov_inputBuffCreate(receiveInTime, nullptr, &remote.peer, 0, &remote.in) == 0) {
    return true;
  }
  closeRemote(remote);
  return failedAt("connect to", path);
}

void closeRemote(Remote &remote) {
  zov_inputBuffDestroy(remote.in);
  zov_outputBuffDestroy(remote.out);
  closeSocket(remote.peer.socket);
}

bool ask(Remote &remote, const Request &request, Output &output, uint8_t &ending) {
  int32_t status = putRequest(remote.out, request);
  status = status != 0 ? status : passItems(remote, output, ending);
  flushOutput(output);
  return status == 0 || broken(remote, status);
}

}  // namespace minidb
