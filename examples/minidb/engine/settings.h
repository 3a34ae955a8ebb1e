// SPDX-License-Identifier: Apache-2.0
//
// The settings, kept in an INI file, and the command line of both programs. What
// cannot be done is said by problem().
#ifndef MINIDB_SETTINGS_H
#define MINIDB_SETTINGS_H

#include <stdint.h>

namespace minidb {

enum Setting : uint8_t { kData, kSeparator, kCache, kSocket, kLog, kClients, kWait, kSettings };

constexpr uint32_t kSettingBytes = 512;  // room for the text of one

struct Settings {
  const char *path;  // of the INI file
  bool hasFile;
  char text[kSettings][kSettingBytes];
};

int32_t numberOf(const Settings &settings, Setting setting);
char separatorOf(const Settings &settings);
const char *nameOf(Setting setting);

// The path of what a server has beside its socket: ".pid" or ".lock"; "" for the socket.
struct Beside {
  char path[kSettingBytes + 8];
};
Beside besideSocket(const Settings &settings, const char *suffix);

// Makes the file, with what settings are at first.
bool writeSettings(const char *path);

// Takes the text of a setting from the file, or what it is at first.
bool readSetting(Settings &settings, Setting setting);

// Puts a value in place of a setting, here alone. False when there is no such setting
// or it cannot have that value.
bool replaceSetting(Settings &settings, const char *name, const char *value);

// As replaceSetting(), in the file too.
bool changeSetting(Settings &settings, const char *name, const char *value);

// Exit statuses.
constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsageError = 2;

enum Program : uint8_t { kClient = 1, kServer = 2 };

struct CommandLine {
  Program program;
  Settings settings;         // of the file, and what options put in their place
  const char *settingsPath;  // of the file
  const char *log;           // null: no option gave one
  const char *server;        // the socket to connect to, or null
  bool inMemory;
  bool readOnly;
  bool foreground;
  int wordCount;  // those behind the options
  char **words;
};

// Takes the options and reads the settings. False when the program has nothing more to
// do, with its exit status; what is wrong is reported then.
bool takeCommandLine(CommandLine &line, Program program, int count, char **words, int &status);

// Writes the log to a file, new and readable by this user alone, from now on. What has
// its name gets ".old" behind it.
bool openLog(const char *path, const Settings &settings);

// The statements of the language, one to a line. Null behind the last.
const char *statementHelp(uint32_t number);

}  // namespace minidb

#endif
