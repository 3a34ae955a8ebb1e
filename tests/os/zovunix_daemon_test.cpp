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
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;

// Shared by all processes of a test: what tells launcher and server of each other,
// so that either comes first, and what the server found around it.
struct Meeting {
  std::atomic<pid_t> server;
  std::atomic<bool> launcherWaits;
  std::atomic<bool> serverActed;
  char facts[100];
};

Meeting *meeting = nullptr;
pid_t sibling = -1;

bool serverActedOrEnded() {
  siginfo_t end = {};
  const pid_t server = meeting->server;
  return meeting->serverActed || (server > 0 &&
                                  waitid(P_PID, static_cast<id_t>(server), &end,
                                         WEXITED | WSTOPPED | WNOWAIT | WNOHANG) == 0 &&
                                  end.si_pid == server);
}

bool isNull(int descriptor) {
  struct stat found;
  return fstat(descriptor, &found) == 0 && found.st_rdev == makedev(1, 3);
}

std::string factsOf(int32_t descriptor) {
  const mode_t mask = umask(0);
  umask(mask);
  struct sigaction action;
  sigset_t blocked;
  sigaction(SIGCHLD, nullptr, &action);
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  char found[sizeof meeting->facts];
  snprintf(found, sizeof found, "session %d background %d null %d above %d %o SIGCHLD %d%d",
           getsid(0) == getpid(), zov_background,
           isNull(0) && isNull(1) && isNull(2) && puts("") > 0, descriptor > 2, mask,
           action.sa_handler == SIG_IGN, sigismember(&blocked, SIGCHLD));
  return found;
}

// The launcher and then the server, which lives on when its function returns.
// Before the launcher sleeps the server has done all; or it waits for that.
[[noreturn]] void launch(void (*prepare)(), void (*serve)(int32_t), bool serverFirst) {
  int32_t descriptor = -1;
  const Fault sleeps(Call::ppoll, [serverFirst](uint32_t) {
    meeting->launcherWaits = true;
    if (serverFirst) {
      zovtest::waitUntil(serverActedOrEnded);
    }
  });
  prepare();
  if (zov_init() == ZOV_OKAY && zov_daemonStart("tested", &descriptor) == ZOV_OKAY) {
    strcpy(meeting->facts, factsOf(descriptor).c_str());
    meeting->server = getpid();
    if (!serverFirst) {
      zovtest::waitUntil([] { return meeting->launcherWaits.load(); });
    }
    serve(descriptor);
    meeting->serverActed = true;
    alarm(100);
    pause();
  }
  _exit(101);
}

