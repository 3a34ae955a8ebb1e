// SPDX-License-Identifier: Apache-2.0
#include "wire/wire.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace minidb {

namespace {

bool isPlace(int32_t number) {
  return number >= 1 && number <= kMaxPosition;
}

// The next mark but those of interrupts, which came after the end of the reply.
int32_t getMark(ZOV_INPUTBUFF in) {
  int32_t mark = kInterrupt;
  int32_t status = 0;
  while (status == 0 && mark == kInterrupt) {
    status = zov_inputBuffGetInt32(in, &mark);
  }
  return status == 0 && mark != kRequest ? static_cast<int32_t>(kChannelNonsense) : status;
}

constexpr int kBacklog = 64;

bool addressOf(const char *path, sockaddr_un &address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof address.sun_path) {
    return fail("the path of the socket \"%.500s\" is too long", path);
  }
  zov_strncpyZ(address.sun_path, path, sizeof address.sun_path);
  return true;
}

// A new socket for which a call succeeds with the address of a path, or -1.
template <typename Use>
int openAt(const char *path, const char *action, int flags, Use use) {
  sockaddr_un address;
  if (!addressOf(path, address)) {
    return -1;
  }
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (descriptor >= 0 &&
      use(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address)) {
    return descriptor;
  }
  failedAt(action, path);
  closeSocket(descriptor);
  return -1;
}

// Whether a call on a socket may be tried again; not at once where memory is short.
bool mayTryAgain() {
  if (errno == ENOMEM || errno == ENOBUFS) {
    zov_sleep(10);
    return true;
  }
  return errno == EAGAIN || errno == EINTR;
}

// Waits until a socket can do what is asked, without a limit when it is -1.
int32_t await(const Peer &peer, short what, int32_t waitMs) {
  pollfd waited = {peer.socket, what, 0};
  const int ready = poll(&waited, 1, waitMs);
  if (ready >= 0) {
    return ready == 0 ? static_cast<int32_t>(kChannelTimeout) : 0;
  }
  const bool goesOn =
      mayTryAgain() && (peer.interrupted == nullptr || peer.interrupted(peer.context));
  return goesOn ? 0 : static_cast<int32_t>(kChannelFailed);
}

int32_t receive(const Peer &peer, void *buffer, uint32_t capacity, uint32_t *delivered,
                int32_t waitMs) {
  while (true) {
    const int32_t status = await(peer, POLLIN, waitMs);
    if (status != 0) {
      return status;
    }
    const ssize_t count = recv(peer.socket, buffer, capacity, MSG_DONTWAIT);
    if (count > 0) {
      *delivered = static_cast<uint32_t>(count);
      return 0;
    }
    if (count == 0 || !mayTryAgain()) {
      return count == 0 ? kChannelEnd : kChannelFailed;
    }
  }
}

}  // namespace

uint8_t endingOf(const Session &session, bool succeeded) {
  return static_cast<uint8_t>((succeeded ? kSucceeded : 0) | (session.quits ? kQuits : 0) |
                              (session.scope != Scope::kStatement ? kInTransaction : 0));
}

int32_t putRequest(ZOV_OUTPUTBUFF out, const Request &request) {
  const int32_t head[] = {kRequest, request.position.line, request.position.column,
                          static_cast<int32_t>(request.query.length)};
  int32_t status = 0;
  for (const int32_t word : head) {
    status = status != 0 ? status : zov_outputBuffPutInt32(out, word);
  }
  status =
      status != 0 ? status : zov_outputBuffPutBytes(out, request.query.bytes, request.query.length);
  return status != 0 ? status : zov_outputBuffFlush(out);
}

int32_t getRequest(ZOV_INPUTBUFF in, Request &request, ZOV_TAG tag) {
  int32_t length = 0;
  int32_t status = getMark(in);
  for (int32_t *word : {&request.position.line, &request.position.column, &length}) {
    status = status != 0 ? status : zov_inputBuffGetInt32(in, word);
  }
  if (status != 0) {
    return status;
  }
  if (!isPlace(request.position.line) || !isPlace(request.position.column) ||
      static_cast<uint32_t>(length) > kMaxRequestBytes) {
    return kChannelNonsense;
  }
  Buffer query = {};
  char *place = makeRoom(query, tag, static_cast<uint32_t>(length));
  place[length] = '\0';
  request.query = {place, static_cast<uint32_t>(length)};
  return zov_inputBuffGetBytes(in, place, request.query.length);
}

int listenAt(const char *path) {
  if (kindOf(path) == FileKind::kSocket) {
    zov_fileRemove(path);
  }
  return openAt(path, "serve at", SOCK_NONBLOCK,
                [](int descriptor, const sockaddr *address, socklen_t bytes) {
                  return bind(descriptor, address, bytes) == 0 && listen(descriptor, kBacklog) == 0;
                });
}

int connectTo(const char *path) {
  return openAt(path, "connect to", 0,
                [](int descriptor, const sockaddr *address, socklen_t bytes) {
                  return connect(descriptor, address, bytes) == 0;
                });
}

void closeSocket(int socket) {
  if (socket >= 0) {
    close(socket);
  }
}

int32_t sendToPeer(void *peer, const void *data, uint32_t length) {
  const Peer &to = *static_cast<const Peer *>(peer);
  const char *at = static_cast<const char *>(data);
  while (length > 0) {
    const ssize_t sent = send(to.socket, at, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      at += sent;
      length -= static_cast<uint32_t>(sent);
      continue;
    }
    const int32_t status =
        mayTryAgain() ? await(to, POLLOUT, to.waitMs) : static_cast<int32_t>(kChannelFailed);
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered) {
  return receive(*static_cast<const Peer *>(peer), buffer, capacity, delivered, -1);
}

int32_t receiveInTime(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered) {
  const Peer &from = *static_cast<const Peer *>(peer);
  return receive(from, buffer, capacity, delivered, from.waitMs);
}

bool isInterrupting(int socket) {
  int32_t next = 0;
  return recv(socket, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) ==
             static_cast<ssize_t>(sizeof next) &&
         next == kInterrupt;
}

}  // namespace minidb
