// SPDX-License-Identifier: Apache-2.0
#include "sweep/sweep.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <sstream>

#include "support/route_file.h"

namespace zovtest {

namespace {

constexpr int32_t kJumped = -1000;
constexpr int32_t kKilled = -1001;

// The operation that is tried, and what was found wrong.
struct Trial {
  World &world;
  const Operation &operation;
  std::string complaints;
  uint32_t points = 0;
  uint32_t jumps = 0;
};

enum class Way { kPlain, kOnce, kOnwards, kShort, kJump, kKill };

struct Point {
  Call call;
  uint32_t nth;
  Way way;
};

int errorOf(Call call) {
  switch (call) {
    case Call::allocation:
      return ENOMEM;
    case Call::write:
    case Call::pwrite:
    case Call::mkdir:
      return ENOSPC;
    case Call::open:
    case Call::opendir:
      return EMFILE;
    case Call::fork:
    case Call::pthread_create:
    case Call::pthread_mutex_init:
    case Call::pthread_cond_init:
      return EAGAIN;
    default:
      return EIO;
  }
}

bool transfers(Call call) {
  return call == Call::read || call == Call::write || call == Call::pread || call == Call::pwrite ||
         call == Call::readdir;
}

// What is printed meanwhile is dropped.
class Silence {
 public:
  Silence() {
    fflush(nullptr);
    const int null = open("/dev/null", O_WRONLY);
    for (int &kept : kept_) {
      const int number = kept == 0 ? 1 : 2;
      kept = dup(number);
      dup2(null, number);
    }
    close(null);
  }
  ~Silence() {
    fflush(nullptr);
    for (int number : {1, 2}) {
      dup2(kept_[number - 1], number);
      close(kept_[number - 1]);
    }
  }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;

 private:
  int kept_[2] = {0, 1};
};

int32_t armed(Trial &trial) {
  jmp_buf recovery;
  volatile int32_t status = kJumped;
  if (setjmp(recovery) == 0) {
    zov_resetTag(&recovery, ZOV_DEFAULT_TAG);
    zov_resetTag(&recovery, trial.world.tag);
    status = trial.operation.work(trial.world);
  }
  zov_resetTag(nullptr, ZOV_DEFAULT_TAG);
  zov_resetTag(nullptr, trial.world.tag);
  return status;
}

// The work in a process of its own, which the call is the last of.
int32_t killed(Trial &trial, const Point &point) {
  const pid_t child = fork();
  if (child == 0) {
    const Fault end(point.call, [&](uint32_t use) { use == point.nth ? raise(SIGKILL) : 0; });
    trial.operation.work(trial.world);
    _exit(0);
  }
  int end = 0;
  waitpid(child, &end, 0);
  return WIFSIGNALED(end) ? kKilled : ZOV_OKAY;
}

int32_t attempt(Trial &trial, const Point &point, bool &struck) {
  if (point.way == Way::kPlain) {
    return trial.operation.work(trial.world);
  }
  if (point.way == Way::kKill) {
    struck = true;
    return killed(trial, point);
  }
  if (point.way == Way::kShort) {
    const Fault cut(point.call, point.nth, Limit{1});
    const int32_t status = trial.operation.work(trial.world);
    struck = cut.struck();
    return status;
  }
  const Fault failing(point.call, point.nth, errorOf(point.call), point.way == Way::kOnwards);
  const int32_t status = point.way == Way::kJump ? armed(trial) : trial.operation.work(trial.world);
  struck = failing.struck();
  return status;
}

// Whether all files of `before` are whole in the state of an operation that goes
// file by file, and nothing else is there.
bool allAreSomewhere(const Operation &operation, const std::string &state) {
  std::istringstream old(operation.before);
  std::istringstream now(state);
  const std::string known = " " + operation.before + " " + operation.wanted + " ";
  bool whole = true;
  for (std::string each; whole && old >> each;) {
    whole = each.back() == '/' ||
            state.find(each.substr(each.rfind('/', each.find('=')) + 1)) != state.npos;
  }
  for (std::string each; whole && now >> each;) {
    whole = known.find(" " + each + " ") != known.npos;
  }
  return whole;
}

class Judge {
 public:
  Judge(Trial &trial, const Point &point) : trial_(trial), point_(point) {}

