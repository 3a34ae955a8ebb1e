/* SPDX-License-Identifier: Apache-2.0
 *
 * A server that looks around in the foreground, where it can be seen to fail, and
 * then goes into the background until somebody ends it. docs/services.md walks
 * through it.
 */
#define _POSIX_C_SOURCE 200809L /* for sets of signals */
#include <signal.h>
#include <zov.h>

static volatile sig_atomic_t interrupted = 0;

/* Runs in signal context: a flag is all it sets. */
static void onInterrupt(void) {
  interrupted = 1;
}

static int hasScratch(void) {
  char *directory = zov_tmpdir(ZOV_DEFAULT_TAG);
  const int writable = zov_dirWritable(directory);
  zov_freeMem(directory, ZOV_DEFAULT_TAG);
  return writable;
}

/* How long a nap takes. The clock is for differences: its values wrap, which
 * subtraction without a sign does not mind. */
static uint32_t nap(uint32_t waitMs) {
  const uint32_t start = zov_timeMilliSecs();
  zov_sleep(waitMs);
  return zov_timeMilliSecs() - start;
}

/* Waits for SIGTERM. It is blocked, so it may come early or late. */
static void serve(const sigset_t *ending) {
  int received = 0;
  sigwait(ending, &received);
  zov_log("%s ends on signal %d\n", server_name, received);
}

int main(void) {
  int32_t report = -1;
  sigset_t ending;
  if (zov_init() != ZOV_OKAY) {
    return 1;
  }
  zov_handleInterrupt(onInterrupt);
  raise(SIGINT);
  zov_printf("interrupted: %s\n", interrupted ? "yes" : "no");
  zov_printf("temporary files: %s\n", hasScratch() ? "possible" : "impossible");
  zov_printf("time passed: %s\n", nap(20) > 0 ? "yes" : "no");

  /* From here on this is the server; whoever started the program waits. */
  if (zov_daemonStart("guided", &report) != ZOV_OKAY) {
    zov_term();
    return 1;
  }
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, NULL);
  if (zov_log_open("guided.log") != ZOV_OKAY) {
    zov_term();
    return 2; /* the launcher passes it on */
  }
  zov_log("%s serves, process %u\n", server_name, zov_get_pid());
  zov_daemonComplete(report);
  serve(&ending);
  zov_term();
  return 0;
}
