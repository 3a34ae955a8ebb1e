// SPDX-License-Identifier: Apache-2.0
//
// minidb: a small database of text records. The command line: a client of a server, or
// of a thread of its own that serves the data file to nobody else.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "wire/wire.h"

#if defined(MINIDB_EDITLINE)
#include <editline/readline.h>
#elif defined(MINIDB_READLINE)
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace minidb {

namespace {

struct Client {
  Database database;  // of a thread of its own, which serves it
  Peer served;        // at its side of the connection
  std::atomic<bool> isServing;
  Peer peer;
  ZOV_OUTPUTBUFF out;
  ZOV_INPUTBUFF in;
  ZOV_OUTPUTBUFF screen;  // standard output
  int32_t screenStatus;   // when it is not 0, nothing is shown any more
  uint8_t ending;         // of the latest reply
  bool failed;            // some query did
  ZOV_TAG tag;            // of queries, with a recovery point
  ZOV_STREAM input;
  Buffer query;       // the lines since the last statement that ended with its line
  Reading reading;    // where they end
  Position position;  // of the first of them
  int32_t lines;      // all that were read
};

// --- Interrupts and typed lines -------------------------------------------

constexpr int kInterruptedStatus = 130;  // as shells have it
constexpr int kEnds = -1;                // what an interrupt does, or the socket at
constexpr int kMarks = -2;               // whose other side it also ends a statement

std::atomic<int> effect{kEnds};
std::atomic<bool> marked{false};  // by the first one; a second one ends the program

void handleInterrupt() {
  const int socket = effect;
  if (socket == kEnds || marked.exchange(true)) {
    _exit(kInterruptedStatus);
  }
  if (socket >= 0) {
    interruptPeer(socket);
  }
}

// Waits for input. False after an interrupt, which is let in while it waits alone: one
// between the look at the mark and the wait would not end it.
bool awaitInput() {
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt, &before);
  pollfd waited = {STDIN_FILENO, POLLIN, 0};
  while (!marked && ppoll(&waited, 1, nullptr, &before) < 0) {
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return !marked;
}

#if defined(MINIDB_EDITLINE) || defined(MINIDB_READLINE)

// Ends the line at an interrupt.
int readKey(FILE *) {
  unsigned char key = '\n';
  return !awaitInput() || zov_flRead(STDIN_FILENO, &key, 1) == 1 ? key : EOF;
}

// The next line, at an interrupt any, without its end.
bool readTyped(ZOV_STREAM, const char *prompt, Buffer &buffer, ZOV_TAG tag) {
  rl_catch_signals = 0;
  rl_getc_function = readKey;
  char *line = readline(prompt);
  if (line == nullptr) {
    return fail(Status::kMissing, "the input has ended");
  }
  if (*line != '\0') {
    add_history(line);
  }
  append(buffer, tag, textOf(line));
  free(line);
  return true;
}

#else

bool readTyped(ZOV_STREAM input, const char *prompt, Buffer &buffer, ZOV_TAG tag) {
  zov_printf("%s", prompt);
  zov_flush();
  return !awaitInput() || readLine(input, buffer, tag, kMaxRequestBytes);
}

#endif

bool isTerminal() {
  return isatty(STDIN_FILENO) != 0;
}

// --- Replies -------------------------------------------------------------

// Where nobody reads it any more the statement is to end.
void show(Client &client, Item item, Text text) {
  int32_t &status = client.screenStatus;
  if (status != 0) {
    return;
  }
  status = item == Item::kRow ? zov_outputBuffPutBytes(client.screen, text.bytes, text.length)
                              : zov_outputBuffFlush(client.screen);
  if (status != 0) {
    interruptPeer(client.peer.socket);
  } else if (item != Item::kRow) {
    zov_log_err(item == Item::kError ? "minidb: %.*s\n" : "%.*s\n", static_cast<int>(text.length),
                text.bytes);
  }
}

// Shows an item piece by piece as it comes; a message is one.
int32_t passItem(Client &client, Item item) {
  char piece[4096];
  int32_t word = 0;
  if (item != Item::kRow && item != Item::kNote && item != Item::kError) {
    return kChannelNonsense;
  }
  int32_t status = zov_inputBuffGetInt32(client.in, &word);
  for (uint32_t left = static_cast<uint32_t>(word); status == 0 && left > 0;) {
    const uint32_t count = left < sizeof piece ? left : static_cast<uint32_t>(sizeof piece);
    status = zov_inputBuffGetBytes(client.in, piece, count);
    show(client, item, {piece, status == 0 ? count : 0});
    left -= count;
  }
  return status;
}

int32_t passReply(Client &client) {
  char kind = 0;
  int32_t status = zov_inputBuffGetChar(client.in, &kind);
  while (status == 0 && kind != kDone) {
    status = passItem(client, static_cast<Item>(kind));
    status = status != 0 ? status : zov_inputBuffGetChar(client.in, &kind);
  }
  status = status != 0 ? status : zov_inputBuffGetChar(client.in, &kind);
  client.ending = status != 0 ? client.ending : static_cast<uint8_t>(kind);
  if (client.screenStatus == 0) {
    client.screenStatus = zov_outputBuffFlush(client.screen);
  }
  return status;
}

bool reportBroken(int32_t waitMs, int32_t status) {
  if (status == kChannelTimeout) {
    fail("no answer in %d ms; the statement is under way and may still be carried out", waitMs);
  } else if (status == kChannelNonsense) {
    fail("what answers is no minidb server");
  } else {
    fail("the session broke off; a statement under way may have been carried out");
  }
  return report();
}

// Runs a query. False when no other can follow.
bool run(Client &client, Text query) {
  marked = false;
  effect = kMarks;
  int32_t status = putRequest(client.out, {query, client.position});
  effect = client.peer.socket;
  if (marked) {
    interruptPeer(client.peer.socket);
  }
  status = status != 0 ? status : passReply(client);
  effect = kEnds;
  const bool isFine = (client.ending & kSucceeded) != 0 || client.screenStatus == EPIPE;
  client.failed = client.failed || status != 0 || !isFine;
  return (status == 0 || reportBroken(client.peer.silentMs, status)) && (!marked || isTerminal()) &&
         (client.ending & kQuits) == 0;
}

// --- Where queries come from ---------------------------------------------

void dropQuery(Client &client) {
  client.query.length = 0;
  client.reading = {};
  client.position = {client.lines + 1, 1};
}

// Takes the next line, and runs the query that it ends. False when that was the last.
bool takeLine(Client &client) {
  Buffer &query = client.query;
  const uint32_t before = query.length;
  marked = false;
  effect = isTerminal() ? kMarks : kEnds;
  const bool isTaken = isTerminal() ? readTyped(client.input, before == 0 ? "minidb> " : "   ...> ",
                                                query, client.tag)
                                    : readLine(client.input, query, client.tag, kMaxRequestBytes);
  if (marked) {
    zov_printfErr("\n");
    dropQuery(client);
    return true;
  }
  ++client.lines;
  if (!isTaken && lastStatus() != Status::kMissing) {
    fail("line %d of stdin: %s", client.lines, problem());
    client.failed = !report();
    return false;
  }
  append(query, client.tag, {"\n", 1});
  readOn(client.reading, {query.bytes + before, query.length - before});
  bool goesOn = isTaken;
  if (!goesOn || !client.reading.open) {
    goesOn = run(client, textOf(query)) && goesOn;
    dropQuery(client);
  }
  return goesOn;
}

void runInput(Client &client) {
  client.input = zov_fopen_std("stdin");
  if (client.input == nullptr) {
    failedAt("read", "stdin");
    client.failed = !report();
    return;
  }
  while (takeLine(client)) {
  }
  zov_fclose(client.input);
}

// A word that is more than a plain one is put in quotes.
void appendWord(Client &client, Buffer &query, const char *word) {
  const bool isPlain =
      word[0] != '\0' && strpbrk(word, " \t\r\n\v\f;\"'") == nullptr && strncmp(word, "--", 2) != 0;
  append(query, client.tag, textOf(isPlain ? "" : "\""));
  for (; *word != '\0'; ++word) {
    append(query, client.tag, {*word == '"' ? "\"\"" : word, *word == '"' ? 2U : 1U});
  }
  append(query, client.tag, textOf(isPlain ? " " : "\" "));
}

// A single word is a query as it stands; of several each is a word of a statement.
void runWords(Client &client, const Settings &settings) {
  Buffer query = {};
  for (int index = 0; settings.wordCount > 1 && index < settings.wordCount; ++index) {
    appendWord(client, query, settings.words[index]);
  }
  run(client, settings.wordCount > 1 ? textOf(query) : textOf(settings.words[0]));
}

// --- The program ---------------------------------------------------------

// The thread of a client without a server. The end of the connection is the last that it
// does.
void *serveHere(void *argument) {
  Client &client = *static_cast<Client *>(argument);
  const int socket = client.served.socket;
  serve(client.database, client.served);
  client.isServing = false;
  close(socket);
  return nullptr;
}

// Opens the data file and starts a thread for it. The socket to that, or -1 with a
// problem().
int startSession(Client &client, const Settings &settings) {
  int ends[2] = {-1, -1};
  if (!openDatabase(client.database, settings)) {
    return -1;
  }
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
    client.served = {ends[1], -1, -1, nullptr};
    client.isServing = true;
    if (zov_threadBegin(serveHere, 0, &client) == ZOV_OKAY) {
      return ends[0];
    }
    client.isServing = false;
    close(ends[0]);
    close(ends[1]);
  }
  failedAt("start a session of", settings.text[kData]);
  return -1;
}

// Hears the thread out, if there is one.
void endSession(Client &client) {
  char rest[4096];
  shutdown(client.peer.socket, SHUT_WR);
  while (client.isServing) {
    recv(client.peer.socket, rest, sizeof rest, 0);
  }
  close(client.peer.socket);
  if (client.database.store != nullptr) {
    closeStore(client.database.store);
  }
}

// Whether all went well, when all queries have run.
bool finish(const Client &client) {
  const bool isOpen = (client.ending & kInTransaction) != 0;
  if (isOpen) {
    zov_log_err("minidb: a transaction was open, so nothing of it was kept\n");
  }
  errno = client.screenStatus;
  if (errno != 0 && errno != EPIPE) {
    failedAt("write to", "stdout");
    return report();
  }
  return !isOpen && !client.failed;
}

bool runQueries(Client &client, const Settings &settings) {
  uint64_t screen = STDOUT_FILENO;
  client.tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  const bool enough =
      client.tag != ZOV_NO_TAG &&
      zov_outputBuffCreate(sendToPeer, &client.peer, 0, &client.out) == 0 &&
      zov_inputBuffCreate(receiveFromPeer, nullptr, &client.peer, 0, &client.in) == 0 &&
      zov_outputBuffCreate(writeToDescriptor, &screen, 0, &client.screen) == 0 &&
      withRecovery(client.tag, [&client, &settings] {
        settings.wordCount == 0 ? runInput(client) : runWords(client, settings);
      });
  if (!enough) {
    zov_log_err("minidb: memory is short for the next statement\n");
  }
  zov_outputBuffDestroy(client.screen);
  zov_inputBuffDestroy(client.in);
  zov_outputBuffDestroy(client.out);
  zov_freeTagMemory(client.tag, 1);
  return finish(client) && enough;
}

bool runClient(const Settings &settings) {
  const bool isServed = isGiven(settings, kConnect);
  const int32_t waitMs = isServed ? numberOf(settings, kWait) : -1;
  Client client = {};
  client.position = {1, 1};
  if (settings.logs && !openLog(settings)) {
    return report();
  }
  zov_handleInterrupt(handleInterrupt);
  client.peer = {
      isServed ? openSocket(settings.text[kConnect], false) : startSession(client, settings),
      waitMs, waitMs, nullptr};
  const bool succeeded = client.peer.socket >= 0 ? runQueries(client, settings) : report();
  endSession(client);
  return succeeded;
}

}  // namespace

}  // namespace minidb

int main(int argc, char **argv) {
  return minidb::runProgram(minidb::kClient, argc, argv, minidb::runClient);
}
