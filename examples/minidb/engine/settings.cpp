// SPDX-License-Identifier: Apache-2.0
//
// One table has every setting: where it stands in the file, what it is at first,
// and what takes a text for its value. libzov reads the file once, so that a
// process knows what others change in it only when it starts again.
#include "engine/settings.h"

#include <stdlib.h>
#include <strings.h>

#include "engine/report.h"

namespace minidb {

namespace {

constexpr int32_t kMaxWorkers = 64;
constexpr int32_t kMaxWaitMs = 3600 * 1000;

bool takePath(char (&place)[kSettingBytes], const char *value) {
  if (value[0] == '\0' || strlen(value) >= kSettingBytes) {
    return false;
  }
  zov_strncpyZ(place, value, kSettingBytes);
  return true;
}

bool takeNumber(int32_t &place, const char *value, int32_t most) {
  char *end = nullptr;
  const long number = strtol(value, &end, 10);
  if (end == value || *end != '\0' || number < 1 || number > most) {
    return false;
  }
  place = static_cast<int32_t>(number);
  return true;
}

struct Setting {
  const char *section;
  const char *name;
  const char *initial;
  bool (*take)(Settings &settings, const char *value);
};

constexpr Setting kSettings[] = {
    {"database", "data", "minidb.data",
     [](Settings &settings, const char *value) { return takePath(settings.data, value); }},
    {"database", "separator", "semicolon", takeSeparator},
    {"server", "socket", "minidb.socket",
     [](Settings &settings, const char *value) { return takePath(settings.socket, value); }},
    {"server", "log", "minidb-server.log",
     [](Settings &settings, const char *value) { return takePath(settings.log, value); }},
    {"server", "workers", "2",
     [](Settings &settings, const char *value) {
       return takeNumber(settings.workers, value, kMaxWorkers);
     }},
    {"server", "wait", "10000",
     [](Settings &settings, const char *value) {
       return takeNumber(settings.waitMs, value, kMaxWaitMs);
     }},
};

const Setting *findSetting(const char *name) {
  for (const Setting &setting : kSettings) {
    if (strcasecmp(setting.name, name) == 0) {
      return &setting;
    }
  }
  return nullptr;
}

// Whether the file gives back what it is given: no comment, no other line, no
// space around it.
bool fitsLine(const char *value) {
  const size_t length = strlen(value);
  return length > 0 && length < kSettingBytes && strpbrk(value, ";\r\n") == nullptr &&
         value[0] != ' ' && value[length - 1] > ' ';
}

bool writeInitial(const char *path) {
  ZOV_STREAM stream = zov_fopen(path, "w", ZOV_ENC_BYTES);
  if (stream == nullptr) {
    return cannot("create", path);
  }
  const char *section = "";
  for (const Setting &setting : kSettings) {
    if (strcmp(setting.section, section) != 0) {
      section = setting.section;
      zov_fprintf(stream, "[%s]\n", section);
    }
    zov_fprintf(stream, "%s=%s\n", setting.name, setting.initial);
  }
  zov_fclose(stream);
  return true;
}

// The text of a setting: what the file says, or what it is at first.
bool getSetting(const char *path, const Setting &setting, char (&text)[kSettingBytes]) {
  switch (zov_iniGet(path, setting.section, setting.name, text, sizeof text)) {
    case ZOV_OKAY:
      return true;
    case ZOV_ERROR:
      zov_strncpyZ(text, setting.initial, sizeof text);
      return true;
    default:
      zov_log_err("minidb: cannot read \"%s\" in \"%s\".\n", setting.name, path);
      return false;
  }
}

}  // namespace

bool takeSeparator(Settings &settings, const char *value) {
  constexpr struct {
    const char *name;
    char separator;
  } kNames[] = {{"semicolon", ';'}, {"tab", '\t'}, {"space", ' '}};
  for (const auto &known : kNames) {
    if (strcasecmp(known.name, value) == 0) {
      settings.separator = known.separator;
      return true;
    }
  }
  if (strlen(value) != 1 || value[0] == '\n' || value[0] == '\r') {
    return false;
  }
  settings.separator = value[0];
  return true;
}

bool readSettings(Settings &settings, const char *path) {
  settings = {};
  if (!takePath(settings.path, path)) {
    zov_log_err("minidb: the path of the settings is too long.\n");
    return false;
  }
  if (zov_fileLengthStat(path, 0) < 0 && !writeInitial(path)) {
    return false;
  }
  for (const Setting &setting : kSettings) {
    char text[kSettingBytes];
    if (!getSetting(path, setting, text)) {
      return false;
    }
    if (!setting.take(settings, text)) {
      zov_log_err("minidb: \"%s\" has %s=%s, which makes no sense.\n", path, setting.name, text);
      return false;
    }
  }
  return true;
}

Change changeSetting(Settings &settings, const char *name, const char *value) {
  const Setting *setting = findSetting(name);
  if (setting == nullptr) {
    return Change::kUnknown;
  }
  Settings changed = settings;
  if (!fitsLine(value) || !setting->take(changed, value)) {
    return Change::kInvalid;
  }
  if (zov_iniSet(settings.path, setting->section, setting->name, value) != ZOV_OKAY) {
    cannot("change", settings.path);
    return Change::kFailed;
  }
  settings = changed;
  return Change::kDone;
}

void listSettings(const Settings &settings, void (*visit)(void *context, const char *line),
                  void *context) {
  for (const Setting &setting : kSettings) {
    char text[kSettingBytes];
    char line[kSettingBytes + 32];
    if (getSetting(settings.path, setting, text)) {
      zov_snprintf(line, sizeof line, "%s = %s", setting.name, text);
      visit(context, line);
    }
  }
}

}  // namespace minidb
