// SPDX-License-Identifier: Apache-2.0
//
// minidb-server: serves a database to clients on this machine. It takes hold of
// everything it needs before it goes into the background, so that what is wrong is
// said to whoever starts it.
#include <sys/stat.h>

#include "engine/command_line.h"
#include "engine/report.h"
#include "server/service.h"
#include "wire/socket.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: minidb-server [--settings FILE] [--data FILE] [--socket FILE] [--log FILE]\n"
    "                     [--foreground]\n"
    "Serves a database to \"minidb --connect SOCKET\" until it is interrupted. Its\n"
    "process id is in a file of the socket's name and \".pid\". The INI file is\n"
    "\"minidb.ini\" unless told otherwise; the other options come in place of the\n"
    "settings of these names. The log is written anew each time.\n";

struct Options {
  const char *settings;
  const char *data;  // null: as the settings say; so are the next two
  const char *socket;
  const char *log;
  bool foreground;
};

bool takeOptions(Options &options, int count, char **words) {
  const minidb::ValueOption known[] = {
      {"--settings", &options.settings},
      {"--data", &options.data},
      {"--socket", &options.socket},
      {"--log", &options.log},
  };
  for (int index = 0; index < count; ++index) {
    if (strcmp(words[index], "--foreground") == 0) {
      options.foreground = true;
    } else if (minidb::takeValue(known, words[index],
                                 index + 1 < count ? words[index + 1] : nullptr)) {
      ++index;
    } else {
      return false;
    }
  }
  return true;
}

bool readAllSettings(const Options &options, minidb::Settings &settings) {
  if (!minidb::readSettings(settings, options.settings)) {
    return false;
  }
  if (!minidb::replaceSetting(settings.data, options.data) ||
      !minidb::replaceSetting(settings.socket, options.socket) ||
      !minidb::replaceSetting(settings.log, options.log)) {
    zov_log_err("minidb-server: a path is too long.\n");
    return false;
  }
  return true;
}

// Tells others whom to interrupt. False when the file cannot be made.
bool writeProcessId(const char *path) {
  ZOV_STREAM stream = zov_fopen(path, "w", ZOV_ENC_BYTES);
  if (stream == nullptr) {
    return minidb::cannot("create", path);
  }
  zov_fprintf(stream, "%u\n", zov_get_pid());
  zov_fclose(stream);
  return true;
}

// A database to be served, and how.
struct Server {
  minidb::Database database;
  minidb::Settings settings;  // as they were at the start
  int listener;
  int32_t launcher;  // descriptor to report to, or -1
};

bool serve(Server &server) {
  minidb::Service *service =
      minidb::startService(server.database, server.settings, server.listener);
  if (service == nullptr) {
    return false;
  }
  zov_handleInterrupt(minidb::interruptService);
  zov_log("serving \"%s\" at \"%s\"\n", server.settings.data, server.settings.socket);
  if (server.launcher >= 0) {
    zov_daemonComplete(server.launcher);
  }
  const bool served = minidb::runService(*service);
  zov_handleInterrupt(nullptr);
  minidb::endService(service);
  return served;
}

bool serveWithProcessId(Server &server) {
  char path[minidb::kSettingBytes + 8];
  zov_snprintf(path, sizeof path, "%s.pid", server.settings.socket);
  const bool served = writeProcessId(path) && serve(server);
  zov_fileRemove(path);
  return served;
}

// Goes into the background. A server there may make files for everybody; these
// are its user's.
bool leaveTerminal(Server &server) {
  if (zov_daemonStart("minidb-server", &server.launcher) != ZOV_OKAY) {
    return minidb::cannot("start", "minidb-server");
  }
  umask(S_IRWXG | S_IRWXO);
  return true;
}

bool listenAndServe(Server &server, bool foreground) {
  server.listener = minidb::listenAt(server.settings.socket);
  if (server.listener < 0) {
    return false;
  }
  const bool served = (foreground || leaveTerminal(server)) && serveWithProcessId(server);
  zov_fileRemove(server.settings.socket);
  minidb::closeSocket(server.listener);
  return served;
}

int run(int count, char **words) {
  Options options = {"minidb.ini", nullptr, nullptr, nullptr, false};
  if (count > 0 && strcmp(words[0], "--help") == 0) {
    zov_printf("%s", kUsage);
    return kSuccess;
  }
  if (!takeOptions(options, count, words)) {
    zov_log_err("%s", kUsage);
    return kUsageError;
  }
  Server server = {{}, {}, -1, -1};
  if (!readAllSettings(options, server.settings)) {
    return kFailure;
  }
  if (!minidb::openDatabase(server.database, server.settings, false)) {
    return kFailure;
  }
  // Only now is it sure that no server writes this log any more.
  bool served = zov_log_open(server.settings.log) == ZOV_OKAY ||
                minidb::cannot("create", server.settings.log);
  served = served && listenAndServe(server, options.foreground);
  minidb::closeDatabase(server.database);
  zov_log(served ? "ended\n" : "ended after a failure\n");
  return served ? kSuccess : kFailure;
}

}  // namespace

int main(int argc, char **argv) {
  if (zov_init() != ZOV_OKAY || zov_queueInit(0) != ZOV_OKAY) {
    return kFailure;
  }
  const int result = run(argc - 1, argv + 1);
  zov_queueTerm(1);
  zov_term();
  return result;
}
