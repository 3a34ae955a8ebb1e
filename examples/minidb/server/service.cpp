// SPDX-License-Identifier: Apache-2.0
//
// One thread accepts clients and starts a thread for each, which waits for whatever its
// client does and for nobody else's. A pipe brings what the accepting thread has to
// know: a pointer to a client is the last word of its thread, a null pointer an
// interrupt. Pipes move so few bytes whole, and neither the threads nor a signal
// handler need memory or a lock for it.
#include "server/service.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "wire/wire.h"

namespace minidb {

namespace {

constexpr int kPauseMs = 500;  // before clients are accepted again

// Belongs to its thread, but for the list, until the thread leaves.
struct Client {
  Client *next;
  Peer peer;
  ZOV_TAG tag;  // of this record and of a request
  ZOV_INPUTBUFF in;
  Output output;
  Session session;
};

struct Service {
  Database *database;
  int listener;
  int news[2];      // the pipe
  Client *clients;  // all of them
  int32_t count;
  bool interrupted;  // no more clients
  bool exhausted;    // the system had no more to give when the last one came,
  bool reported;     // which was said
};

Service service;
std::atomic<bool> isInterrupted{false};
std::atomic<bool> isStopping{false};

// --- A client's thread ---------------------------------------------------

// Whether a statement is to go on.
bool step(void *context, uint64_t) {
  return !isStopping && !isInterrupting(static_cast<const Client *>(context)->peer.socket);
}

bool openClient(Client &client) {
  return zov_inputBuffCreate(receiveFromPeer, nullptr, &client.peer, 0, &client.in) == 0 &&
         zov_outputBuffCreate(sendToPeer, &client.peer, 0, &client.output.buffer) == 0 &&
         openSession(client.session, *service.database, client.output, {step, &client});
}

// Answers the next request. False when there is no other. One for which memory is short
// might be the start of a transaction, so it is the last.
bool answer(Client &client) {
  Request request = {};
  int32_t status = kChannelFailed;
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  withRecovery(tag,
               [&client, &request, &status, tag] { status = getRequest(client.in, request, tag); });
  if (status == 0) {
    const bool succeeded = runQuery(client.session, request.query, request.position);
    const char end[] = {kDone, static_cast<char>(endingOf(client.session, succeeded))};
    putPart(client.output, {end, sizeof end});
    flushOutput(client.output);
    status = client.output.status;
  } else if (status == kChannelNonsense) {
    zov_log_err("minidb-server: a client sent what is no request\n");
  }
  zov_freeTagMemory(tag, 1);
  return status == 0 && !client.session.quits;
}

void *serve(void *argument) {
  Client *client = static_cast<Client *>(argument);
  bool goesOn = openClient(*client);
  while (goesOn) {
    goesOn = answer(*client);
  }
  if (client->session.tag != ZOV_NO_TAG) {
    closeSession(client->session);
  }
  zov_inputBuffDestroy(client->in);
  zov_outputBuffDestroy(client->output.buffer);
  zov_flWrite(static_cast<uint64_t>(service.news[1]), &client, sizeof client);
  return nullptr;
}

// --- Accepting -----------------------------------------------------------

// Releases a client whose thread has left, or never came.
void removeClient(Client *client) {
  Client **place = &service.clients;
  while (*place != client) {
    place = &(*place)->next;
  }
  *place = client->next;
  --service.count;
  service.exhausted = false;
  closeSocket(client->peer.socket);
  zov_freeTagMemory(client->tag, 1);
}

// Starts a thread for a client. False when it has to be turned away.
bool addClient(int socket) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  Client *client =
      static_cast<Client *>(zov_getMem(sizeof(Client), tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE));
  if (client == nullptr) {
    zov_freeTagMemory(tag, 1);
    closeSocket(socket);
    return false;
  }
  client->next = service.clients;
  client->peer = {socket, numberOf(service.database->settings, kWait), nullptr, nullptr};
  client->tag = tag;
  client->output.framed = true;
  client->session.tag = ZOV_NO_TAG;
  service.clients = client;
  ++service.count;
  if (zov_threadBegin(serve, 0, client) != ZOV_OKAY) {
    removeClient(client);
    return false;
  }
  return true;
}

void acceptClient() {
  const int socket = accept4(service.listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED)) {
    return;
  }
  service.exhausted = socket < 0 || !addClient(socket);
  if (service.exhausted && !service.reported) {
    zov_log_err("minidb-server: cannot take another client: %s\n", strerror(errno));
  }
  service.reported = service.exhausted;
}

void takeNews() {
  Client *client = nullptr;
  zov_flRead(static_cast<uint64_t>(service.news[0]), &client, sizeof client);
  if (client == nullptr) {
    service.interrupted = true;
  } else {
    removeClient(client);
  }
}

// Waits for news and clients, for so long or, below 0, until there are some.
void serveEvents(int32_t waitMs) {
  const bool accepts = !service.interrupted && !service.exhausted &&
                       service.count < numberOf(service.database->settings, kClients);
  pollfd polled[] = {{service.news[0], POLLIN, 0}, {accepts ? service.listener : -1, POLLIN, 0}};
  const int ready = poll(polled, 2, service.exhausted && waitMs < 0 ? kPauseMs : waitMs);
  if (ready < 0 && errno != EINTR) {
    zov_sleep(kPauseMs);
  }
  service.exhausted = service.exhausted && ready != 0;
  if (ready > 0 && polled[0].revents != 0) {
    takeNews();
  }
  if (ready > 0 && polled[1].revents != 0) {
    acceptClient();
  }
}

void shutOut(int how) {
  for (Client *client = service.clients; client != nullptr; client = client->next) {
    shutdown(client->peer.socket, how);
  }
}

}  // namespace

bool openService(Database &database, int listener) {
  service = {&database, listener, {-1, -1}, nullptr, 0, false, false, false};
  return pipe2(service.news, O_CLOEXEC) == 0 || failedAt("serve", database.settings.text[kData]);
}

void runService() {
  while (!service.interrupted) {
    serveEvents(-1);
  }
  shutOut(SHUT_RD);
  const uint32_t start = zov_timeMilliSecs();
  const uint32_t grace = static_cast<uint32_t>(numberOf(service.database->settings, kWait));
  for (uint32_t passed = 0; service.count > 0 && passed < grace;
       passed = zov_timeMilliSecs() - start) {
    serveEvents(static_cast<int32_t>(grace - passed));
  }
  isStopping = true;
  shutOut(SHUT_RDWR);
  while (service.count > 0) {
    serveEvents(-1);
  }
}

void interruptService() {
  const Client *none = nullptr;
  if (!isInterrupted.exchange(true)) {
    zov_flWrite(static_cast<uint64_t>(service.news[1]), &none, sizeof none);
  }
}

}  // namespace minidb
