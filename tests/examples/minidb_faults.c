/* SPDX-License-Identifier: Apache-2.0
 *
 * Preloaded into a program it makes one call fail. MINIDB_FAULT has the name of the
 * call, its number from 1 on among the program's, and what becomes of it: the number of
 * an error, "kill", which ends the process there, or "short" for a transfer of one byte.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static atomic_long uses;

/* Whether the use of a call fails, with errno set; cuts the length of a short one. */
static int strikes(const char *call, size_t *length) {
  const char *fault = getenv("MINIDB_FAULT");
  const size_t named = strlen(call);
  if (fault == NULL || strncmp(fault, call, named) != 0 || fault[named] != ':') {
    return 0;
  }
  char *what = NULL;
  if (atomic_fetch_add(&uses, 1) + 1 != strtol(fault + named + 1, &what, 10)) {
    return 0;
  }
  if (strcmp(what, ":kill") == 0) {
    syscall(SYS_kill, getpid(), SIGKILL);
  }
  if (strcmp(what, ":short") == 0) {
    *length = length != NULL && *length > 1 ? 1 : *length;
    return 0;
  }
  errno = atoi(what + 1);
  return 1;
}

#define FAULT(type, name, call, parameters, arguments, length, failure) \
  type name parameters {                                                \
    static type(*next) parameters;                                      \
    if (strikes(#call, length)) {                                       \
      return failure;                                                   \
    }                                                                   \
    if (next == NULL) {                                                 \
      next = (type(*) parameters)(intptr_t)dlsym(RTLD_NEXT, #name);     \
    }                                                                   \
    return next arguments;                                              \
  }

FAULT(ssize_t, pwrite, write, (int f, const void *b, size_t n, off_t o), (f, b, n, o), &n, -1)
FAULT(ssize_t, write, write, (int f, const void *b, size_t n), (f, b, n), &n, -1)
FAULT(ssize_t, send, send, (int f, const void *b, size_t n, int o), (f, b, n, o), &n, -1)
FAULT(ssize_t, recv, recv, (int f, void *b, size_t n, int o), (f, b, n, o), &n, -1)
FAULT(int, fsync, fsync, (int f), (f), NULL, -1)
FAULT(int, poll, poll, (struct pollfd * p, nfds_t n, int t), (p, n, t), NULL, -1)
FAULT(int, accept4, accept, (int f, __SOCKADDR_ARG a, socklen_t *n, int o), (f, a, n, o), NULL, -1)
FAULT(int, pthread_create, thread,
      (pthread_t * t, const pthread_attr_t *a, void *(*s)(void *), void *p), (t, a, s, p), NULL,
      EAGAIN)

#ifndef __SANITIZE_ADDRESS__
extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);

void *malloc(size_t size) {
  return strikes("malloc", NULL) ? NULL : __libc_malloc(size);
}
void *calloc(size_t n, size_t size) {
  return strikes("malloc", NULL) ? NULL : __libc_calloc(n, size);
}
void *realloc(void *block, size_t size) {
  return strikes("malloc", NULL) ? NULL : __libc_realloc(block, size);
}
#endif
