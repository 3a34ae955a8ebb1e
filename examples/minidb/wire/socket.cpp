// SPDX-License-Identifier: Apache-2.0
#include "wire/socket.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "engine/encoding.h"
#include "engine/report.h"

namespace minidb {

namespace {

constexpr int kBacklog = 64;

bool addressOf(const char *path, sockaddr_un &address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof address.sun_path) {
    zov_log_err("minidb: the path of the socket \"%s\" is too long.\n", path);
    return false;
  }
  zov_strncpyZ(address.sun_path, path, sizeof address.sun_path);
  return true;
}

int newSocket() {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

bool connectSocket(int descriptor, const sockaddr_un &address) {
  return connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// Whether nobody listens any more at an address that is taken.
bool isLeftOver(const sockaddr_un &address) {
  const int probe = newSocket();
  const bool connected = probe >= 0 && connectSocket(probe, address);
  const bool refused = !connected && errno == ECONNREFUSED;
  closeSocket(probe);
  return refused;
}

bool bindSocket(int descriptor, const sockaddr_un &address) {
  const sockaddr *general = reinterpret_cast<const sockaddr *>(&address);
  if (bind(descriptor, general, sizeof address) == 0) {
    return true;
  }
  if (errno != EADDRINUSE) {
    return false;
  }
  if (!isLeftOver(address)) {
    errno = EADDRINUSE;
    return false;
  }
  zov_fileRemove(address.sun_path);
  return bind(descriptor, general, sizeof address) == 0;
}

// Waits until a socket can do what is asked. A wait below 0 is without end.
int32_t await(int socket, short what, int32_t waitMs) {
  pollfd waited = {socket, what, 0};
  const int ready = poll(&waited, 1, waitMs);
  if (ready < 0 && errno != EINTR) {
    return kChannelFailed;
  }
  return ready == 0 ? kChannelTimeout : 0;
}

}  // namespace

int listenAt(const char *path) {
  sockaddr_un address;
  if (!addressOf(path, address)) {
    return -1;
  }
  const int descriptor = newSocket();
  const mode_t before = umask(S_IRWXG | S_IRWXO);
  const bool listens =
      descriptor >= 0 && bindSocket(descriptor, address) && listen(descriptor, kBacklog) == 0;
  umask(before);
  if (listens) {
    return descriptor;
  }
  cannot("listen at", path);
  closeSocket(descriptor);
  return -1;
}

int connectTo(const char *path) {
  sockaddr_un address;
  if (!addressOf(path, address)) {
    return -1;
  }
  const int descriptor = newSocket();
  if (descriptor >= 0 && connectSocket(descriptor, address)) {
    return descriptor;
  }
  cannot("connect to", path);
  closeSocket(descriptor);
  return -1;
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
    if (errno != EAGAIN && errno != EINTR) {
      return kChannelFailed;
    }
    const int32_t status = await(to.socket, POLLOUT, to.waitMs);
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

int32_t receiveFromPeer(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered) {
  const int32_t waitMs = static_cast<const Peer *>(peer)->waitMs;
  return receiveInTime(peer, buffer, capacity, delivered, static_cast<uint32_t>(waitMs));
}

int32_t receiveInTime(void *peer, void *buffer, uint32_t capacity, uint32_t *delivered,
                      uint32_t waitMs) {
  const int socket = static_cast<const Peer *>(peer)->socket;
  const int32_t status = await(socket, POLLIN, static_cast<int32_t>(waitMs));
  return status != 0 ? status : receiveNow(socket, buffer, capacity, delivered);
}

int32_t receiveNow(int socket, void *buffer, uint32_t capacity, uint32_t *delivered) {
  const ssize_t count = recv(socket, buffer, capacity, MSG_DONTWAIT);
  if (count > 0) {
    *delivered = static_cast<uint32_t>(count);
    return 0;
  }
  if (count == 0) {
    return kChannelEnd;
  }
  return errno == EAGAIN || errno == EINTR ? 0 : kChannelFailed;
}

}  // namespace minidb