  void require(bool holds, const std::string &what) const {
    if (holds) {
      return;
    }
    static const char *const ways[] = {"plain", "once", "onwards", "short", "jump", "kill"};
    trial_.complaints += std::string(trial_.operation.calls) + ", call " +
                         std::to_string(static_cast<int>(point_.call)) + " #" +
                         std::to_string(point_.nth) + " " + ways[static_cast<int>(point_.way)] +
                         ": " + what + "\n";
  }

  void statusAndState(int32_t status, bool struck) const {
    const Operation &operation = trial_.operation;
    const bool has = (operation.traits & kInPlace) != 0;
    const bool litters = (operation.traits & kLitters) != 0;
    // What a name leads to may be past finding out where the same call fails on.
    const std::string state =
        litters ? operation.wanted
                : trial_.world.state(point_.way != Way::kOnwards && point_.way != Way::kKill);
    const auto told = " (status " + std::to_string(status) + ", state " + state + ")";
    const bool left =
        struck && ((operation.left != nullptr && state == operation.left) ||
                   ((operation.traits & kByFile) != 0 && allAreSomewhere(operation, state)));
    if (status == ZOV_OKAY) {
      require(left || state == operation.wanted, "done, but not as wanted" + told);
      return;
    }
    require(struck, "failed though nothing did" + told);
    require(status == kKilled ? true
            : status == kJumped
                ? (operation.traits & kJumps) != 0
                : std::count(operation.failures.begin(), operation.failures.end(), status) == 1,
            "undocumented" + told);
    require(litters || left || state == operation.before ||
                (status == kKilled && state == operation.wanted) ||
                (has && state.find(operation.before) == 0) ||
                ((operation.traits & kPartly) != 0 && operation.wanted.find(state) == 0),
            "failed, and something changed" + told);
  }

  void nothingLost(const Standing &before) const {
    Standing now = standing();
    if ((trial_.operation.traits & kKeeps) != 0) {
      now.blocks = before.blocks;
      now.slots = before.slots;
    }
    require(now == before, "left in hand: " + testing::PrintToString(now) + ", was " +
                               testing::PrintToString(before));
  }

 private:
  Trial &trial_;
  const Point &point_;
};

void putAway(Trial &trial) {
  if (trial.operation.after != nullptr) {
    trial.operation.after(trial.world);
  }
}

// One life of the library: the work at one point, again from another thread, and
// the end. Gives the status of the first attempt.
int32_t live(Trial &trial, const Point &point) {
  const Operation &operation = trial.operation;
  const Judge judge(trial, point);
  const bool started = (operation.traits & kUnstarted) == 0;
  const Standing outside = standing();
  bool struck = false;
  judge.require(!started || zov_init() == ZOV_OKAY, "no second start");
  operation.prepare(trial.world);
  judge.require(trial.world.state() == operation.before, "begins with " + trial.world.state());
  const Standing before = standing();
  const int32_t status = attempt(trial, point, struck);
  judge.statusAndState(status, struck);
  trial.jumps += status == kJumped ? 1 : 0;
  putAway(trial);
  judge.nothingLost(before);
  // Who was killed may have been done.
  const bool mayGoOn = status != kKilled || trial.world.state(false) == operation.before;
  if (status != ZOV_OKAY && mayGoOn && standing().locks == 0) {
    int32_t again = ZOV_OKAY;
    std::thread([&] { again = operation.work(trial.world); }).join();
    judge.require(again == ZOV_OKAY, "no second try: " + std::to_string(again));
    judge.statusAndState(again, true);
    putAway(trial);
    judge.nothingLost(before);
  }
  trial.world.clear();
  if (started) {
    zov_term();
  }
  judge.require(standing() == outside, "left after the end: " + testing::PrintToString(standing()));
  ++trial.points;
  return status;
}

// How often the work uses a call when all goes well.
uint32_t usesOf(Trial &trial, Call call) {
  if ((trial.operation.traits & kUnstarted) == 0) {
    zov_init();
  }
  trial.operation.prepare(trial.world);
  uint32_t uses = 0;
  {
    const Fault counter(call);
    trial.operation.work(trial.world);
    uses = counter.uses();
  }
  putAway(trial);
  trial.world.clear();
  if ((trial.operation.traits & kUnstarted) == 0) {
    zov_term();
  }
  return uses;
}

void sweepCall(Trial &trial, Call call) {
  const uint32_t uses = usesOf(trial, call);
  const uint32_t step = uses / 50 + 1;  // a sample where there are very many
  const Operation &operation = trial.operation;
  const bool changesDisk =
      operation.before != operation.wanted && operation.wanted.find("/m/") == operation.wanted.npos;
  for (uint32_t nth = 1; nth <= uses; nth += step) {
    live(trial, {call, nth, Way::kOnce});
    live(trial, {call, nth, Way::kOnwards});
    if (transfers(call)) {
      live(trial, {call, nth, Way::kShort});
    }
    if (call < Call::system && changesDisk) {
      live(trial, {call, nth, Way::kKill});
    }
    if (call == Call::allocation && (trial.operation.traits & kUnstarted) == 0) {
      live(trial, {call, nth, Way::kJump});
    }
  }
}

}  // namespace

std::string World::note(const char *name) {
  auto &[path, wide] = paths_[name];
  if (path.empty()) {
    const std::string rest = name;
    path = rest[0] == '/'             ? rest
           : rest.rfind("o/", 0) == 0 ? other_ / rest.substr(2)
                                      : here_ / rest;
    wide.assign(path.begin(), path.end());
  }
  return name;
}

void World::put(const char *name, const std::string &bytes) {
  inMemory_ = inMemory_ || name[0] == '/';
  if (bytes == "/") {
    std::filesystem::create_directory((*this)(name));
  } else if (name[0] == '/') {
    putFile(name, bytes, ZOV_FILE_MEMORY);
  } else {
    writeFile((*this)(name), bytes);
  }
}

std::string World::state(bool withLeftovers) {
  std::map<std::string, std::string> found;
  for (const TempDir *place : {&here_, &other_}) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(place->path())) {
      const std::string name =
          (place == &here_ ? "" : "o/") + entry.path().string().substr(place->path().size() + 1);
      found[name] = entry.is_directory() ? "/" : "=" + readFile(entry.path().string());
    }
  }
  ZOV_PATH_WALK walk = inMemory_ ? zov_pathOpenEx("/m", ZOV_FILE_MEMORY, "*") : nullptr;
  int32_t isDirectory = 0;
  while (const char *name = walk == nullptr ? nullptr : zov_pathNext(walk, &isDirectory)) {
    const std::string path = std::string("/m/") + name;
    found[path] = isDirectory != 0 ? "/" : "=" + getFile(path, ZOV_FILE_MEMORY);
  }
  zov_pathClose(walk);
  std::string all;
  for (const auto &[name, contents] : found) {
    if (!withLeftovers &&
        (name.find(".zov_mv") != name.npos || name.find("_temp_.ini") != name.npos)) {
      continue;
    }
    all += (all.empty() ? "" : " ") + name + contents;
  }
  return all;
}