// Runs a launcher and gives "status: output". The output ends only when the
// server has let go of it too. No process survives, all children of the test by then.
std::string resultOf(void (*prepare)(), void (*serve)(int32_t), bool serverFirst) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  void *shared =
      mmap(nullptr, sizeof *meeting, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  meeting = new (shared) Meeting{};
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  fflush(nullptr);
  const pid_t launcher = fork();
  if (launcher == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    launch(prepare, serve, serverFirst);
  }
  close(ends[1]);
  std::string output;
  for (char byte; read(ends[0], &byte, 1) == 1;) {
    output += byte;
  }
  close(ends[0]);
  int status = -1;
  EXPECT_TRUE(waitpid(launcher, &status, 0) == launcher && WIFEXITED(status));
  const pid_t server = meeting->server;
  if (server > 0 && waitpid(server, nullptr, WNOHANG) == 0) {
    kill(server, SIGKILL);
  }
  while (wait(nullptr) > 0) {
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

// Whose first read of the report is interrupted.
void interrupted() {
  static const Fault reads(Call::read, 1, EINTR);
  atexit([] { printf("read %u times", reads.uses()); });
}

int script = -1;

// That takes 20 of 25 bytes and has read them all.
void readsScript() {
  char taken[20];
  lseek(script, 0, SEEK_SET);
  dup2(script, STDIN_FILENO);
  EXPECT_EQ(fread(taken, 1, sizeof taken, stdin), sizeof taken);
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
  } rows[] = {
      {__LINE__, plain, zov_daemonComplete, kStarted},
      {__LINE__, plain, exits, kAborted},
      {__LINE__, plain, [](int32_t) { raise(SIGKILL); },
       "247: tested terminated by internal error or external signal (9).\n"},
      {__LINE__, plain, stops, kStopped},
      {__LINE__, plain, [](int32_t pipe) { zov_daemonComplete(pipe), _exit(5); }, kStarted},
      {__LINE__, plain, [](int32_t pipe) { zov_daemonComplete(pipe), raise(SIGSTOP); }, kStarted},
      {__LINE__, plain, [](int32_t pipe) { close(pipe), _exit(3); }, kAborted},
      {__LINE__, plain, [](int32_t pipe) { close(pipe); }, kStarted},
      {__LINE__, withSibling,
       [](int32_t pipe) { kill(sibling, SIGKILL), zov_daemonComplete(pipe); },
       std::string("0: ") + kStarted},
      {__LINE__, [] { signal(SIGCHLD, SIG_IGN); }, exits, kAborted, "10"},
      {__LINE__, blocking, stops, kStopped, "01"},
      {__LINE__, interrupted,
       [](int32_t pipe) {
         const Fault writes(Call::write, 1, EINTR);
         zov_daemonComplete(pipe), _exit(5);
       },
       kStarted + std::string("read 2 times")},
      {__LINE__, readsScript, zov_daemonComplete, kStarted},
      {__LINE__, blocking, [](int32_t pipe) { raise(SIGPIPE), zov_daemonComplete(pipe), _exit(5); },
       kStarted, "01"},
  };
  FILE *input = tmpfile();
  fputs("shared by all who read it", input);
  fflush(input);
  script = fileno(input);
  for (const auto &row : rows) {
    for (const bool serverFirst : {false, true}) {
      SCOPED_TRACE(testing::Message() << "row " << row.line << " server first " << serverFirst);
      ASSERT_EQ(resultOf(row.prepare, row.serve, serverFirst), row.result);
      ASSERT_EQ(meeting->facts,
                "session 1 background 1 null 1 above 1 0 SIGCHLD " + row.childSignal);
    }
  }
  EXPECT_EQ(lseek(script, 0, SEEK_CUR), 20) << "what was not taken is given back once";
  fclose(input);
}

// Also where the library is not started, which would have SIGPIPE ignored and the
// standard descriptors filled.
TEST(Daemon, OutlivesItsLauncher) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t launcher = fork();
  if (launcher == 0) {
    int32_t pipe = -1;
    close(0), close(1), close(2);
    for (const uint32_t end : {1u, 2u}) {
      const Fault noRoom(Call::fcntl, end, EMFILE);
      zov_daemonStart("tested", &pipe) == ZOV_ERROR ? void() : abort();
    }
    zov_daemonStart("tested", &pipe);
    const pid_t parent = getppid();
    kill(parent, SIGKILL);
    zovtest::waitUntil([parent] { return getppid() != parent; });
    zov_daemonComplete(pipe);
    _exit(pipe > 2 ? 7 : 8);
  }
  int status = -1;
  EXPECT_TRUE(waitpid(launcher, &status, 0) == launcher && WTERMSIG(status) == SIGKILL);
  EXPECT_TRUE(wait(&status) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

std::vector<int> closedOnes;
std::string database;
ZOV_FILE openDatabase = nullptr;

bool isFilledAndUseless(int descriptor) {
  const char *names[] = {"stdin", "stdout", "stderr"};
  ZOV_FILE stream = zov_fileOpen(names[descriptor], descriptor == 0 ? O_RDONLY : O_WRONLY, 0);
  char byte = 0;
  const ssize_t moved = descriptor == 0 ? read(descriptor, &byte, 1) : write(descriptor, &byte, 1);
  return moved == -1 && errno == EBADF && isNull(descriptor) && fcntl(descriptor, F_GETFD) == 0 &&
         zov_fileLock(stream) == ZOV_ERROR;
}

// Starts the library with standard descriptors closed and opens a file.
void opensDatabase() {
  std::for_each(closedOnes.begin(), closedOnes.end(), close);
  zov_init();
  if (!std::all_of(closedOnes.begin(), closedOnes.end(), isFilledAndUseless)) {
    _exit(102);
  }
  openDatabase = zov_fileOpen(database.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0);
}

void writesDatabase(int32_t pipe) {
  zov_fileWrite(openDatabase, "kept", 4);
  zov_daemonComplete(pipe);
}

TEST(StartUp, FillsClosedStandardDescriptors) {
  const zovtest::TempDir dir;
  database = dir / "database";
  constexpr char kUnsaid[] = "0: Write failed, errno = 9\n";
  const std::pair<std::vector<int>, std::string> rows[] = {
      {{0}, kStarted},    {{1}, kUnsaid},  {{2}, kStarted},    {{0, 1}, kUnsaid},
      {{0, 2}, kStarted}, {{1, 2}, "0: "}, {{0, 1, 2}, "0: "},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    closedOnes = row.first;
    EXPECT_EQ(resultOf(opensDatabase, writesDatabase, true), row.second);
    EXPECT_EQ(zovtest::readFile(database), "kept");
  }
}

// No such device, and one that gets another number.
TEST(StartUp, LeavesDescriptorsThatItCannotFill) {
  const int input = dup(0);
  const auto startsWithout = [input](auto... fault) {
    close(0);
    const Fault opens(Call::open, fault...);
    EXPECT_EQ(zov_init(), ZOV_OKAY);
    zov_term();
    EXPECT_EQ(opens.uses(), 1u);
    EXPECT_EQ(dup2(input, 0), 0);
  };
  const int64_t before = zovtest::openDescriptors();
  startsWithout(1u, ENOENT);
  startsWithout([input](uint32_t) { dup2(input, 0); });
  EXPECT_EQ(zovtest::openDescriptors(), before);
  close(input);
}

TEST(Daemon, FailsInTheForeground) {
  const std::string before = factsOf(-1);
  for (const Call call : {Call::pipe2, Call::open, Call::fork}) {
    const Fault failing(call, 1, EAGAIN);
    int32_t out = 7;
    EXPECT_EQ(zov_daemonStart("tested", &out), ZOV_ERROR);
    EXPECT_TRUE(failing.struck());
    EXPECT_EQ(out, -1);
    EXPECT_STREQ(server_name, call == Call::fork ? "tested" : "unknown");
    EXPECT_EQ(before, factsOf(out));
  }
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
  close(ends[1]);
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
