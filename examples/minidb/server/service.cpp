// SPDX-License-Identifier: Apache-2.0
//
// One thread waits for everything that may happen to a socket; it accepts clients
// and collects what they send. A connection whose request is there goes through a
// queue to the workers, and through another one back:
//
//   clients -> poll -> work queue -> workers -> done queue -> poll
//
// A byte on a pair of sockets wakes the thread that polls when a connection comes
// back, or when the service is interrupted.
#include "server/service.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>

#include "engine/report.h"
#include "server/connection.h"

namespace minidb {

struct Service {
  ZOV_TAG tag;
  Database *database;
  int listener;
  int32_t waitMs;  // for a client that does not read
  ZOV_QUEUE work;
  ZOV_QUEUE done;       // what comes back; a null connection is a worker that leaves
  int32_t workers;      // those that run
  Connection *clients;  // all of them, the latest first
  uint32_t clientCount;
  bool full;      // the last client found no descriptor; until another one leaves
  Buffer polled;  // a pollfd for the waker, one for the listener, one a client at rest
};

namespace {

constexpr uint32_t kMaxClients = 1000;

// What the signal handler needs: a pair of sockets to wake the service by.
std::atomic<bool> interrupted{false};
int wakers[2] = {-1, -1};

void wakeService() {
  send(wakers[1], "", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void takeWakeUps() {
  char bytes[64];
  while (recv(wakers[0], bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
  }
}

// --- Workers -------------------------------------------------------------

// A worker: serves the work queue until it is closed.
void *serve(void *argument) {
  Service &service = *static_cast<Service *>(argument);
  ZOV_QUEUE done = service.done;
  uint64_t message = 0;
  while (zov_queueRead(service.work, &message, nullptr, nullptr, ZOV_WAIT_FOREVER) == ZOV_OKAY) {
    answerRequest(*reinterpret_cast<Connection *>(message));
    zov_queueWrite(done, message, 0, 0, 0);
    wakeService();
  }
  zov_queueWrite(done, 0, 0, 0, 0);
  return nullptr;
}

bool startWorkers(Service &service, int32_t wanted) {
  while (service.workers < wanted && zov_threadBegin(serve, 0, &service) == ZOV_OKAY) {
    ++service.workers;
  }
  return service.workers > 0;
}

// Lets the workers finish what they are at, and waits for them.
void stopWorkers(Service &service) {
  zov_queueClose(service.work);
  while (service.workers > 0) {
    uint64_t message = 0;
    if (zov_queueRead(service.done, &message, nullptr, nullptr, ZOV_WAIT_FOREVER) != ZOV_OKAY) {
      return;
    }
    service.workers -= message == 0;
  }
}

// --- Clients -------------------------------------------------------------

void addClient(Service &service, int socket) {
  Connection *connection = openConnection({socket, service.waitMs}, *service.database);
  if (connection == nullptr) {
    closeSocket(socket);
    return;
  }
  connection->next = service.clients;
  service.clients = connection;
  ++service.clientCount;
}

void acceptClient(Service &service) {
  const int socket = accept4(service.listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket >= 0) {
    addClient(service, socket);
  } else {
    service.full = zov_errno() == EMFILE || zov_errno() == ENFILE;
  }
}

void dispatchRequest(Service &service, Connection &connection) {
  if (!connection.failed && hasRequest(connection)) {
    connection.busy = true;
    zov_queueWrite(service.work, reinterpret_cast<uint64_t>(&connection), 0, 0, 0);
  }
}

// Takes connections back from the workers; one may hold its next request already.
void takeAnswered(Service &service) {
  uint64_t message = 0;
  while (zov_queueRead(service.done, &message, nullptr, nullptr, 0) == ZOV_OKAY) {
    Connection &connection = *reinterpret_cast<Connection *>(message);
    connection.busy = false;
    dispatchRequest(service, connection);
  }
}

void closeFailed(Service &service) {
  for (Connection **place = &service.clients; *place != nullptr;) {
    Connection *connection = *place;
    if (connection->busy || !connection->failed) {
      place = &connection->next;
      continue;
    }
    *place = connection->next;
    --service.clientCount;
    service.full = false;
    closeConnection(connection);
  }
}

// --- Polling -------------------------------------------------------------

bool addPolled(Service &service, int socket) {
  const pollfd polled = {socket, POLLIN, 0};
  return appendBytes(service.polled, service.tag, &polled, sizeof polled);
}

bool collectPolled(Service &service) {
  service.polled.length = 0;
  // Clients too many wait to be accepted: a descriptor below 0 is not polled.
  const bool accepts =
      service.clientCount < kMaxClients && (!service.full || service.clientCount == 0);
  const int listener = accepts ? service.listener : -1;
  bool collected = addPolled(service, wakers[0]) && addPolled(service, listener);
  for (const Connection *client = service.clients; client != nullptr; client = client->next) {
    collected = collected && (client->busy || addPolled(service, client->peer.socket));
  }
  return collected;
}

bool waitForEvents(Service &service) {
  pollfd *polled = reinterpret_cast<pollfd *>(service.polled.bytes);
  const nfds_t count = service.polled.length / sizeof(pollfd);
  // Signals interrupt the wait; what they mean shows in the socket they wake by.
  if (poll(polled, count, -1) < 0) {
    for (nfds_t index = 0; index < count; ++index) {
      polled[index].revents = 0;
    }
    return zov_errno() == EINTR || cannot("wait for", "clients");
  }
  return true;
}

// The clients are in the same order as when the array was made.
void serveEvents(Service &service) {
  const pollfd *polled = reinterpret_cast<const pollfd *>(service.polled.bytes);
  const bool accepts = polled[1].revents != 0;
  polled += 2;
  for (Connection *client = service.clients; client != nullptr; client = client->next) {
    if (!client->busy && (polled++)->revents != 0) {
      receiveSome(*client);
      dispatchRequest(service, *client);
    }
  }
  takeWakeUps();
  takeAnswered(service);
  if (accepts) {
    acceptClient(service);
  }
}

}  // namespace

Service *startService(Database &database, const Settings &settings, int listener) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  Service *service =
      static_cast<Service *>(zov_getMem(sizeof(Service), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (service == nullptr) {
    zov_freeTagMemory(tag, 1);
    return nullptr;
  }
  service->tag = tag;
  service->database = &database;
  service->listener = listener;
  service->waitMs = settings.waitMs;
  service->work = zov_queueCreate("minidb-server requests");
  service->done = zov_queueCreate("minidb-server answered");
  if (service->work != nullptr && service->done != nullptr &&
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, wakers) == 0 &&
      startWorkers(*service, settings.workers)) {
    return service;
  }
  zov_log_err("minidb-server: no worker can be started.\n");
  endService(service);
  return nullptr;
}

bool runService(Service &service) {
  bool serving = true;
  while (serving && !interrupted) {
    serving = collectPolled(service) && waitForEvents(service);
    if (serving) {
      serveEvents(service);
      closeFailed(service);
    }
  }
  return serving;
}

void interruptService() {
  interrupted = true;
  wakeService();
}

void endService(Service *service) {
  stopWorkers(*service);
  while (service->clients != nullptr) {
    Connection *connection = service->clients;
    service->clients = connection->next;
    closeConnection(connection);
  }
  zov_queueDelete(service->work);
  zov_queueDelete(service->done);
  closeSocket(wakers[0]);
  closeSocket(wakers[1]);
  zov_freeTagMemory(service->tag, 1);
}

}  // namespace minidb
