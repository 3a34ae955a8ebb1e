// SPDX-License-Identifier: Apache-2.0
#include "sweep/sweep.h"

#include <signal.h>

#include <regex>
#include <sstream>

#include "support/route_file.h"

namespace zovtest {

namespace {

constexpr int32_t kJumped = -1000;
constexpr int32_t kKilled = -1001;
constexpr uint32_t kNever = UINT32_MAX;

enum class Way { once, onwards, cut, jump, kill };

struct Point {
  Call call;
  uint32_t nth;
  Way way;
};

const Call transfers[] = {Call::read, Call::write, Call::pread, Call::pwrite, Call::readdir};

// The operation that is tried, at which point, and what was found wrong.
class Trial {
 public:
  Trial(World &world, const Operation &operation) : world_(world), operation_(operation) {}

  void sweep();

  std::string complaints;
  uint32_t points = 0;

 private:
  void require(bool holds, const std::string &what);
  void judge(int32_t status, const Standing &before);
  int32_t armed();
  int32_t killed();
  int32_t attempt();
  uint32_t live(const Point &point);
  void sweepCall(Call call);
  bool is(uint32_t trait) const { return (operation_.traits & trait) != 0; }

  World &world_;
  const Operation &operation_;
  Point point_{};
  uint32_t uses_ = 0;
  bool struck_ = false;
  bool jumped_ = false;
};

int32_t Trial::armed() {
  jmp_buf recovery;
  volatile int32_t status = kJumped;
  if (setjmp(recovery) == 0) {
    zov_resetTag(&recovery, ZOV_DEFAULT_TAG);
    zov_resetTag(&recovery, world_.tag);
    status = operation_.work(world_);
  }
  zov_resetTag(nullptr, ZOV_DEFAULT_TAG);
  zov_resetTag(nullptr, world_.tag);
  jumped_ = jumped_ || status == kJumped;
  return status;
}

// The work in a process of its own, which the call is the last of.
int32_t Trial::killed() {
  const int end = inChild([&] {
    const Fault last(point_.call, [&](uint32_t use) { use == point_.nth ? raise(SIGKILL) : 0; });
    operation_.work(world_);
    return 0;
  });
  struck_ = WIFSIGNALED(end);
  return struck_ ? kKilled : ZOV_OKAY;
}

int32_t Trial::attempt() {
  if (point_.way == Way::kill) {
    return killed();
  }
  const Fault fault(point_.call, point_.nth, point_.call == Call::allocation ? ENOMEM : EIO,
                    point_.way == Way::onwards, point_.way == Way::cut ? 1 : SIZE_MAX);
  const int32_t status = point_.way == Way::jump ? armed() : operation_.work(world_);
  uses_ = fault.uses();
  struck_ = fault.struck();
  return status;
}

void Trial::require(bool holds, const std::string &what) {
  if (!holds) {
    static const char *const ways[] = {"once", "onwards", "cut", "jump", "kill"};
    complaints += std::string(operation_.calls) + ", call " +
                  std::to_string(static_cast<int>(point_.call)) + " #" +
                  std::to_string(point_.nth) + " " + ways[static_cast<int>(point_.way)] + ": " +
                  what + "\n";
  }
}

// Judges a status with the files it left, puts away what was made, and looks
// whether anything else is left.
void Trial::judge(int32_t status, const Standing &before) {
  // What a name leads to may be past finding out where the same call fails on.
  const bool whole = point_.way != Way::onwards && point_.way != Way::kill;
  const std::string state = is(kLitters) ? operation_.wanted : world_.state(whole);
  const auto told = " (status " + std::to_string(status) + ", state " + state + ")";
  const bool left =
      struck_ && operation_.left != nullptr && std::regex_match(state, std::regex(operation_.left));
  if (status == ZOV_OKAY) {
    require(left || state == operation_.wanted, "done, but not as wanted" + told);
  } else {
    const std::vector<int32_t> &failures = operation_.failures;
    require(struck_, "failed though nothing did" + told);
    require(status == kKilled   ? true
            : status == kJumped ? is(kJumps)
            : failures.empty()  ? status == ZOV_ERROR
                                : std::count(failures.begin(), failures.end(), status) == 1,
            "undocumented" + told);
    require(is(kLitters) || left || state == operation_.before ||
                ((status == kKilled || is(kLate)) && state == operation_.wanted) ||
                (is(kInPlace) && state.find(operation_.before) == 0) ||
                (is(kPartly) && operation_.wanted.find(state) == 0),
            "failed, and something changed" + told);
  }
  operation_.after != nullptr ? operation_.after(world_) : void();
  world_.putAway();
  Standing now = standing();
  if (is(kKeeps)) {
    now.blocks = before.blocks;
    now.slots = before.slots;
  }
  require(now == before, "left in hand: " + testing::PrintToString(now) + ", was " +
                             testing::PrintToString(before));
}

// One life of the library: the work at one point, again from another thread, and
// the end. Gives how often the work used the call.
uint32_t Trial::live(const Point &point) {
  point_ = point;
  const Standing outside = standing();
  require(is(kUnstarted) || zov_init() == ZOV_OKAY, "no second start");
  world_.put(operation_.before);
  operation_.prepare != nullptr ? operation_.prepare(world_) : void();
  require(world_.state() == operation_.before, "begins with " + world_.state());
  const Standing before = standing();
  const int32_t status = attempt();
  points += struck_ || point.call == Call::system ? 1 : 0;
  judge(status, before);
  // Who was killed may have been done.
  const bool mayGoOn = status != kKilled || world_.state(false) == operation_.before;
  if (status != ZOV_OKAY && mayGoOn && standing().locks == 0) {
    int32_t again = ZOV_OKAY;
    std::thread([&] { again = operation_.work(world_); }).join();
    require(again == ZOV_OKAY, "no second try: " + std::to_string(again));
    judge(again, before);
  }
  world_.clear();
  is(kUnstarted) ? void() : zov_term();
  require(standing() == outside, "left after the end: " + testing::PrintToString(standing()));
  return uses_;
}

void Trial::sweepCall(Call call) {
  const uint32_t uses = live({call, kNever, Way::once});
  const uint32_t step = uses / 50 + 1;  // a sample where there are very many
  const bool changesDisk = operation_.before != operation_.wanted &&
                           operation_.wanted.find("/m/") == operation_.wanted.npos;
  for (uint32_t nth = 1; nth <= uses; nth += step) {
    live({call, nth, Way::once});
    live({call, nth, Way::onwards});
    if (std::ranges::count(transfers, call) != 0) {
      live({call, nth, Way::cut});
    }
    if (call < Call::system && changesDisk) {
      live({call, nth, Way::kill});
    }
    if (call == Call::allocation && !is(kUnstarted)) {
      live({call, nth, Way::jump});
    }
  }
}

void Trial::sweep() {
  live({Call::system, kNever, Way::once});
  const bool sound = complaints.empty();
  for (Call call{}; sound && call <= Call::tag; call = Call(static_cast<int>(call) + 1)) {
    if (call != Call::system && call != Call::pthread_mutex_lock) {
      sweepCall(call);
    }
  }
  require(!sound || jumped_ || !is(kJumps), "never jumps");
}

}  // namespace

const std::pair<std::string, std::wstring> &World::names(const std::string &name) {
  auto &[path, wide] = names_[name];
  if (path.empty()) {
    path = name[0] == '/'             ? name
           : name.rfind("o/", 0) == 0 ? other_ / name.substr(2)
                                      : here_ / name;
    wide.assign(path.begin(), path.end());
  }
  return names_[name];
}

void World::put(const std::string &state) {
  std::istringstream all(state);
  for (std::string each; std::getline(all, each, ' ');) {
    const size_t end = each.find('=');
    const std::string name = each.substr(0, end);
    inMemory_ = inMemory_ || name[0] == '/';
    if (end == each.npos) {
      std::filesystem::create_directory((*this)(name));
    } else if (name[0] == '/') {
      putFile(name, each.substr(end + 1), kMem);
    } else {
      writeFile((*this)(name), each.substr(end + 1));
    }
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
  const std::vector<std::string> none;
  for (const std::string &name : inMemory_ ? namesIn("/m", kMem) : none) {
    found["/m/" + name] = name.back() == '/' ? "" : "=" + getFile("/m/" + name, kMem);
  }
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

void World::putAway() {
  file != nullptr ? zov_fileClose(file) : void();
  stream != nullptr ? zov_fclose(stream) : void();
  zov_pathClose(walk);
  zov_inputBuffDestroy(input);
  zov_outputBuffDestroy(output);
  zov_zFreePool(&pool);
  zov_freeMem(text, ZOV_DEFAULT_TAG);
  zov_freeMem(wideText, ZOV_DEFAULT_TAG);
  tag != 0 ? zov_freeTagMemory(tag, 1) : void();
  static_cast<Made &>(*this) = {};
}

void World::clear() {
  for (const TempDir *place : {&here_, &other_}) {
    for (const auto &entry : std::filesystem::directory_iterator(place->path())) {
      std::filesystem::remove_all(entry.path());
    }
  }
  inMemory_ = false;
}

void sweep(const char *family, const std::vector<Operation> &table) {
  World world;
  uint32_t points = 0;
  std::string complaints;
  const std::string only = getenv("ZOV_SWEEP_ONLY") == nullptr ? "" : getenv("ZOV_SWEEP_ONLY");
  // What is printed meanwhile is dropped.
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  for (const Operation &operation : table) {
    if (std::string(operation.calls).find(only) != only.npos) {
      Trial trial(world, operation);
      trial.sweep();
      points += trial.points;
      complaints += trial.complaints;
    }
  }
  testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  printf("%s: %u points\n", family, points);
  EXPECT_EQ(complaints.substr(0, 6000), "");
}

}  // namespace zovtest
