// SPDX-License-Identifier: Apache-2.0
//
// The storage engine of minidb, against a map that keeps its old states; with loads and
// dumps on a disk that loses what was not synced, and while calls of the system fail.
#include <sys/socket.h>
#include <sys/stat.h>

#include <map>
#include <optional>

#include "support/crash.h"
#include "support/faults.h"
#include "support/replace.h"
#include "support/temp_dir.h"
#include "wire/wire.h"

namespace zovtest {

// Sockets fail as reads and writes do.
REPLACE(ssize_t, recv, (int from, void *to, size_t size, int how), {
  const Fault::Verdict verdict = Fault::ask(Call::read);
  errno = verdict.error;
  return verdict.fails ? -1 : __real_recv(from, to, std::min(verdict.limit, size), how);
})
REPLACE(ssize_t, send, (int to, const void *from, size_t size, int how), {
  const Fault::Verdict verdict = Fault::ask(Call::write);
  errno = verdict.error;
  return verdict.fails ? -1 : __real_send(to, from, std::min(verdict.limit, size), how);
})

namespace {

using minidb::Mode;
using minidb::Status;
using Records = std::map<std::string, std::string>;

minidb::Text text(const std::string &bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

Status statusOf(bool done) {
  return done ? Status::kOkay : minidb::lastStatus();
}

// A store, closed when it goes. Few changed pages have room in memory.
struct Database {
  explicit Database(const std::string &path, bool readOnly = false) {
    minidb::openStore({path.c_str(), false, true, readOnly, minidb::kMinCacheBytes, 1 << 14},
                      &store);
  }
  ~Database() {
    if (store != nullptr) {
      minidb::closeStore(store);
    }
  }
  minidb::Store *store = nullptr;
};

// What a view shows from one key to another.
Records recordsOf(const minidb::View &view, minidb::Range range = {}) {
  Records records;
  minidb::Cursor cursor;
  bool more = minidb::seekFirst(cursor, view, range);
  for (; more; more = minidb::seekNext(cursor)) {
    std::string &value = records[std::string(keyOf(cursor).bytes, keyOf(cursor).length)];
    minidb::Text piece = {"", 1};
    while (piece.length > 0 && minidb::readValue(cursor, piece)) {
      value.append(piece.bytes, piece.length);
    }
    EXPECT_EQ(value.size(), minidb::valueLength(cursor));
  }
  EXPECT_EQ(minidb::lastStatus(), Status::kMissing) << minidb::problem();
  return records;
}

Records recordsOf(minidb::Store *store) {
  minidb::View view;
  EXPECT_TRUE(minidb::openView(*store, view)) << minidb::problem();
  EXPECT_TRUE(minidb::checkView(view, {})) << minidb::problem();
  const Records records = recordsOf(view);
  minidb::closeView(view);
  return records;
}

// Puts records in one transaction.
bool put(minidb::Store *store, const Records &records, Mode mode = Mode::kOverwrite) {
  minidb::Transaction *transaction;
  if (!minidb::beginTransaction(*store, mode, &transaction)) {
    return false;
  }
  for (const auto &[key, value] : records) {
    minidb::putRecord(*transaction, text(key), text(value));
  }
  return minidb::commit(transaction);
}

Records many(uint32_t count, char letter) {
  Records records;
  for (uint32_t index = 0; index < count; ++index) {
    records[letter + std::to_string(index)] = std::string(300, letter);
  }
  return records;
}

Records merged(const Records &records, Records others) {
  others.insert(records.begin(), records.end());
  return others;
}

std::string textOf(const Records &records) {
  std::string lines;
  for (const auto &[key, value] : records) {
    lines += key + ";" + value + "\n";
  }
  return lines;
}

// Runs a statement. False when it fails, which lastStatus() may tell more of.
bool run(minidb::Store *store, const std::string &statement) {
  minidb::Session session;
  minidb::Database database = {store, {}, ';'};
  const auto drop = [](void *, const void *, uint32_t) { return 0; };
  if (!minidb::openSession(session, database, drop, nullptr, {})) {
    return false;
  }
  const bool done = minidb::runQuery(session, text(statement), {1, 1});
  minidb::closeSession(session);
  return done;
}

class StoreTest : public Started {
 protected:
  std::string at(const std::string &name) const { return dir / name; }
  const TempDir dir{quickDisk()};
};

// --- The model -----------------------------------------------------------

// Few keys, so that they meet; lengths at which pages are parted and values chained.
std::string randomKey(Random &random) {
  static const uint32_t lengths[] = {1, 2, 7, 300, minidb::kMaxKeyBytes};
  std::string key = std::to_string(random.below(700));
  const uint32_t length = lengths[std::hash<std::string>()(key) % 5];
  key += '\0';
  key.resize(std::max<size_t>(key.size(), length), 'k');
  return key;
}

std::string randomValue(Random &random) {
  static const uint32_t lengths[] = {0, 1, 40, 300, 1000, 4056, 4057, 20000};
  return std::string(random.below(lengths[random.below(8)] + 1), static_cast<char>(random()));
}

// Changes the same at random in a transaction and in a map, and notes the keys.
void change(Random &random, minidb::Transaction *transaction, Records &records, Records &touched) {
  const std::string key = randomKey(random);
  if (random.below(5) < 3) {
    records[key] = touched[key] = randomValue(random);
    ASSERT_TRUE(minidb::putRecord(*transaction, text(key), text(records[key])));
  } else if (records.erase(key) == 1) {
    touched[key];
    ASSERT_TRUE(minidb::removeRecord(*transaction, text(key)));
  } else {
    ASSERT_EQ(statusOf(minidb::removeRecord(*transaction, text(key))), Status::kMissing);
  }
}

void compareRange(Random &random, const minidb::View &view, const Records &records) {
  const auto [from, to] = std::minmax({randomKey(random), randomKey(random)});
  uint64_t count = 0;
  const Records expected(records.lower_bound(from), records.upper_bound(to));
  ASSERT_EQ(recordsOf(view, {text(from), text(to)}), expected);
  ASSERT_TRUE(minidb::countRange(view, {text(from), text(to)}, count));
  ASSERT_EQ(count, expected.size());
}

// One transaction, sometimes with another before it is committed.
void runRound(Random &random, minidb::Store *store, Records &records) {
  minidb::View old;
  ASSERT_TRUE(minidb::openView(*store, old));
  const Records before = records;
  const auto mode = static_cast<Mode>(random.below(3));
  minidb::Transaction *transaction;
  ASSERT_TRUE(minidb::beginTransaction(*store, mode, &transaction));
  Records changed = records;
  Records touched;
  for (uint32_t left = random.below(200); left > 0; --left) {
    change(random, transaction, changed, touched);
  }
  compareRange(random, minidb::viewOf(*transaction), changed);
  bool refused = false;
  if (mode != Mode::kExclusive && random.below(2) == 0) {
    const bool meets = !touched.empty() && random.below(2) == 0;
    const std::string key = meets ? touched.begin()->first : randomKey(random);
    records[key] = randomValue(random);
    ASSERT_TRUE(put(store, {{key, records[key]}}));
    const auto earlier = before.find(key);
    refused = mode == Mode::kSnapshot && touched.contains(key) &&
              (earlier == before.end() || earlier->second != records[key]);
    if (!touched.contains(key)) {
      changed[key] = records[key];
    }
  }
  if (mode != Mode::kExclusive && random.below(4) == 0) {
    ASSERT_TRUE(minidb::compactStore(*store, {})) << minidb::problem();
  }
  if (random.below(4) == 0) {
    minidb::rollback(transaction);
  } else {
    ASSERT_EQ(statusOf(minidb::commit(transaction)), refused ? Status::kConflict : Status::kOkay);
    records = refused ? records : changed;
  }
  ASSERT_EQ(recordsOf(old), before);
  minidb::closeView(old);
}

TEST_F(StoreTest, ShowsWhatWasPut) {
  Random random;
  Records records;
  std::optional<Database> database(std::in_place, at("data"));
  for (int round = 0; round < 50; ++round) {
    ASSERT_NE(database->store, nullptr) << minidb::problem();
    runRound(random, database->store, records);
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    if (random.below(5) == 0) {
      database.reset();
      database.emplace(at("data"));
    }
    ASSERT_EQ(recordsOf(database->store), records);
  }
}

// --- Isolation, files, limits --------------------------------------------

TEST_F(StoreTest, KeepsAnOldViewOverAThousandCommits) {
  Database database(at("data"));
  const Records first = many(100, 'a');
  ASSERT_TRUE(put(database.store, first));
  minidb::View old;
  ASSERT_TRUE(minidb::openView(*database.store, old));
  onThreads(8, [&](uint32_t id) {
    for (uint32_t index = 0; index < 125; ++index) {
      const std::string key = "a" + std::to_string(index);
      EXPECT_TRUE(put(database.store, {{key, key}, {std::to_string(id) + key, key}}));
      if (index % 25 == id) {  // more than there is room for in memory
        EXPECT_TRUE(put(database.store, {{"large", std::string(40000, 'x')}}));
        recordsOf(database.store);
      }
    }
  });
  EXPECT_EQ(recordsOf(old), first);
  minidb::closeView(old);
  EXPECT_EQ(recordsOf(database.store).size(), 1126u);
}

TEST_F(StoreTest, IsOneFileForOneWriterByAnyName) {
  Database database(at("data"));
  ASSERT_TRUE(put(database.store, {{"a", "1"}}));
  ASSERT_EQ(symlink(at("data").c_str(), at("soft").c_str()), 0);
  ASSERT_EQ(link(at("data").c_str(), at("hard").c_str()), 0);
  for (const char *name : {"data", "soft", "hard"}) {
    EXPECT_EQ(statusOf(Database(at(name)).store != nullptr), Status::kRefused);
  }
  EXPECT_EQ(statusOf(minidb::compactStore(*database.store, {})), Status::kFailed);
  ASSERT_EQ(unlink(at("hard").c_str()), 0);
  {
    Fault fault(Call::open, 1, ENOENT);
    EXPECT_EQ(statusOf(minidb::compactStore(*database.store, {})), Status::kFailed);
  }
  Database reader(at("soft"), true);
  EXPECT_EQ(recordsOf(reader.store), (Records{{"a", "1"}}));
  ASSERT_EQ(chmod(at("data").c_str(), 0640), 0);
  {
    const Fault always(Call::fsync, [&](uint32_t) {
      EXPECT_TRUE(minidb::isStoreFile(*database.store, at("data").c_str()));
    });
    ASSERT_TRUE(minidb::compactStore(*database.store, {})) << minidb::problem();
  }
  ASSERT_TRUE(put(database.store, {{"b", "2"}}));
  EXPECT_EQ(recordsOf(reader.store), (Records{{"a", "1"}, {"b", "2"}}));
  struct stat status;
  ASSERT_EQ(stat(at("data").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  EXPECT_EQ(statusOf(Database(at("soft")).store != nullptr), Status::kRefused);
  EXPECT_TRUE(std::filesystem::is_symlink(at("soft")));
}

// --- A disk that forgets -------------------------------------------------

// Creates a database, commits, loads, compacts and commits again; `states` are the
// records after each commit.
void runRecorded(const std::string &path, std::vector<Records> &states, size_t &commits) {
  const auto commit = [&](minidb::Store *store, const Records &records, Mode mode) {
    states.push_back(merged(states.back(), records));
    ASSERT_TRUE(put(store, records, mode)) << minidb::problem();
    ++commits;
  };
  for (int round = 0; round < 2; ++round) {
    Database database(path);
    ASSERT_NE(database.store, nullptr) << minidb::problem();
    commit(database.store, {{"a", std::to_string(round)}}, Mode::kOverwrite);
    commit(database.store, {{"b", std::string(9000, 'b')}}, Mode::kSnapshot);
    commit(database.store, many(150, static_cast<char>('c' + round)), Mode::kExclusive);
    ASSERT_TRUE(minidb::compactStore(*database.store, {})) << minidb::problem();
    commit(database.store, {{"b", "2"}}, Mode::kOverwrite);
    ASSERT_TRUE(run(database.store, "dump '" + path + ".out'")) << minidb::problem();
    states.push_back(states.back());
    ++commits;
    // The new file has its name, but for how long? The next open makes sure.
    Fault fault(Call::fsync, 4, EIO);
    ASSERT_EQ(statusOf(minidb::compactStore(*database.store, {})), Status::kUnknown);
  }
  for (uint32_t round = 0; round < 4; ++round) {  // a commit goes on from one that is not safe
    Database database(path);
    commit(database.store, {{"a", std::to_string(round)}}, Mode::kOverwrite);
    Fault fault(Call::fsync, 2, EIO);
    ASSERT_EQ(statusOf(put(database.store, {{"a", std::to_string(round)}})), Status::kUnknown);
  }
}

TEST_F(StoreTest, SurvivesCrashes) {
  std::vector<Records> states(1);
  Recorder recorded(dir.path());
  runRecorded(at("data"), states, recorded.done);
  ASSERT_GT(recorded.events.size(), 150u);
  recorded.eachCrash([&](const std::string &after, size_t kept) {
    Database database(after + "/data");
    ASSERT_NE(database.store, nullptr) << minidb::problem();
    const Records records = recordsOf(database.store);
    ASSERT_TRUE(records == states[kept] ||
                (kept + 1 < states.size() && records == states[kept + 1]));
    ASSERT_TRUE(put(database.store, {{"again", "1"}})) << minidb::problem();
    ASSERT_FALSE(fileExists(after + "/data.new"));
    const std::string out = readFile(after + "/data.out");
    ASSERT_TRUE(out == textOf(states[5]) || out == textOf(states[10]) || (kept < 5 && out.empty()));
  });
}

// --- Calls that fail -----------------------------------------------------

TEST_F(StoreTest, LosesNothingWhenCallsFail) {
  const Records base = many(30, 'a');
  const Records more = many(20, 'g');
  writeFile(at("more"), textOf(more));
  {
    Database database(at("base"));
    ASSERT_TRUE(put(database.store, many(20, 'a')));
    ASSERT_TRUE(put(database.store, base));  // its meta is in page 1
  }
  for (const Call call :
       {Call::open, Call::read, Call::write, Call::pread, Call::pwrite, Call::fsync, Call::fstat,
        Call::stat, Call::rename, Call::flock, Call::fchmod, Call::remove, Call::allocation,
        Call::syncObject, Call::tag}) {
    bool struck = true;
    for (uint32_t nth = 1; struck; ++nth) {
      SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << ", number " << nth);
      std::filesystem::copy_file(at("base"), at("data"));
      Records kept = base;
      Records perhaps;
      bool dumped = false;
      writeFile(at("out"), "earlier");
      errorsOf([&] {
        Fault fault(call, nth, EIO);
        Database database(at("data"));
        for (const char letter : {'d', 'e', 'f'}) {
          if (database.store == nullptr) {
            break;
          }
          const Records records = merged(many(20, letter), {{"big", std::string(9000, letter)}});
          minidb::Transaction *other;
          const bool begun = minidb::beginTransaction(*database.store, Mode::kSnapshot, &other);
          const Status status =
              statusOf(put(database.store, records, static_cast<Mode>(letter - 'd')));
          if (begun) {  // takes places in the file behind all that may have been kept
            minidb::putRecord(*other, text("x"), text(std::string(40000, 'x')));
            minidb::rollback(other);
          }
          EXPECT_TRUE(perhaps.empty() || status == Status::kRefused);
          kept = status == Status::kOkay ? merged(kept, records) : kept;
          perhaps = status == Status::kUnknown ? records : perhaps;
          minidb::compactStore(*database.store, {});
        }
        if (database.store != nullptr) {
          const Status status = statusOf(run(database.store, "load '" + at("more") + "'"));
          kept = status == Status::kOkay ? merged(kept, more) : kept;
          perhaps = status == Status::kUnknown ? more : perhaps;
          dumped = run(database.store, "dump '" + at("out") + "'");
        }
        struck = fault.struck();
      });
      Database database(at("data"));
      ASSERT_NE(database.store, nullptr) << minidb::problem();
      const Records records = recordsOf(database.store);
      ASSERT_TRUE(records == kept || records == merged(kept, perhaps));
      const std::string out = readFile(at("out"));
      ASSERT_TRUE(out == textOf(kept) || (out == "earlier" && !dumped));
      std::filesystem::remove(at("data"));
    }
  }
}

// Serves a client that sends its requests at once, while a call fails. Gives all replies.
std::string serveWith(minidb::Database &database, Call call, uint32_t nth, int error,
                      bool &struck) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  for (const std::string number : {"0", "1", "2", "3"}) {
    const std::string query =
        "begin; put k" + number + " 1; put k " + number + "; commit; get k" + number;
    const int32_t head[] = {minidb::kRequest, 1, 1, static_cast<int32_t>(query.size())};
    EXPECT_EQ(write(ends[0], head, sizeof head), 16);
    EXPECT_EQ(write(ends[0], query.data(), query.size()), static_cast<ssize_t>(query.size()));
  }
  shutdown(ends[0], SHUT_WR);
  errorsOf([&] {
    const Fault fault(call, nth, error);
    const Fault also(Call::poll, 1, ENOMEM);
    minidb::Peer peer = {ends[1], -1, -1, nullptr};
    serve(database, peer);
    struck = fault.struck();
  });
  close(ends[1]);
  std::string replies(1 << 16, '\0');
  const ssize_t count = read(ends[0], replies.data(), replies.size());
  replies.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  close(ends[0]);
  return replies;
}

TEST_F(StoreTest, KeepsWhatASessionAnswered) {
  using Points = std::vector<std::pair<Call, int>>;
  for (const auto &[call, error] : Points{{Call::allocation, ENOMEM},
                                          {Call::tag, ENOMEM},
                                          {Call::pwrite, ENOSPC},
                                          {Call::read, ECONNRESET},
                                          {Call::read, EAGAIN},
                                          {Call::write, ENOBUFS}}) {
    bool struck = true;
    for (uint32_t nth = 1; struck; ++nth) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(call) << ", number " << nth);
      Database database(at("data"));
      minidb::Database served = {database.store, {}, ';'};
      const std::string replies = serveWith(served, call, nth, error, struck);
      const bool goesOn = error == EAGAIN || error == ENOBUFS;
      const Records records = recordsOf(database.store);
      std::string last;
      for (const std::string key : {"k0", "k1", "k2", "k3"}) {
        const bool answered = replies.find(key + ";1\n") != std::string::npos;
        EXPECT_TRUE(records.contains(key) || !(answered || goesOn));
        last = records.contains(key) ? key.substr(1) : last;
      }
      EXPECT_TRUE(last.empty() ? records.empty() : records.at("k") == last);
      std::filesystem::remove(at("data"));
    }
  }
}

}  // namespace

}  // namespace zovtest
