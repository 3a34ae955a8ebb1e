// SPDX-License-Identifier: Apache-2.0
#include "support/crash.h"

#include <sys/stat.h>
#include <unistd.h>

namespace zovtest {

namespace {

// Bytes that arrive together.
constexpr size_t kPieceBytes = 64;

std::string parentOf(const std::string &path) {
  return path.substr(0, path.find_last_of('/', path.size() - std::min<size_t>(path.size(), 2)) + 1);
}

void applyName(std::map<std::string, uint64_t> &names, const Event &event) {
  if (event.kind == Event::kCreate) {
    names[event.path] = event.file;
  } else if (event.kind == Event::kRename) {
    names[event.text] = names[event.path];
  }
  if (event.kind == Event::kRename || event.kind == Event::kRemove) {
    names.erase(event.path);
  }
}

// Names of directories come before those in them. What is in one that is not there is lost.
void layOut(const Disk &disk, const std::string &directory) {
  for (const auto &[path, file] : disk.names) {
    const auto bytes = disk.contents.find(file);
    if (!path.empty() && path.back() == '/') {
      mkdir((directory + "/" + path).c_str(), 0700);
    } else if (!path.empty() && disk.names.contains(parentOf(path))) {
      writeFile(directory + "/" + path, bytes == disk.contents.end() ? "" : bytes->second);
    }
  }
}

}  // namespace

Recorder *recorder = nullptr;

// With `tear` any parts of a write.
void Disk::apply(const Event &event, Random *tear) {
  applyName(names, event);
  for (size_t at = 0; event.kind == Event::kWrite && at < event.text.size(); at += kPieceBytes) {
    std::string &bytes = contents[event.file];
    const std::string piece = event.text.substr(at, kPieceBytes);
    const size_t offset = static_cast<size_t>(event.offset) + at;
    if (tear == nullptr || tear->below(2) == 0) {
      bytes.resize(std::max(bytes.size(), offset + piece.size()));
      bytes.replace(offset, piece.size(), piece);
    }
  }
}

void Disk::take(const Event &event) {
  if (event.kind != Event::kSync) {
    unsynced.push_back(event);
    return;
  }
  std::erase_if(unsynced, [&](const Event &old) {
    const bool isOf = old.home == event.home && (event.text.empty() || old.kind == Event::kWrite);
    if (isOf && event.text.empty()) {
      apply(old);
    }
    return isOf;
  });
}

// Keeps of what was not synced nothing (0), all (1), or any parts of writes and of each
// directory the first of its changes.
void Disk::crash(uint32_t how, Random &random) {
  std::map<uint64_t, size_t> left;
  for (const Event &event : unsynced) {
    const size_t most = how == 0 ? 0 : how == 1 ? SIZE_MAX : random.below(4);
    size_t &more = left.try_emplace(event.home, most).first->second;
    if (event.kind == Event::kWrite ? how != 0 : more > 0 && more-- > 0) {
      apply(event, how == 1 ? nullptr : &random);
    }
  }
  unsynced.clear();
}

Recorder::Recorder(const std::string &directory) : directory_(directory + "/") {
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
    const std::string path = entry.path().string().substr(directory_.size());
    const uint64_t file = before_.names.size();
    before_.names[path + (entry.is_directory() ? "/" : "")] = file;
    before_.contents[file] = entry.is_directory() ? "" : readFile(entry.path());
  }
  names_ = before_.names;
  recorder = this;
}

Recorder::~Recorder() {
  recorder = nullptr;
}

void Recorder::add(Event::Kind kind, std::string path, std::string text, int64_t offset) {
  path = std::filesystem::path(path).lexically_normal();
  if (!(path + "/").starts_with(directory_)) {
    return;
  }
  path.erase(0, directory_.size());
  path += names_.contains(path + "/") ? "/" : "";
  const auto found = names_.find(path);
  if ((found == names_.end()) != (kind == Event::kCreate)) {
    return;
  }
  const bool isOfName = kind != Event::kWrite && kind != Event::kSync;
  const uint64_t file =
      kind == Event::kCreate ? before_.names.size() + events.size() : found->second;
  text.erase(0, kind == Event::kRename ? directory_.size() : 0);
  events.push_back(
      {kind, file, isOfName ? names_[parentOf(path)] : file, path, text, offset, done});
  applyName(names_, events.back());
}

void Recorder::add(Event::Kind kind, int fd, std::string bytes, int64_t offset) {
  const std::string entry = "/proc/self/fd/" + std::to_string(fd);
  const int64_t behind = offset < 0 ? lseek64(fd, 0, SEEK_CUR) : 0;
  add(kind, std::filesystem::read_symlink(entry).string(), bytes,
      offset < 0 ? behind - static_cast<int64_t>(bytes.size()) : offset);
}

uint32_t Recorder::eachCrash(const Look &look) const {
  Random random;
  Disk disk = before_;
  uint32_t states = 0;
  for (size_t count = 0; count <= events.size(); ++count) {
    if (count > 0) {
      disk.take(events[count - 1]);
    }
    const bool inWrites = count > 0 && events[count - 1].kind == Event::kWrite;
    uint32_t how = inWrites ? random.below(3) : 0;
    for (const uint32_t last = inWrites ? how : 4; how <= last; ++how, ++states) {
      SCOPED_TRACE(std::to_string(count) + " calls, crash " + std::to_string(how));
      const TempDir after(quickDisk());
      Disk crashed = disk;
      crashed.crash(how, random);
      layOut(crashed, after.path());
      look(after.path(), count == events.size() ? done : count == 0 ? 0 : events[count - 1].done);
      if (testing::Test::HasFatalFailure()) {
        return states;
      }
    }
  }
  return states;
}

}  // namespace zovtest
