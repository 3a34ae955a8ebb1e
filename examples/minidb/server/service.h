// SPDX-License-Identifier: Apache-2.0
//
// The server's work: accepting clients, each of which has a thread.
#ifndef MINIDB_SERVICE_H
#define MINIDB_SERVICE_H

#include "engine/session.h"

namespace minidb {

// Prepares for clients at a listening socket, once in a process. False with a
// problem().
bool openService(Database &database, int listener);

// Accepts clients and has them served until interruptService(). Statements under way
// may finish for as long as a client may be silent; then they are interrupted.
void runService();

// Ends runService(). For signal handlers.
void interruptService();

}  // namespace minidb

#endif
