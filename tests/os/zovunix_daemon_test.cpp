// SPDX-License-Identifier: Apache-2.0
//
// The start of a server in the background, seen from the process that starts
// its launcher; the descriptor limit, the interrupt hook and the services.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include "os/zovunix_limit.h"
#include "support/faults.h"

namespace {

using zovtest::Call;
using zovtest::Fault;

// What a server finds around it, written before it does anything else.
struct Facts {
  pid_t pid;
  char text[100];
};

Facts *facts = nullptr;  // shared by all processes of a test
pid_t sibling = -1;

bool isNull(int descriptor) {
  struct stat found;
  return fstat(descriptor, &found) == 0 && found.st_rdev == makedev(1, 3);
}

Facts factsOf(int32_t descriptor) {
  const mode_t mask = umask(0);
  umask(mask);
  struct sigaction action;
  sigset_t blocked;
  sigaction(SIGCHLD, nullptr, &action);
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  Facts found = {getpid(), ""};
  snprintf(found.text, sizeof found.text,
           "session %d background %d null %d above %d %o SIGCHLD %d%d", getsid(0) == getpid(),
           zov_background, isNull(0) && isNull(1) && isNull(2) && puts("") > 0, descriptor > 2,
           mask, action.sa_handler == SIG_IGN, sigismember(&blocked, SIGCHLD));
  return found;
}

// The launcher and then the server, which lives on when its function returns.
[[noreturn]] void launch(void (*prepare)(), void (*serve)(int32_t)) {
  int32_t descriptor = -1;
  prepare();
  if (zov_init() == ZOV_OKAY && zov_daemonStart("tested", &descriptor) == ZOV_OKAY) {
    *facts = factsOf(descriptor);
    serve(descriptor);
    alarm(100);
    pause();
  }
  _exit(101);
}

// Runs a launcher and gives "status: output". The output ends only when the
// server has let go of it too. No server survives, a child of the test by then.
std::string resultOf(void (*prepare)(), void (*serve)(int32_t)) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  fflush(nullptr);
  *facts = {};
  const pid_t launcher = fork();
  if (launcher == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    launch(prepare, serve);
  }
  close(ends[1]);
  std::string output;
  for (char byte; read(ends[0], &byte, 1) == 1;) {
    output += byte;
  }
  close(ends[0]);
  int status = -1;
  EXPECT_TRUE(waitpid(launcher, &status, 0) == launcher && WIFEXITED(status));
  if (facts->pid > 0 && waitpid(facts->pid, nullptr, WNOHANG) == 0) {
    kill(facts->pid, SIGKILL);
    waitpid(facts->pid, nullptr, 0);
  }
  return std::to_string(WEXITSTATUS(status)) + ": " + output;
}

void plain() {
  umask(077);
}

