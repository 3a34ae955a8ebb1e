// SPDX-License-Identifier: Apache-2.0
//
// The other side of a server, and of a user.
#ifndef MINIDB_CLIENT_H
#define MINIDB_CLIENT_H

#include "wire/wire.h"

namespace minidb {

// --- A server ------------------------------------------------------------

// Must not move while it is open. One thread at a time.
struct Remote {
  Peer peer;
  ZOV_OUTPUTBUFF out;
  ZOV_INPUTBUFF in;
};

// Connects to the server at a path, which may be silent for so long. An interrupt ends
// its statement. False with a problem(); nothing is owed then.
bool openRemote(Remote &remote, const char *path, int32_t waitMs);

void closeRemote(Remote &remote);

// Has the server run a query and passes its reply on. How it went, of Ending. False,
// with a problem(), when the server does not answer as it should: it can only be closed.
bool ask(Remote &remote, const Request &request, Output &output, uint8_t &ending);

// --- A user --------------------------------------------------------------

// From now on an interrupt sets a mark while a statement runs or a prompt is shown, and
// a second one, or one at any other time, ends the program.
void handleInterrupts();

// Says that a statement runs, or none does. The mark is taken away.
void markRunning(bool running);

bool isMarked();

bool isTerminal();

// Puts the next line, with its end, behind what the buffer holds. At a terminal, where
// the prompt is shown, with editing and history if the program was built for that, an
// interrupt gives a line that isMarked() tells of. Needs a recovery point.
Line readInput(ZOV_STREAM input, const char *prompt, Buffer &buffer, ZOV_TAG tag);

}  // namespace minidb

#endif
