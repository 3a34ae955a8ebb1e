// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "client/client.h"

#if defined(MINIDB_EDITLINE)
#include <editline/readline.h>
#elif defined(MINIDB_READLINE)
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace minidb {

namespace {

constexpr int kInterruptedStatus = 130;  // as shells have it

std::atomic<bool> running{false};
std::atomic<bool> marked{false};

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

Line readTyped(ZOV_STREAM, const char *prompt, Buffer &buffer, ZOV_TAG tag) {
  rl_catch_signals = 0;
  rl_getc_function = readKey;
  char *line = readline(prompt);
  if (line == nullptr) {
    return Line::kEnd;
  }
  if (*line != '\0') {
    add_history(line);
  }
  append(buffer, tag, textOf(line));
  free(line);
  return Line::kTaken;
}

#else

Line readTyped(ZOV_STREAM input, const char *prompt, Buffer &buffer, ZOV_TAG tag) {
  zov_printf("%s", prompt);
  zov_flush();
  return awaitInput() ? readLine(input, buffer, tag, kMaxRequestBytes) : Line::kTaken;
}

#endif

}  // namespace

void handleInterrupts() {
  zov_handleInterrupt([] {
    if (!running || marked.exchange(true)) {
      _exit(kInterruptedStatus);
    }
  });
}

void markRunning(bool runs) {
  marked = false;
  running = runs;
}

bool isMarked() {
  return marked;
}

bool isTerminal() {
  return isatty(STDIN_FILENO) != 0;
}

Line readInput(ZOV_STREAM input, const char *prompt, Buffer &buffer, ZOV_TAG tag) {
  const Line line = isTerminal() ? readTyped(input, prompt, buffer, tag)
                                 : readLine(input, buffer, tag, kMaxRequestBytes);
  if (line == Line::kTaken) {
    append(buffer, tag, {"\n", 1});
  }
  return line;
}

}  // namespace minidb
