// SPDX-License-Identifier: Apache-2.0
//
// One table has every setting and option: where it stands in the file, what it is
// without, and what it may be. libzov reads the file once, so that a process knows what
// others change in it only when it starts again.
#include "engine/engine.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/stat.h>

#include <initializer_list>

namespace minidb {

namespace {

// The most of a number, whose least is 1.
constexpr int32_t kIsPath = 0;
constexpr int32_t kIsSeparator = -1;
constexpr int32_t kIsFlag = -2;

constexpr int kSuccess = 0;  // exit statuses
constexpr int kFailure = 1;
constexpr int kUsageError = 2;

constexpr uint8_t kBoth = kClient | kServer;

// By Option.
constexpr struct Known {
  const char *name;
  const char *value;    // what the option takes
  const char *section;  // of the file, null for what is no setting
  const char *initial;
  int32_t most;
  uint8_t programs;  // that have the option
  const char *help;
} kKnown[kOptions] = {
    {"data", "FILE", "database", "minidb.data", kIsPath, kBoth, "the data file"},
    {"separator", "CHARACTER", "database", "semicolon", kIsSeparator, kClient,
     "between a key and a value in text"},
    {"cache", "MIB", "database", "8", 65536, kBoth, "memory for pages of the data file"},
    {"socket", "FILE", "server", "minidb.socket", kIsPath, kServer, "where to serve"},
    {"log", "FILE", "server", "minidb-server.log", kIsPath, kBoth,
     "write a log; the last one becomes FILE.old"},
    {"clients", "COUNT", "server", "100", 1000, kServer, "that are served at once"},
    {"wait", "MS", "server", "10000", 3600 * 1000, kBoth,
     "how long the other side may be silent or not read"},
    {"settings", "FILE", nullptr, "minidb.ini", kIsPath, kBoth,
     "the INI file; options go before its settings"},
    {"connect", "SOCKET", nullptr, "", kIsPath, kClient, "let a server run the statements"},
    {"memory", "", nullptr, "", kIsFlag, kClient,
     "use an empty database in memory, gone at the end"},
    {"read-only", "", nullptr, "", kIsFlag, kClient,
     "change nothing, and wait for nobody who does"},
    {"foreground", "", nullptr, "", kIsFlag, kServer, "stay there"},
    {"help", "", nullptr, "", kIsFlag, kBoth, "show this"},
    {"version", "", nullptr, "", kIsFlag, kBoth, "show the version"},
};

// The separator that a value stands for, '\0' for none. Those that an INI file cannot
// hold have names.
char separatorFrom(const char *value) {
  constexpr struct {
    const char *name;
    char separator;
  } kNames[] = {{"semicolon", ';'}, {"tab", '\t'}, {"space", ' '}};
  for (const auto &named : kNames) {
    if (strcasecmp(named.name, value) == 0) {
      return named.separator;
    }
  }
  const bool isOne = static_cast<unsigned char>(value[0]) > ' ' && value[0] != ';';
  return isOne && value[1] == '\0' ? value[0] : '\0';
}

bool isNumber(const char *value, int32_t most) {
  char *end = nullptr;
  const long number = strtol(value, &end, 10);
  return end != value && *end == '\0' && number >= 1 && number <= most;
}

// Puts a value in place, if it can be there: for a setting one that the file gives back
// as it is, so no comment, no other line and no space around it.
bool place(Settings &settings, Option option, const char *value) {
  const Known &known = kKnown[option];
  const size_t length = strlen(value);
  const bool fits = length > 0 && length < kSettingBytes && strpbrk(value, ";\r\n") == nullptr &&
                    value[0] != ' ' && static_cast<unsigned char>(value[length - 1]) > ' ';
  if (known.most == kIsPath && !fits) {
    return fail("%s cannot be \"%.100s\": it is a path of 1 to %u bytes, without a semicolon",
                known.name, value, kSettingBytes - 1);
  }
  if (known.most == kIsSeparator && separatorFrom(value) == '\0') {
    return fail("%s cannot be \"%.100s\": it is a character, \"semicolon\", \"tab\" or \"space\"",
                known.name, value);
  }
  if (known.most > 0 && !(fits && isNumber(value, known.most))) {
    return fail("%s cannot be \"%.100s\": it is a number from 1 to %d", known.name, value,
                known.most);
  }
  zov_strncpyZ(settings.text[option], value, kSettingBytes);
  return true;
}

// Sets a setting in the file, or takes it away again when that has no effect.
bool keepSetting(Settings &settings, Option setting, const char *value) {
  const Known &known = kKnown[setting];
  const char *path = settings.text[kFile];
  uint64_t made = ZOV_NO_DESCRIPTOR;
  if (zov_flOpen(path, O_WRONLY | O_CREAT | O_EXCL, 0, &made) == 0) {
    zov_flClose(made);
  }
  if (zov_iniSet(path, known.section, known.name, value) != ZOV_OKAY) {
    return failedAt("change", path);
  }
  if (readSetting(settings, setting) && strcmp(settings.text[setting], value) == 0) {
    return true;
  }
  zov_iniSet(path, known.section, known.name, nullptr);
  return fail("\"%.500s\" has another line for %s in front, not of the form %s=VALUE", path,
              known.name, known.name);
}

// By its name, of the first so many. That many when there is none.
Option find(const char *name, uint8_t count) {
  uint8_t number = 0;
  while (number < count && strcasecmp(kKnown[number].name, name) != 0) {
    ++number;
  }
  return static_cast<Option>(number);
}

// --- The command line ----------------------------------------------------

void printHelp(Program program) {
  zov_printf(program == kClient
                 ? "usage: minidb [OPTION...] [STATEMENTS | STATEMENT WORD...]\n"
                   "Runs statements on a database of text records: those of one word, with\n"
                   "semicolons between them, or one whose words stand by themselves, or those of\n"
                   "standard input.\n"
                 : "usage: minidb-server [OPTION...]\n"
                   "Serves a database to \"minidb --connect SOCKET\" until it is interrupted or\n"
                   "terminated. Its process id is in a file of the socket's name and \".pid\".\n");
  for (const Verb *verb = kVerbs; program == kClient && verb->form != nullptr; ++verb) {
    zov_printf(kHelpFormat, verb->form, verb->help);
  }
  for (const Known &known : kKnown) {
    if ((known.programs & program) != 0) {
      zov_printf("--%-10s %-9s   %s\n", known.name, known.value, known.help);
    }
  }
}

// Takes the options and their values, and leaves the words behind them.
bool takeOptions(Settings &settings, Program program, int count, char **words) {
  int index = 0;
  while (index < count && strncmp(words[index], "--", 2) == 0) {
    const char *word = words[index++];
    const Option option = find(word + 2, kOptions);
    if (option == kOptions || (kKnown[option].programs & program) == 0) {
      return fail("there is no option \"%.100s\"; --help lists the options", word);
    }
    const bool isFlag = kKnown[option].most == kIsFlag;
    if (!isFlag && index == count) {
      return fail("there is no value behind \"%.100s\"", word);
    }
    if (!place(settings, option, isFlag ? "yes" : words[index++])) {
      return false;
    }
  }
  settings.logs = program == kServer || isGiven(settings, kLog);
  settings.wordCount = count - index;
  settings.words = words + index;
  return settings.wordCount == 0 || program == kClient ||
         fail("there is no use for \"%.100s\"", words[index]);
}

}  // namespace

int32_t numberOf(const Settings &settings, Option setting) {
  return static_cast<int32_t>(strtol(settings.text[setting], nullptr, 10));
}

char separatorOf(const Settings &settings) {
  return separatorFrom(settings.text[kSeparator]);
}

const char *nameOf(Option setting) {
  return kKnown[setting].name;
}

Beside besideSocket(const Settings &settings, const char *suffix) {
  Beside path;
  zov_snprintf(path.text, sizeof path.text, "%s%s", settings.text[kSocket], suffix);
  return path;
}

bool readSetting(Settings &settings, Option setting) {
  const Known &known = kKnown[setting];
  const char *path = settings.text[kFile];
  char value[kSettingBytes];
  const int32_t status = zov_iniGet(path, known.section, known.name, value, sizeof value);
  if (status == ZOV_ERROR || (status == ZOV_INI_NOFILE && kindOf(path) == 0)) {
    return place(settings, setting, known.initial);
  }
  return status == ZOV_OKAY ? place(settings, setting, value)
                            : fail("cannot read %s in \"%.500s\"", known.name, path);
}

bool readSettings(Settings &settings) {
  bool isRead = isGiven(settings, kFile) || place(settings, kFile, kKnown[kFile].initial);
  for (uint8_t number = 0; isRead && number < kSettings; ++number) {
    const Option setting = static_cast<Option>(number);
    isRead = isGiven(settings, setting) || readSetting(settings, setting);
  }
  return isRead;
}

bool changeSetting(Settings &settings, const char *name, const char *value) {
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // from the change to the look at it
  const Option setting = find(name, kSettings);
  if (setting == kSettings) {
    return fail("there is no setting \"%.100s\"", name);
  }
  if (!place(settings, setting, value)) {
    return false;
  }
  pthread_mutex_lock(&lock);
  const bool isKept = keepSetting(settings, setting, value);
  pthread_mutex_unlock(&lock);
  return isKept;
}

bool openLog(const Settings &settings) {
  const char *path = settings.text[kLog];
  char old[kSettingBytes + 8];
  zov_snprintf(old, sizeof old, "%s.old", path);
  for (const Option other : {kData, kSocket, kFile}) {
    if (isSameFile(path, settings.text[other]) || isSameFile(old, settings.text[other])) {
      return fail("the log would take the place of \"%.500s\"", settings.text[other]);
    }
  }
  if (kindOf(path) == S_IFREG || zov_pathIsLink(path) != 0) {
    zov_fileRename(path, old);
  }
  return zov_log_open(path) == ZOV_OKAY || failedAt("create", path);
}

int runProgram(Program program, int count, char **words, bool (*run)(const Settings &)) {
  umask(S_IRWXG | S_IRWXO);
  if (zov_init() != ZOV_OKAY) {
    return kFailure;
  }
  Settings settings = {};
  int status = kSuccess;
  if (!takeOptions(settings, program, count - 1, words + 1)) {
    report();
    status = kUsageError;
  } else if (isGiven(settings, kHelp) || (count == 2 && strcmp(words[1], "-h") == 0)) {
    printHelp(program);
  } else if (isGiven(settings, kVersion)) {
    zov_printf("%s %d.%d.%d\n", program == kClient ? "minidb" : "minidb-server", ZOV_VERSION_MAJOR,
               ZOV_VERSION_MINOR, ZOV_VERSION_BUILD);
  } else {
    status = (readSettings(settings) || report()) && run(settings) ? kSuccess : kFailure;
  }
  zov_term();
  return status;
}

}  // namespace minidb
