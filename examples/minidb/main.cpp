// SPDX-License-Identifier: Apache-2.0
//
// minidb: a small database of text records. The command line.
#include <string.h>

#include "report.h"
#include "store.h"
#include "text_io.h"
#include "transfer.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: minidb [--data FILE] [--memory] [--separator CHARACTER] [--log FILE] COMMAND\n"
    "  load FILE                 add the records of a text file, one to a line\n"
    "  get KEY                   show the record of a key\n"
    "  find PATTERN              show the records that match; * and ? are wildcards\n"
    "  count                     show how many records there are\n"
    "  dump FILE [bytes|utf16]   write every record to a text file\n"
    "  compact                   rewrite the data file without replaced records\n"
    "The key of a record ends at the separator, a semicolon unless told otherwise.\n"
    "The data file is \"minidb.data\" unless told otherwise; with --memory it is read\n"
    "into memory, and saved at the end if it was changed. The log file is written\n"
    "anew each time.\n";

struct Options {
  const char *dataPath;
  const char *logPath;  // null: no log file
  char separator;
  bool inMemory;
};

// A command's words, its own name not counted.
struct Arguments {
  int count;
  char **words;
};

void showRecord(const minidb::Record &record, char separator) {
  zov_printf("%.*s%c%.*s\n", static_cast<int>(record.key.length), record.key.bytes, separator,
             static_cast<int>(record.value.length), record.value.bytes);
}

int load(minidb::Store &store, const Options &options, Arguments arguments) {
  const uint64_t before = minidb::countRecords(store);
  if (!minidb::loadText(store, arguments.words[0], options.separator)) {
    return kFailure;
  }
  const uint64_t after = minidb::countRecords(store);
  zov_log("%llu records, %llu of them new\n", static_cast<unsigned long long>(after),
          static_cast<unsigned long long>(after - before));
  return kSuccess;
}

int get(minidb::Store &store, const Options &options, Arguments arguments) {
  const minidb::Text key = {arguments.words[0], static_cast<uint32_t>(strlen(arguments.words[0]))};
  minidb::Record record;
  switch (minidb::getRecord(store, key, record)) {
    case minidb::Lookup::kFound:
      showRecord(record, options.separator);
      return kSuccess;
    case minidb::Lookup::kMissing:
      zov_log_err("minidb: there is no record \"%s\".\n", key.bytes);
      return kFailure;
    default:
      return kFailure;
  }
}

struct Search {
  const char *pattern;
  char separator;
  uint64_t found;
};

// Matches the whole record as it is shown.
bool showMatch(const minidb::Record &record, void *context) {
  Search &search = *static_cast<Search *>(context);
  char *line =
      zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%.*s%c%.*s", static_cast<int>(record.key.length),
                    record.key.bytes, search.separator, static_cast<int>(record.value.length),
                    record.value.bytes);
  if (line == nullptr) {
    return false;
  }
  if (zov_match(line, search.pattern) != 0) {
    zov_printf("%s\n", line);
    ++search.found;
  }
  zov_freeMem(line, ZOV_DEFAULT_TAG);
  return true;
}

int find(minidb::Store &store, const Options &options, Arguments arguments) {
  Search search = {arguments.words[0], options.separator, 0};
  if (!minidb::scanRecords(store, showMatch, &search)) {
    return kFailure;
  }
  zov_printf("%llu found\n", static_cast<unsigned long long>(search.found));
  return kSuccess;
}

int count(minidb::Store &store, const Options &, Arguments) {
  zov_printf("%llu\n", static_cast<unsigned long long>(minidb::countRecords(store)));
  return kSuccess;
}

int dump(minidb::Store &store, const Options &options, Arguments arguments) {
  int32_t encoding = ZOV_ENC_BYTES;
  if (arguments.count > 1 && strcmp(arguments.words[1], "utf16") == 0) {
    encoding = ZOV_ENC_UTF16;
  } else if (arguments.count > 1 && strcmp(arguments.words[1], "bytes") != 0) {
    zov_log_err("minidb: \"%s\" is no encoding.\n%s", arguments.words[1], kUsage);
    return kUsageError;
  }
  if (!minidb::dumpText(store, arguments.words[0], options.separator, encoding)) {
    return kFailure;
  }
  zov_log("%llu records written to \"%s\"\n",
          static_cast<unsigned long long>(minidb::countRecords(store)), arguments.words[0]);
  return kSuccess;
}