void blocking() {
  sigset_t set;
  sigfillset(&set);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// One that sees nothing of its server until that has ended.
void lateLauncher() {
  static const Fault late(Call::ppoll, [](uint32_t) {
    siginfo_t ignored;
    waitid(P_ALL, 0, &ignored, WEXITED | WNOWAIT);
  });
}

// And with text without a newline in a buffer that launcher and server share.
void withSibling() {
  sibling = fork();
  while (sibling == 0) {
    pause();
  }
  printf("0: ");
}

void exits(int32_t) {
  _exit(3);
}

void reportsAndExits(int32_t pipe) {
  zov_daemonComplete(pipe);
  _exit(5);
}

void stops(int32_t) {
  raise(SIGSTOP);
}

constexpr char kStarted[] = "0: tested started successfully.\n";
constexpr char kAborted[] = "3: tested startup aborted with a status of 3.";
constexpr char kStopped[] = "99: Unexpected status signal from tested child process.\n";

TEST(Daemon, LauncherEndsAsItsServerDoes) {
  const struct {
    int line;
    void (*prepare)();
    void (*serve)(int32_t);
    std::string result;
    std::string childSignal = "00";
    int rounds = 20;
  } rows[] = {
      {__LINE__, plain, zov_daemonComplete, kStarted},
      {__LINE__, plain, exits, kAborted},
      {__LINE__, plain, [](int32_t) { raise(SIGKILL); },
       "247: tested terminated by internal error or external signal (9).\n"},
      {__LINE__, plain, stops, kStopped},
      {__LINE__, plain, reportsAndExits, kStarted},
      {__LINE__, lateLauncher, reportsAndExits, kStarted},
      {__LINE__, plain, [](int32_t pipe) { zov_daemonComplete(pipe), raise(SIGSTOP); }, kStarted},
      {__LINE__, plain, [](int32_t pipe) { close(pipe), _exit(3); }, kAborted},
      {__LINE__, plain, [](int32_t pipe) { close(pipe); }, kStarted, "00", 2},
      {__LINE__, withSibling,
       [](int32_t pipe) { kill(sibling, SIGKILL), zov_daemonComplete(pipe); },
       std::string("0: ") + kStarted},
      {__LINE__, [] { signal(SIGCHLD, SIG_IGN), lateLauncher(); }, exits, kAborted, "10"},
      {__LINE__, blocking, stops, kStopped, "01"},
      {__LINE__, [] { close(0), close(1), close(2); }, exits, "3: "},
  };
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  facts = static_cast<Facts *>(
      mmap(nullptr, sizeof *facts, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (const auto &row : rows) {
    for (int round = 0; round < row.rounds; ++round) {
      ASSERT_EQ(resultOf(row.prepare, row.serve), row.result) << "row " << row.line;
      ASSERT_EQ(facts->text, "session 1 background 1 null 1 above 1 0 SIGCHLD " + row.childSignal)
          << "row " << row.line;
    }
  }
}

TEST(Daemon, FailsInTheForeground) {
  const int firstFree = dup(0);
  close(firstFree);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const std::string before = factsOf(-1).text;
  // The pipe cannot be had, nor /dev/null, nor the process.
  for (const rlim_t allowed : {0u, 1u, 2u, 3u}) {
    const rlimit tight = {static_cast<rlim_t>(firstFree) + allowed, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    const Fault failing(Call::fork, allowed == 3 ? 1 : UINT32_MAX, EAGAIN);
    int32_t out = 7;
    EXPECT_EQ(zov_daemonStart("tested", &out), ZOV_ERROR);
    EXPECT_EQ(out, -1);
    EXPECT_STREQ(server_name, allowed == 3 ? "tested" : "unknown");
    EXPECT_EQ(before, factsOf(out).text);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(dup(0), firstFree) << "a descriptor is left open";
}

TEST(StartUp, PreparesTheProcess) {
  EXPECT_EQ(zov::raisedLimit({256, RLIM_INFINITY}).rlim_cur, 1024u);
  EXPECT_EQ(zov::raisedLimit({2048, RLIM_INFINITY}).rlim_cur, 2048u);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 256;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  deviceHead = ends;
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_TRUE(getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == limit.rlim_max);
  EXPECT_EQ(write(ends[1], "x", 1), -1) << "and the process lives on";
  EXPECT_EQ(deviceHead, nullptr);
  EXPECT_NE(deviceSem, ZOV_NO_SYNC);
  zov_term();
  EXPECT_EQ(deviceSem, ZOV_NO_SYNC);
}

int interrupts = 0;

TEST(Interrupt, IsDroppedWhileTheCallbackRuns) {
  zov_handleInterrupt([] { ++interrupts, raise(SIGINT); });
  raise(SIGINT);
  raise(SIGINT);
  EXPECT_EQ(interrupts, 2);
  zov_handleInterrupt([] { ++interrupts, zov_handleInterrupt(nullptr); });
  raise(SIGINT);
  raise(SIGINT);
  EXPECT_EQ(interrupts, 3) << "ignored from inside the callback";
}

TEST(Service, IsThePlainProgram) {
  const auto program = [](int32_t count, char **) { return count + 1; };
  EXPECT_EQ(zov_serviceStart(nullptr, nullptr, 42, nullptr, program), 43);
  EXPECT_EQ(zov_serviceInstall(), ZOV_ERROR);
  EXPECT_EQ(zov_serviceUninstall(), ZOV_ERROR);
  EXPECT_EQ(zovtest::outputOf([] { EXPECT_GE(zov_errPrint("100%s"), 0); }), "100%s\n");
}

}  // namespace
