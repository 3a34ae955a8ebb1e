// SPDX-License-Identifier: Apache-2.0
//
// Threads at work on all families at once, for ZOV_SOAK_SECONDS or two. They do jobs at
// random, in rounds, and keep an account of each message, block, byte, record and thread;
// after each round the sums have to agree and nothing may be left of it.
#include <chrono>
#include <set>
#include <sstream>

#include "config/zovbuffer_walk.h"
#include "expression_tables.h"
#include "support/faults.h"
#include "support/route_file.h"
#include "support/temp_dir.h"
#include "text/zov_stream_walk.h"

namespace {

using std::string;
using std::to_string;
using Sum = std::atomic<uint64_t>;

constexpr uint32_t kThreads = 8;
constexpr uint32_t kFileBytes = 5000 * kThreads;
constexpr uint16_t kRoutes[] = {0, ZOV_FILE_MEMORY};

// What the threads of a round share, and their accounts.
struct Round {
  const string dir;
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  ZOV_POOL pool = zov_allocPool(tag, 0, 1);
  const ZOV_QUEUE queue = zov_queueCreate("soak");
  const ZOV_SYNC mutex = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  ZOV_FILE files[2] = {};
  std::atomic<uint64_t *> held[2][8] = {};  // of the tag, of the pool
  uint64_t guarded = 0;                     // by the mutex
  int32_t settings[2][kThreads] = {};
  Sum entered{0}, sent{0}, received{0}, bytes{0}, logged{0}, printed{0}, appended[2]{};
  Sum started{kThreads}, ended{0}, jobs{0};

