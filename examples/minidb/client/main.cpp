// SPDX-License-Identifier: Apache-2.0
//
// minidb: a small database of text records. The command line: queries run in this
// process on the data file, or in a server.
#include <stdlib.h>

#include "client/client.h"
#include "engine/command_line.h"
#include "engine/line_reader.h"
#include "engine/query.h"

namespace {

using minidb::Buffer;
using minidb::Item;
using minidb::Position;
using minidb::Text;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: minidb [OPTION...] [QUERY | STATEMENT WORD...]\n"
    "Runs the statements of a query, or of standard input without one.\n"
    "  put KEY VALUE             keep a record, in place of an earlier one of the key\n"
    "  get KEY                   show the record of a key\n"
    "  delete KEY\n"
    "  find [PATTERN] [from KEY] [to KEY]\n"
    "                            show the records that match; * and ? are wildcards\n"
    "  count [PATTERN] [from KEY] [to KEY]\n"
    "  load FILE                 put the records of a text file, one to a line\n"
    "  dump FILE [bytes|utf16]   write every record to a text file\n"
    "  begin, commit, abort      make changes together, or not at all\n"
    "  compact                   rewrite the data file without what was replaced\n"
    "  set NAME VALUE, settings  change or show the settings\n"
    "Statements end at a semicolon. Words with spaces, semicolons or quotes, and those\n"
    "of the language, stand in quotes.\n"
    "  --settings FILE           the INI file, \"minidb.ini\" unless told otherwise\n"
    "  --data FILE, --separator CHARACTER\n"
    "                            in place of the settings of these names\n"
    "  --memory                  work in memory, and save changes at the end\n"
    "  --log FILE                write a log, anew each time\n"
    "  --connect SOCKET          let the server there run the query\n"
    "  --wait MILLISECONDS       how long to wait for the server's answer\n";

struct Options {
  const char *settingsPath;
  const char *dataPath;    // null: as the settings say
  const char *separator;   // the same
  const char *logPath;     // null: no log file
  const char *socketPath;  // null: no server
  int32_t waitMs;
  bool inMemory;
};

// The words of the command line that are left.
struct Arguments {
  int count;
  char **words;
};

void print(void *, Item item, Text line) {
  const int length = static_cast<int>(line.length);
  switch (item) {
    case Item::kRow:
      zov_printf("%.*s\n", length, line.bytes);
      break;
    case Item::kNote:
      zov_log("%.*s\n", length, line.bytes);
      break;
    default:
      zov_log_err("minidb: %.*s\n", length, line.bytes);
      break;
  }
}

// --- What runs a query ---------------------------------------------------

struct Runner {
  bool (*run)(void *context, Text query, Position position);
  void *context;
};

bool runHere(void *context, Text query, Position position) {
  return minidb::runQuery(*static_cast<minidb::Session *>(context), query, position);
}

bool runThere(void *context, Text query, Position position) {
  return minidb::ask(*static_cast<minidb::Client *>(context),
                     {query, position.line, position.column}, print, nullptr);
}

// --- Where queries come from ---------------------------------------------

constexpr Position kStart = {1, 1};

// Standard input on its way to be statements.
struct Input {
  minidb::LineReader reader;
  Buffer query;       // the lines since the last statement that ended with its line
  Position position;  // of the first of them
  int32_t lines;      // all that were read
};

enum class Taken { kLine, kEnd, kFailed };

// Adds the next line to the query. A failure is reported.
Taken takeLine(Input &input) {
  const char *line = minidb::readLine(input.reader);
  if (line == nullptr && zov_errno() != 0) {
    minidb::cannot("read", "stdin");
    return Taken::kFailed;
  }
  if (line == nullptr) {
    return Taken::kEnd;
  }
  ++input.lines;
  return minidb::appendText(input.query, ZOV_DEFAULT_TAG, minidb::textOf(line)) &&
                 minidb::appendBytes(input.query, ZOV_DEFAULT_TAG, "\n", 1)
             ? Taken::kLine
             : Taken::kFailed;
}

// Runs what standard input holds, as far as each statement has come. What is left
// when reading fails is not run.
bool runInput(const Runner &runner) {
  Input input = {{}, {}, kStart, 0};
  input.reader.stream = zov_fopen_std("stdin");
  if (input.reader.stream == nullptr) {
    return minidb::cannot("read", "stdin");
  }
  bool succeeded = true;
  Taken taken = Taken::kLine;
  while (taken == Taken::kLine) {
    taken = takeLine(input);
    const Text query = minidb::textOf(input.query);
    const bool whole =
        taken == Taken::kEnd || (taken == Taken::kLine && minidb::endsStatement(query));
    if (whole && query.length > 0) {
      succeeded = runner.run(runner.context, query, input.position) && succeeded;
      zov_flush();
      input.query.length = 0;
      input.position.line = input.lines + 1;
    }
  }
  zov_freeMem(input.query.bytes, ZOV_DEFAULT_TAG);
  minidb::closeReader(input.reader);
  return succeeded && taken == Taken::kEnd;
}

// Words of the language that are more than a plain word are put in quotes.
bool appendWord(Buffer &query, const char *word) {
  const bool isPlain =
      word[0] != '\0' && strpbrk(word, " \t\r\n\v\f;\"'") == nullptr && strncmp(word, "--", 2) != 0;
  bool appended = query.length == 0 || minidb::appendBytes(query, ZOV_DEFAULT_TAG, " ", 1);
  if (isPlain) {
    return appended && minidb::appendText(query, ZOV_DEFAULT_TAG, minidb::textOf(word));
  }
  appended = appended && minidb::appendBytes(query, ZOV_DEFAULT_TAG, "\"", 1);
  for (; appended && *word != '\0'; ++word) {
    appended = (*word != '"' || minidb::appendBytes(query, ZOV_DEFAULT_TAG, "\"", 1)) &&
               minidb::appendBytes(query, ZOV_DEFAULT_TAG, word, 1);
  }
  return appended && minidb::appendBytes(query, ZOV_DEFAULT_TAG, "\"", 1);
}

// A single word is a query as it stands; of several each is a word of a statement.
bool runWords(const Runner &runner, Arguments arguments) {
  if (arguments.count == 1) {
    return runner.run(runner.context, minidb::textOf(arguments.words[0]), kStart);
  }
  Buffer query = {};
  bool appended = true;
  for (int index = 0; index < arguments.count && appended; ++index) {
    appended = appendWord(query, arguments.words[index]);
  }
  const bool succeeded = appended && runner.run(runner.context, minidb::textOf(query), kStart);
  zov_freeMem(query.bytes, ZOV_DEFAULT_TAG);
  return succeeded;
}

bool runAll(const Runner &runner, Arguments arguments) {
  return arguments.count == 0 ? runInput(runner) : runWords(runner, arguments);
}

// --- The two ways to run -------------------------------------------------

bool readAllSettings(const Options &options, minidb::Settings &settings) {
  if (!minidb::readSettings(settings, options.settingsPath)) {
    return false;
  }
  if (!minidb::replaceSetting(settings.data, options.dataPath)) {
    zov_log_err("minidb: the path of the data file is too long.\n");
    return false;
  }
  if (options.separator != nullptr && !minidb::takeSeparator(settings, options.separator)) {
    zov_log_err("minidb: \"%s\" is no separator.\n", options.separator);
    return false;
  }
  return true;
}

bool runEmbedded(const Options &options, Arguments arguments) {
  minidb::Settings settings;
  minidb::Database database;
  if (!readAllSettings(options, settings) ||
      !minidb::openDatabase(database, settings, options.inMemory)) {
    return false;
  }
  minidb::Session session = {&database, print, nullptr, nullptr, false};
  const bool succeeded = runAll({runHere, &session}, arguments);
  minidb::endSession(session);
  return minidb::closeDatabase(database) && succeeded;
}

bool runConnected(const Options &options, Arguments arguments) {
  minidb::Client client;
  if (!minidb::openClient(client, options.socketPath, options.waitMs)) {
    return false;
  }
  const bool succeeded = runAll({runThere, &client}, arguments);
  minidb::closeClient(client);
  return succeeded;
}

// --- The command line ----------------------------------------------------

// Takes the options off the front of the words. False for one that is unknown
// or lacks its value.
bool takeOptions(Options &options, Arguments &arguments) {
  const char *waitMs = nullptr;
  const minidb::ValueOption known[] = {
      {"--settings", &options.settingsPath}, {"--data", &options.dataPath},
      {"--separator", &options.separator},   {"--log", &options.logPath},
      {"--connect", &options.socketPath},    {"--wait", &waitMs},
  };
  while (arguments.count > 0 && strncmp(arguments.words[0], "--", 2) == 0) {
    int taken = 1;
    if (strcmp(arguments.words[0], "--memory") == 0) {
      options.inMemory = true;
    } else if (minidb::takeValue(known, arguments.words[0],
                                 arguments.count > 1 ? arguments.words[1] : nullptr)) {
      taken = 2;
    } else {
      return false;
    }
    arguments.count -= taken;
    arguments.words += taken;
  }
  if (waitMs != nullptr) {
    options.waitMs = atoi(waitMs);
  }
  return options.waitMs > 0;
}

int run(Arguments arguments) {
  Options options = {"minidb.ini", nullptr, nullptr, nullptr, nullptr, 60000, false};
  if (arguments.count > 0 && strcmp(arguments.words[0], "--help") == 0) {
    zov_printf("%s", kUsage);
    return kSuccess;
  }
  if (!takeOptions(options, arguments)) {
    zov_log_err("%s", kUsage);
    return kUsageError;
  }
  if (options.logPath != nullptr && zov_log_open(options.logPath) != ZOV_OKAY) {
    minidb::cannot("create", options.logPath);
    return kFailure;
  }
  const bool succeeded = options.socketPath != nullptr ? runConnected(options, arguments)
                                                       : runEmbedded(options, arguments);
  return succeeded ? kSuccess : kFailure;
}

}  // namespace

int main(int argc, char **argv) {
  if (zov_init() != ZOV_OKAY || zov_queueInit(0) != ZOV_OKAY) {
    return kFailure;
  }
  const int result = run({argc - 1, argv + 1});
  zov_queueTerm(1);
  zov_term();
  return result;
}
