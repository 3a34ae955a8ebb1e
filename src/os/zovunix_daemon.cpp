// SPDX-License-Identifier: Apache-2.0
//
// The start of a server in the background. The process that a shell started,
// the launcher, forks; its child becomes the server while the launcher waits,
// and whatever the start-up comes to is the launcher's exit status:
//
//   launcher --fork--> server
//      |                  |  new session, standard streams on /dev/null
//      |                  |  the program's own start-up
//      | <---one byte-----|  zov_daemonComplete()
//   exit 0                |  serves
//
// The byte comes over a pipe that both have from before the fork. A server that
// ends without it is noticed by SIGCHLD, and the launcher ends with a status
// that says how.
//
// SIGCHLD is blocked from before the fork and let in only while the launcher
// sleeps in ppoll(), so that an end however early interrupts that sleep. The
// handler has nothing else to do: what needs printing and exiting is not done in
// signal context. Since a server may report and end at once, the launcher looks
// at the pipe after it has learned of the end: what was reported is in it by
// then, and counts.
//
// No state of the module's own, no locks, no allocations from a tag; nothing
// jumps.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/zov_flags.h"

namespace {

constexpr int kStoppedStatus = 99;
constexpr int kLostStatus = 255;

// How long the end of a server that let go of the pipe may take to show, and
// how often it is looked for.
constexpr uint32_t kDyingMs = 2000;
constexpr uint32_t kLookMs = 10;

// What launcher and server have in common. Every descriptor is above the
// standard three, also in a process that was started without those.
struct Channel {
  int readEnd;
  int writeEnd;
  int nullDevice;
};

// What the caller had set for SIGCHLD.
struct ChildSignals {
  sigset_t mask;
  struct sigaction action;
};

int aboveStandard(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO) {
    return descriptor;
  }
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(descriptor);
  return moved;
}

void closeChannel(const Channel &channel) {
  for (const int descriptor : {channel.readEnd, channel.writeEnd, channel.nullDevice}) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

bool openChannel(Channel &channel) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  channel.readEnd = aboveStandard(ends[0]);
  channel.writeEnd = aboveStandard(ends[1]);
  channel.nullDevice = aboveStandard(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (channel.readEnd < 0 || channel.writeEnd < 0 || channel.nullDevice < 0) {
    closeChannel(channel);
    return false;
  }
  return true;
}

// Where a caller ignores SIGCHLD its children leave no status behind, hence the
// default action.
void holdChildSignals(ChildSignals &before) {
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &held, &before.mask);
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &action, &before.action);
}

void restoreChildSignals(const ChildSignals &before) {
  sigaction(SIGCHLD, &before.action, nullptr);
  pthread_sigmask(SIG_SETMASK, &before.mask, nullptr);
}

bool hasReported(int reportEnd) {
  pollfd report = {reportEnd, POLLIN, 0};
  return poll(&report, 1, 0) == 1 && (report.revents & POLLIN) != 0;
}

// Ends the launcher the way its server ended. Goes through libc: the message
// path is the program's to set up, which it may not have done.
[[noreturn]] void endAsServer(int status) {
  if (WIFEXITED(status)) {
    fprintf(stderr, "%s startup aborted with a status of %d.", server_name, WEXITSTATUS(status));
    exit(WEXITSTATUS(status));
  }
  if (WIFSTOPPED(status)) {
    fprintf(stderr, "Unexpected status signal from %s child process.\n", server_name);
    exit(kStoppedStatus);
  }
  fprintf(stderr, "%s terminated by internal error or external signal (%d).\n", server_name,
          WTERMSIG(status));
  exit(-WTERMSIG(status));
}

// Ends the launcher if the server ended or was stopped before it reported.
void followServer(pid_t server, int reportEnd) {
  int status = 0;
  if (waitpid(server, &status, WNOHANG | WUNTRACED) == server && !hasReported(reportEnd)) {
    endAsServer(status);
  }
}

void zov_sigchld_handler(int) {}