  string path(const char *name, uint32_t number) const { return dir + name + to_string(number); }
};

struct Worker : zovtest::Dice {
  Round &round;
  const uint32_t id;
  uint32_t records = 0;
  uint32_t messages = 0;
  uint32_t next[kThreads] = {};  // by writer, the least number of its next message
};

bool isUniform(const string &bytes) {
  return bytes.find_first_not_of(bytes[0]) == string::npos;
}

void release(Round &round, bool isPooled, uint64_t *block) {
  if (block != nullptr) {
    EXPECT_TRUE(isUniform(string(reinterpret_cast<char *>(block + 1), *block)));
    round.bytes -= *block;
    isPooled ? zov_putInPool(block, round.pool) : zov_freeMem(block, round.tag);
  }
}

// Makes a block, and releases one that another thread may have made.
void allocate(Round &round, Worker &self) {
  const bool isPooled = self.below(2) == 0;
  const uint64_t length = self.below(700);
  void *block = isPooled ? zov_getMemFromPool(length + 8, round.pool, 0, nullptr, ZOV_HERE)
                         : zov_getMem(8, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  if (!isPooled) {
    block = zov_extendMem(block, length + 8, ZOV_DEFAULT_TAG, 0, length, ZOV_HERE);
    zov_moveMemTag(block, round.tag, ZOV_DEFAULT_TAG);
  }
  uint64_t *const mine = static_cast<uint64_t *>(block);
  *mine = length;
  memset(mine + 1, static_cast<int>(self.id), length);
  round.bytes += length;
  release(round, isPooled, round.held[isPooled][self.below(8)].exchange(mine));
}

// Messages of one writer are read in its order. Some come from threads of their own.
void receive(Round &round, uint32_t (&next)[kThreads], uint32_t waitMs) {
  uint64_t data = 0;
  uint32_t number = 0, writer = kThreads;
  if (zov_queueRead(round.queue, &data, &number, &writer, waitMs) == ZOV_OKAY) {
    EXPECT_TRUE(writer == kThreads || number >= std::exchange(next[writer], number + 1));
    round.received += data;
  }
}

void message(Round &round, Worker &self) {
  const auto sendOne = [](void *shared) -> void * {
    zov_queueWrite(static_cast<Round *>(shared)->queue, 1, 0, kThreads, ZOV_QUEUE_FRONT);
    ++static_cast<Round *>(shared)->ended;
    zov_threadEnd();
  };
  const uint64_t data = self() >> 40;
  round.sent += data + 1;
  ++round.started;
  EXPECT_EQ(zov_threadBegin(sendOne, 0, &round), ZOV_OKAY);
  zov_queueWrite(round.queue, data, self.messages++, self.id, 0);
  zov_queuePurge(round.queue, kThreads + 1);  // a key that none has
  receive(round, self.next, self.below(2));
}

void synchronise(Round &round, Worker &self) {
  zov_syncEnterExcl(round.mutex);
  zov_syncEnterExcl(round.mutex);
  const uint64_t found = round.guarded;
  zov_syncExitExcl(round.mutex);
  std::this_thread::yield();
  round.guarded = found + 1;
  zov_syncExitExcl(round.mutex);
  ++round.entered;
  self.below(2) == 0 ? zov_syncStart(round.event) : zov_syncResume(round.event);
  EXPECT_LE(zov_syncWait(round.event, self.below(2)), ZOV_TIMEOUT);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  zov_term();
}

// Each thread has a byte of a file that all have open, and all append to it.
void transfer(Round &round, Worker &self) {
  const uint32_t route = self.below(2);
  ZOV_FILE file = round.files[route];
  const char byte = static_cast<char>(self.below(256));
  char back = '?';
  EXPECT_EQ(zov_fileSeekWrite(file, self.id * 5000, &byte, 1), 1u);
  EXPECT_EQ(zov_fileSeekRead(file, self.id * 5000, &back, 1), 1u);
  EXPECT_EQ(back, byte);
  EXPECT_EQ(zov_fileLock(file), ZOV_OKAY);
  EXPECT_EQ(zov_fileSeekWrite(file, zov_fileLength(file), &byte, 1), 1u);
  zov_fileUnlock(file);
  ++round.appended[route];
}

// A copy of an own file takes a name that all fight for, and leads to a whole file.
void replace(Round &round, Worker &self) {
  const uint32_t from = kRoutes[self.below(2)];
  const uint32_t to = kRoutes[self.below(2)];
  const string path = round.path("/f", self.id), other = round.path("/g", self.id);
  const string shared = round.path("/x", self.below(2));
  EXPECT_TRUE(
      zovtest::putFile(path, string(1 + self.below(9000), static_cast<char>('a' + self.id)), from));
  EXPECT_EQ(zov_fileCopyEx(path.c_str(), from, other.c_str(), to), ZOV_OKAY);
  EXPECT_EQ(zov_fileCmpEx(path.c_str(), from, other.c_str(), to), ZOV_OKAY);
  EXPECT_EQ(zov_fileMoveEx(path.c_str(), from, shared.c_str(), to), ZOV_OKAY);
  EXPECT_EQ(zov_fileMoveEx(other.c_str(), to, shared.c_str(), to), ZOV_OKAY);
  const string found = zovtest::getFile(shared, to);
  EXPECT_TRUE(isUniform(found)) << found;
}

// In a directory in memory an own name comes, changes and goes, and all make, cut, rename
// and remove one file. Whoever walks meanwhile finds names in order.
void share(Round &round, Worker &self) {
  const string own = round.path("/o", self.id), ownNext = round.path("/p", self.id);
  const string common = round.path("/c", 0), commonNext = round.path("/c", 1);
  EXPECT_TRUE(zovtest::putFile(own, own, ZOV_FILE_MEMORY));
  ZOV_MFILE file = zov_mfOpen(common.c_str(), O_CREAT | (self.below(5) == 0 ? O_TRUNC : 0));
  zov_mfRemove(common.c_str());
  EXPECT_EQ(zov_mfSeekWrite(file, 5000, "x", 1), 1u);
  EXPECT_EQ(zov_mfSetSize(file, 4000), ZOV_OKAY);
  EXPECT_EQ(zov_mfRename(own.c_str(), ownNext.c_str()), ZOV_OKAY);
  zov_mfRename(common.c_str(), commonNext.c_str());
  zov_mfClose(file);
  zov_mfRemove(commonNext.c_str());
  EXPECT_TRUE(std::ranges::is_sorted(zovtest::namesIn(round.dir, ZOV_FILE_MEMORY)));
  EXPECT_EQ(zovtest::getFile(ownNext, ZOV_FILE_MEMORY), own);
  EXPECT_EQ(zov_mfRemove(ownNext.c_str()), ZOV_OKAY);
}

void stream(Round &, Worker &self) {
  const std::vector<uint8_t> dice = self.bytes(self.below(500));
  zovtest::StreamWalk walk(dice.data(), dice.size(), kRoutes[self.below(2)]);
  EXPECT_STREQ(walk.run(), nullptr);
}

void expectSetting(Round &round, uint32_t route, uint32_t id) {
  int32_t value = 0;
  const string path = round.path("/ini", route);
  zov_iniInt32Ex(path.c_str(), "s", ("p" + to_string(id)).c_str(), &value, kRoutes[route]);
  EXPECT_EQ(value, round.settings[route][id]);
}

void set(Round &round, Worker &self) {
  const uint32_t route = self.below(2);
  const string path = round.path("/ini", route), name = "p" + to_string(self.id);
  const string value = to_string(round.settings[route][self.id] = int32_t(self.below(99999)));
  EXPECT_EQ(zov_iniSetEx(path.c_str(), "s", name.c_str(), value.c_str(), kRoutes[route]), ZOV_OKAY);
  expectSetting(round, route, self.id);
}

// Records tell their thread and their number.
void report(Round &round, Worker &self) {
  const string rest = string(1 + self.below(700), 'z') + ".\n";
  const uint32_t kind = self.below(3);
  const uint32_t number = self.records++;
  if (kind == 2) {
    ZOV_LOG_CHUNK chunk = zov_log_chunk_init();
    EXPECT_GT(zov_log_chunk(chunk, "%u %u ", self.id, number), 0);
    zov_log_chunk_end(chunk, "%s", rest.c_str());
  } else {
    const auto print = kind == 0 ? zov_printf : zov_log;
    EXPECT_GT(print("%u %u %s", self.id, number, rest.c_str()), 0);
  }
  ++(kind == 0 ? round.printed : round.logged);
}

// Numbers, each of which is a statement of three reductions.
void parse(Round &, Worker &self) {
  uint32_t run[] = {2 * self.below(99), 0};  // tokens left, reductions
  const uint32_t statements = run[0] / 2;
  const auto fetch = [](void *context, void *) -> int16_t {
    uint32_t &left = *static_cast<uint32_t *>(context);
    return left == 0 ? int16_t{0} : left-- % 2 == 0 ? int16_t{expression_NUMBER} : int16_t{';'};
  };
  const auto reduce = [](void *context, void *, int32_t, void *) -> int16_t {
    return ++static_cast<uint32_t *>(context)[1], int16_t{0};
  };
  const ZOV_PARSE_CONTEXT context{8, run, &expression_tables, fetch, reduce, nullptr, 0};
  EXPECT_EQ(zov_yyparse(&context), 0);
  EXPECT_EQ(run[1], 3 * statements + 1);
}

void encode(Round &, Worker &self) {
  zovtest::BufferEnds ends(1);
  EXPECT_TRUE(zovtest::itemsArrive(self.bytes(100).data(), 100, true, ends));
}

void *runJobs(void *argument) {
  const std::unique_ptr<Worker> self(static_cast<Worker *>(argument));
  static constexpr void (*jobs[])(Round &, Worker &) = {
      allocate, message, synchronise, transfer, replace, share, stream, set, report, parse, encode};
  for (uint32_t left = 100; left > 0; --left, ++self->round.jobs) {
    jobs[self->below(std::size(jobs))](self->round, *self);
  }
  ++self->round.ended;
  return nullptr;
}

// Records that are whole and of each thread in order, behind stamps in the log.
uint64_t recordsOf(const string &path) {
  std::istringstream text(zovtest::readFile(path));
  uint32_t next[kThreads] = {};
  uint64_t records = 0;
  for (string line; std::getline(text, line); ++records) {
    uint32_t id = 0, number = 0;
    int end = 0;
    line.erase(0, line[0] == '[' ? line.find("  ") + 2 : 0);
    EXPECT_EQ(sscanf(line.c_str(), "%1u %u %*[z].%n", &id, &number, &end), 2);
    EXPECT_EQ(line.size(), static_cast<size_t>(end)) << line;
    EXPECT_GE(number, std::exchange(next[id], number + 1));
  }
  return records;
}

void begin(Round &round, zovtest::Random &random) {
  EXPECT_EQ(zov_stdout_open((round.dir + "/out").c_str()), ZOV_OKAY);
  EXPECT_EQ(zov_log_open((round.dir + "/log").c_str()), ZOV_OKAY);
  for (const uint32_t route : {0u, 1u}) {
    EXPECT_TRUE(zovtest::putFile(round.path("/ini", route), "[s]\np1=0\n", kRoutes[route]));
    EXPECT_TRUE(zovtest::putFile(round.path("/file", 0), string(kFileBytes, 'f'), kRoutes[route]));
    round.files[route] = zov_fileOpen(round.path("/file", 0).c_str(), O_RDWR, kRoutes[route]);
  }
  for (uint32_t id = 0; id < kThreads; ++id) {
    Worker *const worker = new Worker{zovtest::Dice(random()), round, id};
    EXPECT_EQ(zov_threadBegin(runJobs, 0, worker), ZOV_OKAY);
  }
}

// Removes all files, which have to be those that a round leaves.
void removeFiles(Round &round, uint32_t route) {
  const std::set<string> known = {"file0", "ini0", "ini1", "log", "out", "x0", "x1"};
  for (const string &name : zovtest::namesIn(round.dir, kRoutes[route])) {
    EXPECT_EQ(known.count(name), name.back() == '/' ? 0u : 1u) << name;
    zov_fileRemoveEx((round.dir + "/" + name).c_str(), kRoutes[route]);
  }
}

void settle(Round &round) {
  zovtest::waitUntil([&] { return round.ended >= round.started; });
  uint32_t next[kThreads] = {};
  while (zov_queueCount(round.queue) > 0) {
    receive(round, next, 0);
  }
  EXPECT_EQ(round.received, round.sent);
  EXPECT_EQ(round.guarded, round.entered);
  for (const bool isPooled : {false, true}) {
    for (auto &block : round.held[isPooled]) {
      release(round, isPooled, block);
    }
  }
  EXPECT_EQ(round.bytes, 0u);
  zov_zFreePool(&round.pool);
  zov_freeTagMemory(round.tag, 1);
  zov_queueDelete(round.queue);
  zov_syncDelete(round.mutex);
  zov_syncDelete(round.event);
  zov_stdout_close();
  zov_log_close();
  EXPECT_EQ(recordsOf(round.dir + "/log"), round.logged);
  EXPECT_EQ(recordsOf(round.dir + "/out"), round.logged + round.printed);
  for (const uint32_t route : {0u, 1u}) {
    const uint64_t length = static_cast<uint64_t>(zov_fileLength(round.files[route]));
    EXPECT_EQ(length, kFileBytes + round.appended[route]);
    zov_fileClose(round.files[route]);
    for (uint32_t id = 0; id < kThreads; ++id) {
      expectSetting(round, route, id);
    }
    removeFiles(round, route);
  }
  zov_iniCleanup();
}

using Soak = zovtest::Started;

TEST_F(Soak, AccountsAgree) {
  using Clock = std::chrono::steady_clock;
  const char *const seconds = getenv("ZOV_SOAK_SECONDS");
  const auto end = Clock::now() + std::chrono::seconds(seconds == nullptr ? 2 : atoi(seconds));
  const zovtest::TempDir dir(zovtest::quickDisk());
  zovtest::Random random;
  zovtest::Standing before{};
  uint64_t resident = 0, jobs = 0;
  uint32_t rounds = 0;
  EXPECT_EQ(zov_queueInit(0), ZOV_OKAY);
  // A directory in memory keeps the pages of all the names that it had at once.
  for (int name = 0; name < 400; ++name) {
    const string path = dir / to_string(name % 200);
    EXPECT_EQ(name < 200 ? zovtest::putFile(path, "", ZOV_FILE_MEMORY)
                         : zov_fileRemoveEx(path.c_str(), ZOV_FILE_MEMORY) == ZOV_OKAY,
              true);
  }
  for (; !HasFailure() && (rounds < 2 || Clock::now() < end); ++rounds) {
    Round round{dir.path()};
    begin(round, random);
    settle(round);
    jobs += round.jobs;
    before = rounds == 0 ? zovtest::standing() : before;
    resident = rounds == 0 ? zovtest::residentBytes() : resident;
    EXPECT_EQ(zovtest::standing(), before);
  }
  zov_queueTerm(0);
  printf("%u rounds, %lu jobs; %lu KiB resident after the first round, %lu KiB at the end\n",
         rounds, jobs, resident / 1024, zovtest::residentBytes() / 1024);
}

}  // namespace
