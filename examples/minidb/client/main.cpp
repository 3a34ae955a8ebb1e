// SPDX-License-Identifier: Apache-2.0
//
// minidb: a small database of text records. The command line: statements run in this
// process on the data file, or in a server.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/client.h"

namespace {

using minidb::Buffer;
using minidb::CommandLine;
using minidb::Line;
using minidb::Position;
using minidb::Text;

constexpr Position kStart = {1, 1};

// What runs queries, a server or else a session of this process, and how the latest went.
struct Runner {
  minidb::Remote *remote;
  minidb::Session *session;
  minidb::Output output;
  uint8_t ending;
  bool failed;  // one did
};

// Runs a query. False when no other can follow.
bool run(Runner &runner, Text query, Position position) {
  bool answered = true;
  minidb::markRunning(true);
  if (runner.remote != nullptr) {
    answered = minidb::ask(*runner.remote, {query, position}, runner.output, runner.ending) ||
               minidb::report();
  } else {
    const bool succeeded = minidb::runQuery(*runner.session, query, position);
    runner.ending = minidb::endingOf(*runner.session, succeeded);
  }
  const bool goesOn = answered && (!minidb::isMarked() || minidb::isTerminal());
  minidb::markRunning(false);
  const bool isFine = (runner.ending & minidb::kSucceeded) != 0 || runner.output.status == EPIPE;
  runner.failed = runner.failed || !answered || !isFine;
  return goesOn && (runner.ending & minidb::kQuits) == 0;
}

// --- Where queries come from ---------------------------------------------

// Standard input on its way to be statements.
struct Input {
  ZOV_STREAM stream;
  ZOV_TAG tag;
  Buffer query;             // the lines since the last statement that ended with its line
  minidb::Reading reading;  // where they end
  Position position;        // of the first of them
  int32_t lines;            // all that were read
};

void dropQuery(Input &input) {
  input.query.length = 0;
  input.reading = {};
  input.position.line = input.lines + 1;
}

// Takes the next line, and runs the query that it ends. False when that was the last.
bool takeLine(Runner &runner, Input &input) {
  const uint32_t before = input.query.length;
  minidb::markRunning(minidb::isTerminal());
  const Line taken = minidb::readInput(input.stream, before == 0 ? "minidb> " : "   ...> ",
                                       input.query, input.tag);
  if (minidb::isMarked()) {
    zov_printfErr("\n");
    dropQuery(input);
    return true;
  }
  if (taken == Line::kTooLong || taken == Line::kFailed) {
    taken == Line::kFailed
        ? minidb::failedAt("read", "stdin")
        : minidb::fail("the statement from line %d on is too long", input.position.line);
    runner.failed = !minidb::report();
    return false;
  }
  ++input.lines;
  minidb::readOn(input.reading, {input.query.bytes + before, input.query.length - before});
  bool goesOn = taken == Line::kTaken;
  if (input.query.length > 0 && (taken == Line::kEnd || !input.reading.open)) {
    goesOn = run(runner, textOf(input.query), input.position) && goesOn;
    dropQuery(input);
  }
  return goesOn;
}

void runInput(Runner &runner, ZOV_TAG tag) {
  Input input = {zov_fopen_std("stdin"), tag, {}, {}, kStart, 0};
  if (input.stream == nullptr) {
    minidb::failedAt("read", "stdin");
    runner.failed = !minidb::report();
    return;
  }
  while (takeLine(runner, input)) {
  }
  zov_fclose(input.stream);
}

// A word that is more than a plain one is put in quotes.
void appendWord(Buffer &query, ZOV_TAG tag, const char *word) {
  if (word[0] != '\0' && strpbrk(word, " \t\r\n\v\f;\"'") == nullptr &&
      strncmp(word, "--", 2) != 0) {
    append(query, tag, minidb::textOf(word));
    return;
  }
  append(query, tag, {"\"", 1});
  for (; *word != '\0'; ++word) {
    append(query, tag, {*word == '"' ? "\"\"" : word, *word == '"' ? 2U : 1U});
  }
  append(query, tag, {"\"", 1});
}

// A single word is a query as it stands; of several each is a word of a statement.
void runWords(Runner &runner, const CommandLine &line, ZOV_TAG tag) {
  if (line.wordCount == 1) {
    run(runner, minidb::textOf(line.words[0]), kStart);
    return;
  }
  Buffer query = {};
  for (int index = 0; index < line.wordCount; ++index) {
    appendWord(query, tag, line.words[index]);
    append(query, tag, {" ", 1});
  }
  run(runner, textOf(query), kStart);
}

bool runAll(Runner &runner, const CommandLine &line) {
  uint64_t screen = STDOUT_FILENO;
  if (zov_outputBuffCreate(minidb::writeToDescriptor, &screen, 0, &runner.output.buffer) != 0) {
    return false;
  }
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  const bool enough = minidb::withRecovery(tag, [&runner, &line, tag] {
    line.wordCount == 0 ? runInput(runner, tag) : runWords(runner, line, tag);
  });
  if (!enough) {
    zov_log_err("minidb: memory is short for the next statement\n");
  }
  if ((runner.ending & minidb::kInTransaction) != 0) {
    zov_log_err("minidb: a transaction was open, so nothing of it was kept\n");
  }
  errno = runner.output.status;
  if (errno != 0 && errno != EPIPE) {
    minidb::failedAt("write to", "stdout");
    minidb::report();
  }
  const bool isSaid = runner.output.status == 0 || runner.output.status == EPIPE;
  zov_outputBuffDestroy(runner.output.buffer);
  zov_freeTagMemory(tag, 1);
  return enough && isSaid && !runner.failed && (runner.ending & minidb::kInTransaction) == 0;
}

// --- The two ways to run -------------------------------------------------

bool runHere(Runner &runner, const CommandLine &line) {
  const auto step = [](void *, uint64_t) { return !minidb::isMarked(); };
  minidb::Database database;
  minidb::Session session;
  if (!minidb::openDatabase(database, line)) {
    return minidb::report();
  }
  runner.session = &session;
  bool succeeded = minidb::openSession(session, database, runner.output, {step, nullptr});
  if (succeeded) {
    succeeded = runAll(runner, line);
    minidb::closeSession(session);
  }
  minidb::closeStore(database.store);
  return succeeded;
}

bool runThere(Runner &runner, const CommandLine &line) {
  minidb::Remote remote;
  if (!minidb::openRemote(remote, line.server, numberOf(line.settings, minidb::kWait))) {
    return minidb::report();
  }
  runner.remote = &remote;
  const bool succeeded = runAll(runner, line);
  minidb::closeRemote(remote);
  return succeeded;
}

int runProgram(int count, char **words) {
  CommandLine line;
  int status = minidb::kSuccess;
  if (!minidb::takeCommandLine(line, minidb::kClient, count, words, status)) {
    return status;
  }
  if (line.log != nullptr && !minidb::openLog(line.log, line.settings)) {
    minidb::report();
    return minidb::kFailure;
  }
  minidb::handleInterrupts();
  Runner runner = {};
  const bool succeeded = line.server != nullptr ? runThere(runner, line) : runHere(runner, line);
  return succeeded ? minidb::kSuccess : minidb::kFailure;
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
