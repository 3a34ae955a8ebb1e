// SPDX-License-Identifier: Apache-2.0
#include "wire/protocol.h"

namespace minidb {

namespace {

constexpr uint32_t kPlaceBytes = 4 + 4;

// Takes the head off, where an input buffer would wait for more.
struct Head {
  int32_t mark;
  uint32_t bytes;
};

Head headOf(Text received) {
  Head head;
  static_assert(sizeof head == kHeadBytes);
  memcpy(&head, received.bytes, sizeof head);
  return head;
}

bool getFields(ZOV_INPUTBUFF in, Buffer &text, ZOV_TAG tag, Request &request) {
  if (zov_inputBuffGetInt32(in, &request.line) != 0 ||
      zov_inputBuffGetInt32(in, &request.column) != 0 ||
      getText(in, text, tag, kMaxRequestBytes) != 0) {
    return false;
  }
  request.query = textOf(text);
  return true;
}

}  // namespace

int32_t putRequest(ZOV_OUTPUTBUFF out, const Request &request) {
  const uint32_t bytes = kPlaceBytes + 4 + request.query.length;
  int32_t status = zov_outputBuffPutInt32(out, kMark);
  if (status == 0) {
    status = zov_outputBuffPutInt32(out, static_cast<int32_t>(bytes));
  }
  if (status == 0) {
    status = zov_outputBuffPutInt32(out, request.line);
  }
  if (status == 0) {
    status = zov_outputBuffPutInt32(out, request.column);
  }
  if (status == 0) {
    status = putText(out, request.query);
  }
  return status != 0 ? status : zov_outputBuffFlush(out);
}

uint32_t wholeRequest(Text received) {
  if (received.length < kHeadBytes) {
    return 0;
  }
  const Head head = headOf(received);
  if (head.mark != kMark || head.bytes > kMaxRequestBytes) {
    return UINT32_MAX;
  }
  const uint32_t whole = kHeadBytes + head.bytes;
  return received.length >= whole ? whole : 0;
}

bool getRequest(Text received, Buffer &text, ZOV_TAG tag, Request &request) {
  const uint32_t bytes = headOf(received).bytes;
  Source source = {received.bytes + kHeadBytes, bytes};
  ZOV_INPUTBUFF in = nullptr;
  if (zov_inputBuffCreate(readFromSource, nullptr, &source, 0, &in) != 0) {
    return false;
  }
  const bool whole =
      getFields(in, text, tag, request) && request.query.length == bytes - kPlaceBytes - 4;
  zov_inputBuffDestroy(in);
  return whole;
}

}  // namespace minidb
