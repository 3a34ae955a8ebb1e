// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <initializer_list>

#include "engine/files.h"
#include "engine/settings.h"

namespace minidb {

namespace {

constexpr const char *kStatements[] = {
    "put KEY VALUE             keep a record, in place of an earlier one of the key",
    "get KEY                   show the record of a key",
    "delete KEY                remove it",
    "find [PATTERN] [from KEY] [to KEY] [limit COUNT]",
    "                          show records in the order of their keys; in a pattern",
    "                          * stands for any text, ? for a character, \\ escapes",
    "count [PATTERN] [from KEY] [to KEY] [limit COUNT]",
    "load FILE                 put the records of a text file, one to a line",
    "dump FILE                 write every record to a text file",
    "begin, commit, abort      make changes together, or not at all",
    "compact                   rewrite the data file without what was replaced",
    "check                     read and check every page of the data file",
    "stats                     show figures of the database",
    "set NAME VALUE, settings  change or show the settings",
    "help, quit",
};

// An option without a value sets a flag. One with a value has a place for it, or
// it is a setting, or both.
struct Option {
  const char *name;
  const char *value;  // what it takes, or null
  uint8_t programs;
  const char *CommandLine::*place;
  bool CommandLine::*flag;
  const char *help;
};

constexpr uint8_t kBoth = kClient | kServer;

constexpr Option kOptions[] = {
    {"settings", "FILE", kBoth, &CommandLine::settingsPath, nullptr,
     "the INI file, \"minidb.ini\" unless told otherwise"},
    {"data", "FILE", kBoth, nullptr, nullptr, "in place of the setting, as those that follow"},
    {"separator", "CHARACTER", kClient, nullptr, nullptr, "between a key and a value in text"},
    {"cache", "MIB", kBoth, nullptr, nullptr, "memory for pages of the data file"},
    {"wait", "MS", kBoth, nullptr, nullptr, "how long the other side may be silent or not read"},
    {"clients", "COUNT", kServer, nullptr, nullptr, "that are served at once"},
    {"socket", "FILE", kServer, nullptr, nullptr, "where to serve"},
    {"log", "FILE", kBoth, &CommandLine::log, nullptr,
     "write a log; the last one becomes FILE.old"},
    {"connect", "SOCKET", kClient, &CommandLine::server, nullptr,
     "let a server run the statements"},
    {"memory", nullptr, kClient, nullptr, &CommandLine::inMemory,
     "use an empty database in memory, gone at the end"},
    {"read-only", nullptr, kClient, nullptr, &CommandLine::readOnly,
     "change nothing, and wait for nobody who does"},
    {"foreground", nullptr, kServer, nullptr, &CommandLine::foreground, "stay there"},
    {"help", nullptr, kBoth, nullptr, nullptr, "show this"},
    {"version", nullptr, kBoth, nullptr, nullptr, "show the version"},
};

const char *nameOf(Program program) {
  return program == kClient ? "minidb" : "minidb-server";
}

void printHelp(Program program) {
  if (program == kClient) {
    zov_printf(
        "usage: minidb [OPTION...] [STATEMENTS | STATEMENT WORD...]\n"
        "Runs statements on a database of text records: those of one word, with semicolons\n"
        "between them, or one whose words stand by themselves, or those of standard input.\n");
    for (const char *statement : kStatements) {
      zov_printf("  %s\n", statement);
    }
  } else {
    zov_printf(
        "usage: minidb-server [OPTION...]\n"
        "Serves a database to \"minidb --connect SOCKET\" until it is interrupted or\n"
        "terminated. Its process id is in a file of the socket's name and \".pid\".\n");
  }
  for (const Option &option : kOptions) {
    if ((option.programs & program) != 0) {
      zov_printf("  --%-10s %-10s   %s\n", option.name, option.value == nullptr ? "" : option.value,
                 option.help);
    }
  }
}

// For `return mistake(...)`.
bool mistake(Program program, const char *what, const char *word) {
  zov_log_err("%s: %s \"%.100s\"; --help lists the options\n", nameOf(program), what, word);
  return false;
}

const Option *findOption(Program program, const char *word) {
  for (const Option &option : kOptions) {
    if ((option.programs & program) != 0 && strcmp(option.name, word + 2) == 0) {
      return &option;
    }
  }
  return nullptr;
}

// Takes an option with its value, when the settings are read if it is one.
bool takeOption(CommandLine &line, const Option &option, const char *value, bool isRead) {
  if (option.flag != nullptr) {
    line.*option.flag = true;
  } else if (option.place != nullptr) {
    line.*option.place = value;
  }
  return !isRead || value == nullptr || option.place == &CommandLine::settingsPath ||
         option.place == &CommandLine::server ||
         replaceSetting(line.settings, option.name, value) || report();
}

// Goes through the options and leaves the words behind them.
bool takeOptions(CommandLine &line, int count, char **words, bool isRead) {
  int index = 0;
  while (index < count && strncmp(words[index], "--", 2) == 0) {
    const Option *option = findOption(line.program, words[index]);
    if (option == nullptr) {
      return mistake(line.program, "there is no option", words[index]);
    }
    const char *value = option->value == nullptr ? nullptr : words[++index];
    if (index == count) {
      return mistake(line.program, "there is no value behind", words[index - 1]);
    }
    if (!takeOption(line, *option, value, isRead)) {
      return false;
    }
    ++index;
  }
  line.wordCount = count - index;
  line.words = words + index;
  if (line.wordCount > 0 && line.program == kServer) {
    return mistake(line.program, "there is no use for", words[index]);
  }
  return true;
}

// Makes sure that there is a file that can be read, or none and no need for one.
bool findSettings(CommandLine &line) {
  uint64_t descriptor = ZOV_NO_DESCRIPTOR;
  const char *path = line.settingsPath;
  line.settings.path = path;
  if (zov_flOpen(path, O_RDONLY | O_NONBLOCK, 0, &descriptor) == 0) {
    zov_flClose(descriptor);
    line.settings.hasFile = true;
  } else if (errno != ENOENT) {
    return failedAt("read", path);
  } else if (!line.readOnly) {
    line.settings.hasFile = writeSettings(path);
  }
  return line.settings.hasFile || line.readOnly;
}

bool readSettings(CommandLine &line) {
  bool isRead = findSettings(line);
  for (uint8_t setting = 0; isRead && setting < kSettings; ++setting) {
    isRead = readSetting(line.settings, static_cast<Setting>(setting));
  }
  return isRead || report();
}

}  // namespace

bool takeCommandLine(CommandLine &line, Program program, int count, char **words, int &status) {
  line = {};
  line.program = program;
  line.settingsPath = "minidb.ini";
  status = kSuccess;
  if (count > 0 && (strcmp(words[0], "--help") == 0 || strcmp(words[0], "-h") == 0)) {
    printHelp(program);
    return false;
  }
  if (count > 0 && strcmp(words[0], "--version") == 0) {
    zov_printf("%s %d.%d.%d\n", nameOf(program), ZOV_VERSION_MAJOR, ZOV_VERSION_MINOR,
               ZOV_VERSION_BUILD);
    return false;
  }
  status = kUsageError;
  if (!takeOptions(line, count, words, false)) {
    return false;
  }
  status = kFailure;
  return readSettings(line) && takeOptions(line, count, words, true);
}

bool openLog(const char *path, const Settings &settings) {
  char old[kSettingBytes + 8];
  for (const char *other : {settings.text[kData], settings.text[kSocket], settings.path}) {
    if (isSameFile(path, other)) {
      return fail("the log would take the place of \"%.500s\"", other);
    }
  }
  zov_snprintf(old, sizeof old, "%s.old", path);
  if (kindOf(path) == FileKind::kRegular || zov_pathIsLink(path) != 0) {
    zov_fileRename(path, old);
  }
  return zov_log_open(path) == ZOV_OKAY || failedAt("create", path);
}

const char *statementHelp(uint32_t number) {
  constexpr uint32_t kCount = sizeof kStatements / sizeof kStatements[0];
  return number < kCount ? kStatements[number] : nullptr;
}

}  // namespace minidb
