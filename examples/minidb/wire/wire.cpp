// SPDX-License-Identifier: Apache-2.0
#include "wire/wire.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace minidb {

namespace {

constexpr int kBacklog = 64;

bool isPlace(int32_t number) {
  return number >= 1 && number <= kMaxPosition;
}

// Whether a call on a socket may be tried again; not at once where memory is short.
bool mayTryAgain() {
  if (errno == ENOMEM || errno == ENOBUFS) {
    zov_sleep(10);
    return true;
  }
  return errno == EAGAIN || errno == EINTR;
}

// What follows a call on a socket that failed: a wait until it can do what is asked, for
// ever when the limit is -1. A status unless it may be tried again.
int32_t await(const Peer &peer, short what, int32_t waitMs) {
  if (!mayTryAgain()) {
    return kChannelFailed;
  }
  pollfd waited = {peer.socket, what, 0};
  const int ready = poll(&waited, 1, waitMs);
  return ready == 0                   ? static_cast<int32_t>(kChannelTimeout)
         : ready > 0 || mayTryAgain() ? 0
                                      : static_cast<int32_t>(kChannelFailed);
}

// --- A session -----------------------------------------------------------

// Whether a statement is to go on.
bool step(void *context) {
  const Peer &peer = *static_cast<const Peer *>(context);
  int32_t next = 0;
  return (peer.isStopping == nullptr || !*peer.isStopping) &&
         !(recv(peer.socket, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) ==
               static_cast<ssize_t>(sizeof next) &&
           next == kInterrupt);
}

// Receives just so many bytes: behind a request step() looks for an interrupt.
int32_t receiveAll(Peer &peer, void *bytes, uint32_t length) {
  char *at = static_cast<char *>(bytes);
  int32_t status = 0;
  while (status == 0 && length > 0) {
    uint32_t count = 0;
    status = receiveFromPeer(&peer, at, length, &count);
    at += count;
    length -= count;
  }
  return status;
}

// Takes a request, in memory of the tag, which has a recovery point. 0 or a status.
int32_t getRequest(Peer &peer, Request &request, ZOV_TAG tag) {
  int32_t mark = kInterrupt;
  int32_t head[3] = {};
  int32_t status = 0;
  while (status == 0 && mark == kInterrupt) {  // of a reply that was at its end by then
    status = receiveAll(peer, &mark, sizeof mark);
  }
  if (status == 0 && mark == kRequest) {
    status = receiveAll(peer, head, sizeof head);
  }
  if (status != 0) {
    return status;
  }
  const uint32_t length = static_cast<uint32_t>(head[2]);
  if (!isPlace(head[0]) || !isPlace(head[1]) || length > kMaxRequestBytes) {
    return kChannelNonsense;
  }
  Buffer query = {};
  char *place = makeRoom(query, tag, length);
  place[length] = '\0';
  request = {{place, length}, {head[0], head[1]}};
  return receiveAll(peer, place, length);
}

// Answers the next request. False when there is no other. One for which memory is short
// might be the start of a transaction, so it is the last.
bool answer(Session &session, Peer &peer, ZOV_TAG tag) {
  Request request = {};
  int32_t status = kChannelFailed;
  withRecovery(tag, [&peer, &request, &status, tag] { status = getRequest(peer, request, tag); });
  if (status == 0) {
    const bool succeeded = runQuery(session, request.query, request.position);
    const char end[] = {
        kDone, static_cast<char>((succeeded ? kSucceeded : 0) | (session.quits ? kQuits : 0) |
                                 (session.scope != Scope::kStatement ? kInTransaction : 0))};
    status = session.status;
    status = status != 0 ? status : zov_outputBuffPutBytes(session.out, end, sizeof end);
    status = status != 0 ? status : zov_outputBuffFlush(session.out);
  } else if (status == kChannelNonsense) {
    zov_log_err("minidb-server: a client sent what is no request\n");
  }
  zov_freeTagMemory(tag, 0);
  return status == 0 && !session.quits;
}

}  // namespace

int32_t putRequest(ZOV_OUTPUTBUFF out, const Request &request) {
  const int32_t head[] = {kRequest, request.position.line, request.position.column,
                          static_cast<int32_t>(request.query.length)};
  int32_t status = zov_outputBuffPutBytes(out, head, sizeof head);
  status =
      status != 0 ? status : zov_outputBuffPutBytes(out, request.query.bytes, request.query.length);
  return status != 0 ? status : zov_outputBuffFlush(out);
}

int openSocket(const char *path, bool listens) {
  sockaddr_un address = {AF_UNIX, {}};
  const sockaddr *name = reinterpret_cast<const sockaddr *>(&address);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool isOpen = false;
  if (descriptor >= 0 && strlen(path) >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
  } else if (descriptor >= 0) {
    zov_strncpyZ(address.sun_path, path, sizeof address.sun_path);
    if (listens && kindOf(path) == S_IFSOCK) {
      zov_fileRemove(path);
    }
    isOpen = listens
                 ? bind(descriptor, name, sizeof address) == 0 && listen(descriptor, kBacklog) == 0
                 : connect(descriptor, name, sizeof address) == 0;
  }
  if (isOpen) {
    return descriptor;
  }
  failedAt(listens ? "serve at" : "connect to", path);
  if (descriptor >= 0) {
    close(descriptor);
  }
  return -1;
}

int32_t sendToPeer(void *peer, const void *data, uint32_t length) {
  const Peer &to = *static_cast<const Peer *>(peer);
  const char *at = static_cast<const char *>(data);
  int32_t status = 0;
  while (length > 0 && status == 0) {
    const ssize_t sent = send(to.socket, at, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      at += sent;
      length -= static_cast<uint32_t>(sent);
    } else {
      status = await(to, POLLOUT, to.deafMs);
    }
  }
  return status;
}

int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered) {
  const Peer &from = *static_cast<const Peer *>(peer);
  int32_t status = 0;
  while (status == 0) {
    const ssize_t count = recv(from.socket, buffer, capacity, MSG_DONTWAIT);
    if (count >= 0) {
      *delivered = static_cast<uint32_t>(count);
      return count == 0 ? kChannelEnd : 0;
    }
    status = await(from, POLLIN, from.silentMs);
  }
  return status;
}

void interruptPeer(int socket) {
  const int kept = errno;
  send(socket, &kInterrupt, sizeof kInterrupt, MSG_NOSIGNAL | MSG_DONTWAIT);
  errno = kept;
}

void serve(Database &database, Peer &peer) {
  Session session;
  if (!openSession(session, database, sendToPeer, &peer, {step, &peer})) {
    return;
  }
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  while (tag != ZOV_NO_TAG && answer(session, peer, tag)) {
  }
  zov_freeTagMemory(tag, 1);
  closeSession(session);
}

}  // namespace minidb
