// SPDX-License-Identifier: Apache-2.0
//
// The start of a server in the background. The process that a shell started,
// the launcher, forks; its child becomes the server while the launcher waits, and
// ends with a status that tells how the start-up ended:
//
//   launcher --fork--> server
//      |                  |  new session, standard streams on /dev/null
//      |                  |  the program's own start-up
//      | <---one byte-----|  zov_daemonComplete()
//   exit 0                |  serves
//
// The byte comes over a pipe that both have from before the fork. SIGCHLD tells the
// launcher of a server that ends without it.
//
// SIGCHLD is blocked from before the fork and let in only while the launcher
// sleeps in ppoll(), so that an end however early interrupts that sleep. The
// handler does nothing else: the launcher prints and exits outside of it. A server
// may report and end at once, so the launcher looks at the pipe after it has
// learned of the end: a report is in it by then, and counts.
//
// There is no state, lock or allocation from a tag; nothing jumps.
#include <assert.h>
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

namespace zov {
namespace {

constexpr int kStoppedStatus = 99;
constexpr int kLostStatus = 255;

// How long the launcher looks for the end of a server that has closed the pipe, and
// how often.
constexpr uint32_t kDyingMs = 2000;
constexpr uint32_t kLookMs = 10;

// Shared by launcher and server. Every descriptor is above the standard three, also
// in a process that was started without those.
struct Channel {
  int readEnd;
  int writeEnd;
  int nullDevice;
};

// The caller's settings for SIGCHLD.
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

// Sets the default action: where a caller ignores SIGCHLD its children leave no
// status behind.
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

// Ends the launcher the way its server ended. Prints through libc, as the program
// may not have set up the message path.
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

// Waits until the server reports. False when no process is left that could. The mask
// lets SIGCHLD in, which may tell of other children too.
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
    // A process that ends closes the pipe before SIGCHLD tells of its end.
    for (uint32_t waitedMs = 0; waitedMs < kDyingMs; waitedMs += kLookMs) {
      zov_sleep(kLookMs);
      followServer(server, channel.readEnd);
    }
  }
  zov_log("%s started successfully.\n", server_name);
  close(channel.readEnd);
  exit(0);
}

// Leads the standard streams and descriptors to nowhere. If they were closed, the
// next files opened would get their numbers, and with them stray output.
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

// Writes the report and drops the SIGPIPE that it causes when the launcher has ended.
// The program's own setting for SIGPIPE is not touched, and one that waited before
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
  assert(channel.nullDevice > STDERR_FILENO && channel.writeEnd > STDERR_FILENO);
  restoreChildSignals(before);
  umask(0);
  if (setsid() < 0) {    // GCOVR_EXCL_BR_LINE: a process just forked leads no group
    _exit(kLostStatus);  // GCOVR_EXCL_LINE
  }
  storeFlag(zov_background, 1);
  silenceStreams(channel.nullDevice);
  close(channel.nullDevice);
  close(channel.readEnd);
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_daemonStart(const char *serverName, int32_t *out) {
  *out = -1;
  zov::Channel channel;
  if (!zov::openChannel(channel)) {
    return ZOV_ERROR;
  }
  server_name = serverName;
  // Output still in memory would be lost with the server's streams, or be written
  // twice. Input that was read ahead is given back to the file once, and not by each
  // of the two.
  zov_log_flush();
  fflush(nullptr);
  fflush(stdin);
  zov::ChildSignals before;
  zov::holdChildSignals(before);
  const pid_t server = fork();
  if (server < 0) {
    zov::restoreChildSignals(before);
    zov::closeChannel(channel);
    return ZOV_ERROR;
  }
  if (server > 0) {
    zov::awaitServer(server, channel, before);
  }
  zov::becomeServer(channel, before);
  *out = channel.writeEnd;
  return ZOV_OKAY;
}

void zov_daemonComplete(int32_t descriptor) {
  zov::writeReport(descriptor);
  close(descriptor);
}
}
