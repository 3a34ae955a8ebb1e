// SPDX-License-Identifier: Apache-2.0
//
// One table has every setting: where it stands in the file, what it is at first and
// what it may be. libzov reads the file once, so that a process knows what others
// change in it only when it starts again.
#include "engine/settings.h"

#include <stdlib.h>
#include <strings.h>

#include "engine/files.h"

namespace minidb {

namespace {

// The most of a number, whose least is 1.
constexpr int32_t kIsPath = 0;
constexpr int32_t kIsSeparator = -1;

// By Setting.
constexpr struct Known {
  const char *section;
  const char *name;
  const char *initial;
  int32_t most;
} kKnown[kSettings] = {
    {"database", "data", "minidb.data", kIsPath},
    {"database", "separator", "semicolon", kIsSeparator},
    {"database", "cache", "8", 65536},
    {"server", "socket", "minidb.socket", kIsPath},
    {"server", "log", "minidb-server.log", kIsPath},
    {"server", "clients", "100", 1000},
    {"server", "wait", "10000", 3600 * 1000},
};

// Separators that an INI file cannot hold have names.
constexpr struct {
  const char *name;
  char separator;
} kSeparators[] = {{"semicolon", ';'}, {"tab", '\t'}, {"space", ' '}};

bool isNumber(const char *value, int32_t most) {
  char *end = nullptr;
  const long number = strtol(value, &end, 10);
  return end != value && *end == '\0' && number >= 1 && number <= most;
}

bool isSeparator(const char *value) {
  bool isName = false;
  for (const auto &known : kSeparators) {
    isName = isName || strcasecmp(known.name, value) == 0;
  }
  return isName ||
         (static_cast<unsigned char>(value[0]) > ' ' && value[0] != ';' && value[1] == '\0');
}

// Whether a setting can have a value: one that the file gives back as it is, so no
// comment, no other line and no space around it.
bool check(const Known &known, const char *value) {
  const size_t length = strlen(value);
  const bool fits = length > 0 && length < kSettingBytes && strpbrk(value, ";\r\n") == nullptr &&
                    value[0] != ' ' && static_cast<unsigned char>(value[length - 1]) > ' ';
  if (known.most == kIsPath) {
    return fits ||
           fail("%s cannot be \"%.100s\": it is a path of 1 to %u bytes, without a semicolon",
                known.name, value, kSettingBytes - 1);
  }
  if (known.most == kIsSeparator) {
    return isSeparator(value) ||
           fail("%s cannot be \"%.100s\": it is a character, \"semicolon\", \"tab\" or \"space\"",
                known.name, value);
  }
  return (fits && isNumber(value, known.most)) ||
         fail("%s cannot be \"%.100s\": it is a number from 1 to %d", known.name, value,
              known.most);
}

// By its name. kSettings when there is none.
Setting find(const char *name) {
  uint8_t setting = 0;
  while (setting < kSettings && strcasecmp(kKnown[setting].name, name) != 0) {
    ++setting;
  }
  if (setting == kSettings) {
    fail("there is no setting \"%.100s\"", name);
  }
  return static_cast<Setting>(setting);
}

}  // namespace

int32_t numberOf(const Settings &settings, Setting setting) {
  return static_cast<int32_t>(strtol(settings.text[setting], nullptr, 10));
}

char separatorOf(const Settings &settings) {
  for (const auto &known : kSeparators) {
    if (strcasecmp(known.name, settings.text[kSeparator]) == 0) {
      return known.separator;
    }
  }
  return settings.text[kSeparator][0];
}

const char *nameOf(Setting setting) {
  return kKnown[setting].name;
}

Beside besideSocket(const Settings &settings, const char *suffix) {
  Beside beside;
  zov_snprintf(beside.path, sizeof beside.path, "%s%s", settings.text[kSocket], suffix);
  return beside;
}

bool writeSettings(const char *path) {
  Draft draft;
  if (!openDraft(draft, path)) {
    return false;
  }
  const char *section = "";
  for (const Known &known : kKnown) {
    char line[kSettingBytes];
    zov_snprintf(line, sizeof line, "%s%s%s%s=%s\n", known.section == section ? "" : "[",
                 known.section == section ? "" : known.section,
                 known.section == section ? "" : "]\n", known.name, known.initial);
    section = known.section;
    zov_outputBuffPutString(draft.out, line);
  }
  return keepDraft(draft);
}

bool readSetting(Settings &settings, Setting setting) {
  const Known &known = kKnown[setting];
  char *text = settings.text[setting];
  const int32_t status =
      !settings.hasFile ? static_cast<int32_t>(ZOV_ERROR)
                        : zov_iniGet(settings.path, known.section, known.name, text, kSettingBytes);
  if (status == ZOV_ERROR) {
    zov_strncpyZ(text, known.initial, kSettingBytes);
  } else if (status != ZOV_OKAY) {
    return fail("cannot read %s in \"%.500s\"", known.name, settings.path);
  }
  return check(known, text);
}

bool replaceSetting(Settings &settings, const char *name, const char *value) {
  const Setting setting = find(name);
  if (setting == kSettings || !check(kKnown[setting], value)) {
    return false;
  }
  zov_strncpyZ(settings.text[setting], value, kSettingBytes);
  return true;
}

bool changeSetting(Settings &settings, const char *name, const char *value) {
  if (!replaceSetting(settings, name, value)) {
    return false;
  }
  const Setting setting = find(name);
  const Known &known = kKnown[setting];
  if (zov_iniSet(settings.path, known.section, known.name, value) != ZOV_OKAY) {
    return failedAt("change", settings.path);
  }
  if (readSetting(settings, setting) && strcmp(settings.text[setting], value) == 0) {
    return true;
  }
  zov_iniSet(settings.path, known.section, known.name, nullptr);
  return fail("\"%.500s\" has another line for %s in front, not of the form %s=VALUE",
              settings.path, known.name, known.name);
}

}  // namespace minidb
