/* SPDX-License-Identifier: Apache-2.0
 *
 * A server that looks around in the foreground, where it can be seen to fail, and
 * then goes into the background. docs/services.md walks through it.
 */
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

static void serve(void) {
  zov_log("%s serves, process %u\n", server_name, zov_get_pid());
}

int main(void) {
  int32_t report = -1;
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
  if (zov_log_open("guided.log") != ZOV_OKAY) {
    zov_term();
    return 2; /* the launcher passes it on */
  }
  zov_daemonComplete(report);
  serve();
  zov_term();
  return 0;
}
