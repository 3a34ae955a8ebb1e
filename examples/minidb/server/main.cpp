// SPDX-License-Identifier: Apache-2.0
//
// minidb-server: serves a database to clients on this machine. It takes hold of
// everything it needs before it goes into the background, so that what is wrong is
// said to whoever starts it.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include "server/service.h"
#include "wire/wire.h"

namespace {

using minidb::CommandLine;
using minidb::failedAt;
using minidb::Settings;

// What a server has beside its database.
struct Server {
  minidb::Database database;
  ZOV_FILE lock = nullptr;  // of the socket's path: who has it may remove what is there
  int listener = -1;
  int32_t launcher = -1;  // descriptor to report to
};

bool lockSocket(Server &server, const Settings &settings) {
  const minidb::Beside lock = besideSocket(settings, ".lock");
  server.lock = zov_fileOpen(lock.path, O_RDWR | O_CREAT | O_NOFOLLOW, 0);
  if (server.lock == nullptr) {
    return failedAt("create", lock.path);
  }
  if (zov_fileLock(server.lock) == ZOV_OKAY) {
    return true;
  }
  zov_fileClose(server.lock);
  server.lock = nullptr;
  return minidb::fail("\"%.500s\" is in use by another server", settings.text[minidb::kSocket]);
}

// Tells others whom to interrupt, in a new file.
bool writeProcessId(const char *path) {
  char text[16];
  const int length = zov_snprintf(text, sizeof text, "%u\n", zov_get_pid());
  zov_fileRemove(path);
  ZOV_FILE file = zov_fileOpen(path, O_WRONLY | O_CREAT | O_EXCL, 0);
  const bool written =
      file != nullptr &&
      zov_fileWrite(file, text, static_cast<uint32_t>(length)) == static_cast<uint32_t>(length);
  if (file != nullptr) {
    zov_fileClose(file);
  }
  return written || failedAt("create", path);
}

void handleSignal(int) {
  const int kept = errno;
  minidb::interruptService();
  errno = kept;
}

// Goes into the background, where files would be for everybody.
bool leaveTerminal(Server &server) {
  if (zov_daemonStart("minidb-server", &server.launcher) != ZOV_OKAY) {
    return minidb::fail("the server cannot go into the background");
  }
  umask(S_IRWXG | S_IRWXO);
  return true;
}

bool serve(Server &server, const CommandLine &line) {
  const Settings &settings = line.settings;
  if (!(line.foreground || leaveTerminal(server)) ||
      !writeProcessId(besideSocket(settings, ".pid").path) ||
      !minidb::openService(server.database, server.listener)) {
    return false;
  }
  zov_handleInterrupt(minidb::interruptService);
  signal(SIGTERM, handleSignal);
  zov_log("serving \"%s\" at \"%s\"\n", settings.text[minidb::kData],
          settings.text[minidb::kSocket]);
  if (server.launcher >= 0) {
    zov_daemonComplete(server.launcher);
  }
  minidb::runService();
  zov_log("ended\n");
  return true;
}

// Takes hold of everything in turn. Only with the locks of socket and database is it
// sure that no server writes the log any more.
bool run(Server &server, const CommandLine &line) {
  const Settings &settings = line.settings;
  if (!lockSocket(server, settings) || !minidb::openDatabase(server.database, line) ||
      !minidb::openLog(settings.text[minidb::kLog], settings)) {
    return false;
  }
  server.listener = minidb::listenAt(settings.text[minidb::kSocket]);
  if (server.listener < 0) {
    return false;
  }
  const bool served = serve(server, line);
  zov_fileRemove(besideSocket(settings, ".pid").path);
  zov_fileRemove(settings.text[minidb::kSocket]);
  return served;
}

int runProgram(int count, char **words) {
  CommandLine line;
  int status = minidb::kSuccess;
  if (!minidb::takeCommandLine(line, minidb::kServer, count, words, status)) {
    return status;
  }
  Server server;
  const bool served = run(server, line) || minidb::report();
  minidb::closeSocket(server.listener);
  if (server.database.store != nullptr) {
    closeStore(server.database.store);
  }
  if (server.lock != nullptr) {
    zov_fileUnlock(server.lock);
    zov_fileClose(server.lock);
  }
  return served ? minidb::kSuccess : minidb::kFailure;
}

}  // namespace

int main(int argc, char **argv) {
  umask(S_IRWXG | S_IRWXO);
  if (zov_init() != ZOV_OKAY) {
    return minidb::kFailure;
  }
  const int result = runProgram(argc - 1, argv + 1);
  zov_term();
  return result;
}
