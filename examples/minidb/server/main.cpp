// SPDX-License-Identifier: Apache-2.0
//
// minidb-server: serves a database to clients on this machine. It takes hold of
// everything it needs before it goes into the background, so that what is wrong is
// said to whoever starts it.
//
// As many threads as there may be clients are there from the start. Each accepts one
// client after the other, and waits for whatever it does and for nobody else's; clients
// beyond that wait to be accepted.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wire/wire.h"

namespace minidb {

namespace {

constexpr int kPauseMs = 20;       // between two looks at what nobody tells of
constexpr int kMaxClients = 1000;  // as the setting has it

struct Server {
  Database database;
  ZOV_FILE lock;  // of the socket's path: who has it may remove what is there
  int listener;
  int32_t launcher;                       // descriptor to report to, or -1
  std::atomic<int32_t> threads;           // that have not ended
  std::atomic<int> sockets[kMaxClients];  // of the threads, -1 without a client
};

Server server;
std::atomic<bool> isEnding{false};     // no more clients
std::atomic<bool> isStopping{false};   // no more statements
std::atomic<bool> isExhausted{false};  // no client could be taken, which was said

// --- Clients -------------------------------------------------------------

// The next client, or -1 when the system has no more to give or it all ends.
int acceptClient() {
  const int socket = accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC);
  const bool failed = socket < 0 && !isEnding && errno != EINTR && errno != ECONNABORTED;
  if (failed && !isExhausted.exchange(true)) {
    zov_log_err("minidb-server: cannot take another client: %s\n", strerror(errno));
  }
  if (failed) {
    zov_sleep(kPauseMs);
  } else if (socket >= 0) {
    isExhausted = false;
  }
  return socket;
}

// A socket is known before the look whether everything ends: whoever ends it looks at
// them afterwards.
void *serveClients(void *argument) {
  std::atomic<int> &socket = *static_cast<std::atomic<int> *>(argument);
  const int32_t waitMs = numberOf(server.database.settings, kWait);
  while (!isEnding) {
    Peer peer = {acceptClient(), -1, waitMs, &isStopping};
    socket = peer.socket;
    if (peer.socket >= 0 && !isEnding) {
      serve(server.database, peer);
    }
    socket = -1;
    if (peer.socket >= 0) {
      close(peer.socket);
    }
  }
  --server.threads;
  return nullptr;
}

// Fewer do where the system has no more.
bool startThreads() {
  int32_t count = numberOf(server.database.settings, kClients);
  for (std::atomic<int> &socket : server.sockets) {
    socket = -1;
    if (count-- > 0 && zov_threadBegin(serveClients, 0, &socket) == ZOV_OKAY) {
      ++server.threads;
    }
  }
  return server.threads > 0 || fail("there is no thread for a client");
}

// Waits until the threads have ended, for so long.
void awaitThreads(uint32_t waitMs) {
  const uint32_t start = zov_timeMilliSecs();
  while (server.threads > 0 && zov_timeMilliSecs() - start < waitMs) {
    zov_sleep(kPauseMs);
  }
}

// A socket that is closed meanwhile may be that of another client, which ends as well.
void shutOut(int how) {
  for (const std::atomic<int> &socket : server.sockets) {
    shutdown(socket, how);
  }
}

// Statements under way may finish for as long as a client may be silent; then they are
// interrupted.
void endThreads() {
  isEnding = true;
  shutdown(server.listener, SHUT_RDWR);
  shutOut(SHUT_RD);
  awaitThreads(static_cast<uint32_t>(numberOf(server.database.settings, kWait)));
  isStopping = true;
  shutOut(SHUT_RDWR);
  awaitThreads(UINT32_MAX);
}

// --- Start and end -------------------------------------------------------

bool lockSocket(const Settings &settings) {
  const Beside path = besideSocket(settings, ".lock");
  server.lock = zov_fileOpen(path.text, O_RDWR | O_CREAT | O_NOFOLLOW, 0);
  if (server.lock == nullptr) {
    return failedAt("create", path.text);
  }
  if (zov_fileLock(server.lock) == ZOV_OKAY) {
    return true;
  }
  zov_fileClose(server.lock);
  server.lock = nullptr;
  return fail("\"%.500s\" is in use by another server", settings.text[kSocket]);
}

// Tells others whom to interrupt, in a new file.
bool writeProcessId(const char *path) {
  char text[16];
  const uint32_t length =
      static_cast<uint32_t>(zov_snprintf(text, sizeof text, "%u\n", zov_get_pid()));
  zov_fileRemove(path);
  ZOV_FILE file = zov_fileOpen(path, O_WRONLY | O_CREAT | O_EXCL, 0);
  const bool written = file != nullptr && zov_fileWrite(file, text, length) == length;
  if (file != nullptr) {
    zov_fileClose(file);
  }
  return written || failedAt("create", path);
}

// Goes into the background, where files would be for everybody.
bool leaveTerminal() {
  const bool left = zov_daemonStart("minidb-server", &server.launcher) == ZOV_OKAY;
  umask(S_IRWXG | S_IRWXO);
  return left || fail("the server cannot go into the background");
}

// Serves at the socket until a signal ends it, which no thread takes but this one here.
bool serveSocket(const Settings &settings) {
  int taken = 0;
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  if (!isGiven(settings, kForeground) && !leaveTerminal()) {
    return false;
  }
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);  // before anybody knows whom to end
  if (!writeProcessId(besideSocket(settings, ".pid").text) || !startThreads()) {
    return false;
  }
  zov_log("serving \"%s\" at \"%s\"\n", settings.text[kData], settings.text[kSocket]);
  if (server.launcher >= 0) {
    zov_daemonComplete(server.launcher);
  }
  while (sigwait(&ends, &taken) != 0) {
  }
  endThreads();
  zov_log("ended\n");
  return true;
}

// Takes hold of everything in turn. Only with the locks of socket and database is it
// sure that no server writes the log any more.
bool serveDatabase(const Settings &settings) {
  if (!lockSocket(settings) || !openDatabase(server.database, settings) || !openLog(settings)) {
    return false;
  }
  server.listener = openSocket(settings.text[kSocket], true);
  if (server.listener < 0) {
    return false;
  }
  const bool served = serveSocket(settings);
  zov_fileRemove(besideSocket(settings, ".pid").text);
  zov_fileRemove(settings.text[kSocket]);
  return served;
}

bool runServer(const Settings &settings) {
  server.launcher = -1;
  const bool served = serveDatabase(settings) || report();
  if (server.database.store != nullptr) {
    closeStore(server.database.store);
  }
  if (server.lock != nullptr) {
    zov_fileUnlock(server.lock);
    zov_fileClose(server.lock);
  }
  return served;
}

}  // namespace

}  // namespace minidb

int main(int argc, char **argv) {
  return minidb::runProgram(minidb::kServer, argc, argv, minidb::runServer);
}