int compact(minidb::Store &store, const Options &, Arguments) {
  const minidb::Place place = minidb::placeOf(store);
  const int64_t before = zov_fileLengthStat(place.path, place.typeFlags);
  if (!minidb::compact(store)) {
    return kFailure;
  }
  zov_log("%lld bytes, %lld before\n",
          static_cast<long long>(zov_fileLengthStat(place.path, place.typeFlags)),
          static_cast<long long>(before));
  return kSuccess;
}

struct Command {
  const char *name;
  int fewest;
  int most;
  bool creates;  // makes the data file if it is missing
  bool changes;  // writes to it
  int (*run)(minidb::Store &, const Options &, Arguments);
};

constexpr Command kCommands[] = {
    {"load", 1, 1, true, true, load},   {"get", 1, 1, false, false, get},
    {"find", 1, 1, false, false, find}, {"count", 0, 0, false, false, count},
    {"dump", 1, 2, false, false, dump}, {"compact", 0, 0, false, true, compact},
};

const Command *findCommand(const char *name) {
  for (const Command &command : kCommands) {
    if (strcmp(command.name, name) == 0) {
      return &command;
    }
  }
  return nullptr;
}

// Takes the options off the front of the words. False for one that is unknown
// or lacks its value.
bool takeOptions(Options &options, Arguments &arguments) {
  while (arguments.count > 0 && arguments.words[0][0] == '-') {
    if (strcmp(arguments.words[0], "--memory") == 0) {
      options.inMemory = true;
      --arguments.count;
      ++arguments.words;
      continue;
    }
    const char *name = arguments.words[0];
    const char *value = arguments.count > 1 ? arguments.words[1] : nullptr;
    if (value != nullptr && strcmp(name, "--data") == 0) {
      options.dataPath = value;
    } else if (value != nullptr && strcmp(name, "--log") == 0) {
      options.logPath = value;
    } else if (value != nullptr && strcmp(name, "--separator") == 0 && strlen(value) == 1) {
      options.separator = value[0];
    } else {
      return false;
    }
    arguments.count -= 2;
    arguments.words += 2;
  }
  return true;
}

int runAt(minidb::Place place, const Command &command, const Options &options, Arguments words) {
  minidb::Store *store = minidb::openStore(place, command.creates);
  if (store == nullptr) {
    return kFailure;
  }
  const int result = command.run(*store, options, words);
  minidb::closeStore(store);
  return result;
}

// Brings the data file into memory, if there is one. False when it cannot be
// read.
bool fetchIntoMemory(const Options &options, const Command &command, minidb::Place memory) {
  if (command.creates && zov_fileLengthStat(options.dataPath, 0) < 0) {
    return true;
  }
  return zov_fileCopyEx(options.dataPath, 0, memory.path, memory.typeFlags) == ZOV_OKAY ||
         minidb::cannot("read", options.dataPath);
}

// The same with the data file in memory, while that on disk stays locked.
int runInMemory(const Command &command, const Options &options, Arguments words) {
  const minidb::Place memory = {"/minidb.data", ZOV_FILE_MEMORY};
  ZOV_FILE lock = minidb::lockStore({options.dataPath, 0});
  if (lock == nullptr) {
    return kFailure;
  }
  int result = kFailure;
  if (fetchIntoMemory(options, command, memory)) {
    result = runAt(memory, command, options, words);
  }
  if (result == kSuccess && command.changes && !minidb::saveOver(memory, options.dataPath)) {
    result = kFailure;
  }
  minidb::unlockStore(lock);
  return result;
}

int run(Arguments arguments) {
  Options options = {"minidb.data", nullptr, ';', false};
  if (!takeOptions(options, arguments) || arguments.count == 0) {
    zov_log_err("%s", kUsage);
    return kUsageError;
  }
  const Command *command = findCommand(arguments.words[0]);
  const Arguments words = {arguments.count - 1, arguments.words + 1};
  if (command == nullptr || words.count < command->fewest || words.count > command->most) {
    zov_log_err("minidb: no such command, or not its arguments.\n%s", kUsage);
    return kUsageError;
  }
  if (options.logPath != nullptr && zov_log_open(options.logPath) != ZOV_OKAY) {
    zov_log_err("minidb: cannot create \"%s\".\n", options.logPath);
    return kFailure;
  }
  return options.inMemory ? runInMemory(*command, options, words)
                          : runAt({options.dataPath, 0}, *command, options, words);
}

}  // namespace

int main(int argc, char **argv) {
  if (zov_init() != ZOV_OKAY) {
    return kFailure;
  }
  const int result = run({argc - 1, argv + 1});
  zov_term();
  return result;
}
