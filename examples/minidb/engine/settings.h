// SPDX-License-Identifier: Apache-2.0
//
// The settings, kept in an INI file.
#ifndef MINIDB_SETTINGS_H
#define MINIDB_SETTINGS_H

#include "engine/buffer.h"

namespace minidb {

constexpr uint32_t kSettingBytes = 512;  // room for the text of one

struct Settings {
  char path[kSettingBytes];    // of the INI file
  char data[kSettingBytes];    // path of the data file
  char socket[kSettingBytes];  // path of the server's socket
  char log[kSettingBytes];     // path of the server's log
  char separator;              // between a key and a value in text
  int32_t workers;             // threads of the server
  int32_t waitMs;              // for a peer that does not read or answer
};

// Reads the settings from a file, which is made, with the usual ones, if it is
// missing. False when that fails or one of them makes no sense, which is
// reported.
bool readSettings(Settings &settings, const char *path);

enum class Change { kDone, kUnknown, kInvalid, kFailed };

// Sets one by its name, in the file and here. Those that are paths or numbers of
// threads are looked at when a program starts.
Change changeSetting(Settings &settings, const char *name, const char *value);

// Calls `visit` with the line "name = value" of each.
void listSettings(const Settings &settings, void (*visit)(void *context, const char *line),
                  void *context);

// Takes a separator as it is written: a character, or the name of one that an INI
// file cannot hold. False when it is neither.
bool takeSeparator(Settings &settings, const char *value);

}  // namespace minidb

#endif
