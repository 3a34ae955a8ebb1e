// SPDX-License-Identifier: Apache-2.0
//
// The server's work: clients, and the threads that serve them.
#ifndef MINIDB_SERVICE_H
#define MINIDB_SERVICE_H

#include "engine/database.h"

namespace minidb {

struct Service;

// Starts the worker threads that the settings ask for. Null on failure, which is
// reported; nothing is owed then. The database must outlive the service.
Service *startService(Database &database, const Settings &settings, int listener);

// Accepts clients and has them served until interruptService(). Requests under
// way are finished then, those that wait are dropped with the clients. False when
// the service itself failed, which is reported.
bool runService(Service &service);

// Ends runService(). May be called from a signal handler, once a service has
// started.
void interruptService();

// Releases a service that does not run.
void endService(Service *service);

}  // namespace minidb

#endif