// Waits until the server reports or nobody is left who could; false for the
// latter. The mask lets SIGCHLD in, which may be about other children too.
bool waitForReport(pid_t server, int reportEnd, const sigset_t &waitMask) {
  pollfd waited = {reportEnd, POLLIN, 0};
  while (ppoll(&waited, 1, nullptr, &waitMask) < 0) {
    followServer(server, reportEnd);
  }
  char report;
  ssize_t got;
  do {
    got = read(reportEnd, &report, 1);
  } while (got < 0 && errno == EINTR);
  return got == 1;
}

// The launcher from the fork on.
[[noreturn]] void awaitServer(pid_t server, const Channel &channel, const ChildSignals &before) {
  struct sigaction action = {};
  action.sa_handler = zov_sigchld_handler;
  sigaction(SIGCHLD, &action, nullptr);
  close(channel.writeEnd);
  close(channel.nullDevice);
  sigset_t waitMask = before.mask;
  sigdelset(&waitMask, SIGCHLD);
  if (!waitForReport(server, channel.readEnd, waitMask)) {
    // The pipe of a process that ends is closed before its end shows.
    for (uint32_t waitedMs = 0; waitedMs < kDyingMs; waitedMs += kLookMs) {
      zov_sleep(kLookMs);
      followServer(server, channel.readEnd);
    }
  }
  zov_log("%s started successfully.\n", server_name);
  close(channel.readEnd);
  exit(0);
}

// Closes the standard streams. Streams and descriptors stay usable and lead
// nowhere; otherwise the next files opened would get these numbers and with
// them what is printed by chance.
void silenceStreams(int nullDevice) {
  struct Standard {
    FILE *stream;
    const char *mode;
    int descriptor;
  };
  for (const Standard &each :
       {Standard{stdin, "r", STDIN_FILENO}, Standard{stdout, "w", STDOUT_FILENO},
        Standard{stderr, "w", STDERR_FILENO}}) {
    [[maybe_unused]] const FILE *reopened = freopen("/dev/null", each.mode, each.stream);
    dup2(nullDevice, each.descriptor);
  }
}

// Writes the report and drops the SIGPIPE that it earns when the launcher is gone
// already. Only the library's start-up has SIGPIPE ignored, and what the program
// has set for it is not to be touched. A signal of this kind that waited before
// stays.
void writeReport(int descriptor) {
  sigset_t brokenPipe;
  sigset_t before;
  sigset_t waiting;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  sigemptyset(&waiting);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
  sigpending(&waiting);
  constexpr char kReport = 1;
  while (write(descriptor, &kReport, 1) < 0 && errno == EINTR) {
  }
  if (sigismember(&waiting, SIGPIPE) == 0) {
    constexpr timespec kAtOnce{};
    sigtimedwait(&brokenPipe, nullptr, &kAtOnce);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The server from the fork on.
void becomeServer(const Channel &channel, const ChildSignals &before) {
  restoreChildSignals(before);
  umask(0);
  if (setsid() < 0) {
    _exit(kLostStatus);
  }
  zov::storeFlag(zov_background, 1);
  silenceStreams(channel.nullDevice);
  close(channel.nullDevice);
  close(channel.readEnd);
}

}  // namespace

extern "C" {

int32_t zov_daemonStart(const char *serverName, int32_t *out) {
  *out = -1;
  Channel channel;
  if (!openChannel(channel)) {
    return ZOV_ERROR;
  }
  server_name = serverName;
  // What is still in memory would be lost with the server's streams, or be
  // written twice. What was read ahead from a file is given back once, and not by
  // each of the two.
  zov_log_flush();
  fflush(nullptr);
  fflush(stdin);
  ChildSignals before;
  holdChildSignals(before);
  const pid_t server = fork();
  if (server < 0) {
    restoreChildSignals(before);
    closeChannel(channel);
    return ZOV_ERROR;
  }
  if (server > 0) {
    awaitServer(server, channel, before);
  }
  becomeServer(channel, before);
  *out = channel.writeEnd;
  return ZOV_OKAY;
}

void zov_daemonComplete(int32_t descriptor) {
  writeReport(descriptor);
  close(descriptor);
}
}