void World::clear() {
  for (const TempDir *place : {&here_, &other_}) {
    for (const auto &entry : std::filesystem::directory_iterator(place->path())) {
      std::filesystem::remove_all(entry.path());
    }
  }
  inMemory_ = false;
}

bool World::hasOtherFileSystem() const {
  struct stat here;
  struct stat other;
  return stat(here_.path().c_str(), &here) == 0 && stat(other_.path().c_str(), &other) == 0 &&
         here.st_dev != other.st_dev;
}

void sweep(const char *family, const std::vector<Operation> &table) {
  World world;
  uint32_t points = 0;
  std::string complaints;
  const std::string only = getenv("ZOV_SWEEP_ONLY") == nullptr ? "" : getenv("ZOV_SWEEP_ONLY");
  for (const Operation &operation : table) {
    if (std::string(operation.calls).find(only) == std::string::npos) {
      continue;
    }
    const Silence silence;
    // Without a second file system a rename between the two is refused.
    const bool split =
        world.hasOtherFileSystem() || operation.before.find("o/") == std::string::npos;
    const Fault apart(Call::rename, split ? UINT32_MAX : 1, EXDEV, true);
    Trial trial{world, operation, "", 0};
    live(trial, {Call::system, 0, Way::kPlain});
    const bool sound = trial.complaints.empty();
    for (Call call = Call::open; sound && call <= Call::tag;
         call = static_cast<Call>(static_cast<int>(call) + 1)) {
      if (call != Call::system && call != Call::pthread_mutex_lock) {
        sweepCall(trial, call);
      }
    }
    const bool jumps = (operation.traits & kJumps) != 0;
    trial.complaints +=
        sound && jumps && trial.jumps == 0 ? operation.calls + std::string(" never jumps\n") : "";
    points += trial.points;
    complaints += trial.complaints;
  }
  printf("%s: %u points\n", family, points);
  EXPECT_EQ(complaints.substr(0, 6000), "");
}

}  // namespace zovtest
