/* SPDX-License-Identifier: Apache-2.0
 *
 * Squares numbers on three threads that are fed by one message queue and answer
 * through another. docs/threads.md walks through it.
 */
#include <zov.h>

enum { WORKERS = 3, JOBS = 100 };
enum { SQUARE, LEFT }; /* codes of the messages that come back */

struct team {
  ZOV_QUEUE jobs;
  ZOV_QUEUE results;
  ZOV_SYNC gate;  /* event: set once everything is ready */
  ZOV_SYNC mutex; /* guards served */
  uint32_t served;
};

static void *serve(void *argument) {
  struct team *team = argument;
  ZOV_QUEUE results = team->results;
  uint64_t number = 0;
  zov_syncWait(team->gate, ZOV_WAIT_FOREVER);
  while (zov_queueRead(team->jobs, &number, NULL, NULL, ZOV_WAIT_FOREVER) == ZOV_OKAY) {
    zov_syncEnterExcl(team->mutex);
    ++team->served;
    zov_syncExitExcl(team->mutex);
    zov_queueWrite(results, number * number, SQUARE, 0, 0);
  }
  /* The last word: once it is read the team may be gone. */
  zov_queueWrite(results, 0, LEFT, 0, 0);
  return NULL;
}

/* Adds up results until so many messages of a code have come. */
static uint64_t collect(const struct team *team, uint32_t code, uint32_t count) {
  uint64_t sum = 0;
  while (count > 0) {
    uint64_t value = 0;
    uint32_t found = 0;
    if (zov_queueRead(team->results, &value, &found, NULL, ZOV_WAIT_FOREVER) != ZOV_OKAY) {
      break;
    }
    sum += value;
    count -= found == code;
  }
  return sum;
}

static void run(struct team *team) {
  uint32_t workers = 0;
  zov_syncStart(team->gate); /* events are made signalled */
  while (workers < WORKERS && zov_threadBegin(serve, 0, team) == ZOV_OKAY) {
    ++workers;
  }
  for (uint64_t number = 1; number <= JOBS; ++number) {
    zov_queueWrite(team->jobs, number, 0, 0, 0);
  }
  zov_syncResume(team->gate);
  const uint64_t sum = workers == 0 ? 0 : collect(team, SQUARE, JOBS);
  zov_queueClose(team->jobs);
  collect(team, LEFT, workers);
  zov_printf("%u jobs, sum of squares %llu\n", team->served, (unsigned long long)sum);
}

static int work(struct team *team) {
  if (zov_queueInit(0) != ZOV_OKAY) {
    return 1;
  }
  team->jobs = zov_queueCreate("jobs");
  team->results = zov_queueCreate("results");
  team->gate = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  team->mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  const int complete = team->jobs != NULL && team->results != NULL && team->gate != ZOV_NO_SYNC &&
                       team->mutex != ZOV_NO_SYNC;
  if (complete) {
    run(team);
  }
  zov_queueTerm(1); /* deletes both queues */
  return complete ? 0 : 1;
}

int main(void) {
  static struct team team;
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  const int status = work(&team);
  zov_term(); /* releases the sync objects */
  return status;
}
