// SPDX-License-Identifier: Apache-2.0
//
// Crashes of the system during a set of an INI file and during moves: whether what they
// may leave is what docs/durability.md says, and whether it is less without the syncs.
#include <sys/stat.h>

#include "support/crash.h"
#include "support/faults.h"
#include "support/route_file.h"

namespace {

using std::string;
using zovtest::Call;
using zovtest::Fault;
using zovtest::getFile;

const string kLines = "[s]\nname=" + string(3000, 'n') + "\nab=";
const string kValue(700, '2');
const string kOld = kLines + "1\n";
const string kNew = kLines + kValue + "\n";
constexpr uint32_t kNever = 99;

// What is under the name of the destination when the call is back and the system
// crashes then; kIsPart before that too.
enum class After : uint8_t { kIsNew, kIsOld, kIsEither, kIsPart };

struct Row {
  int line;
  const char *from;  // empty for a set
  const char *to;
  uint32_t failing = kNever;  // of the uses of `fails`
  int32_t status = ZOV_OKAY;
  After after = After::kIsNew;
  uint32_t fromFlags = 0;
  uint32_t toFlags = 0;
  Call fails = Call::fsync;
};

int32_t call(const Row &row, const string &dir) {
  const string from = dir + "/" + row.from;
  const string to = dir + "/" + row.to;
  if (*row.from == '\0') {
    return zov_iniSetEx(to.c_str(), "s", "ab", kValue.c_str(), static_cast<uint16_t>(row.toFlags));
  }
  const bool isNear = from.starts_with(dir + "/to/");
  const bool isDirectory = from == dir + "/from";
  const bool isFar = !isNear && row.fromFlags == 0;
  const Fault elsewhere(Call::rename, isFar ? 1 : kNever, EXDEV);
  const Fault itsFile(Call::rename, isFar && isDirectory ? 2 : kNever, EXDEV);
  const int32_t status = (isDirectory ? zov_dirMoveEx : zov_fileMoveEx)(from.c_str(), row.fromFlags,
                                                                        to.c_str(), row.toFlags);
  ZOV_FILE directory = zov_fileOpen((dir + "/to").c_str(), O_RDONLY, 0);
  EXPECT_TRUE(!isNear || zov_fileSync(directory) == ZOV_OKAY);
  zov_fileClose(directory);
  return status;
}

// Whether a state is one that the row allows.
bool isAllowed(const Row &row, const string &source, const string &target, bool isBack) {
  const string before = strcmp(row.to, "to/y") == 0 ? kOld : "(none)";
  const bool isThere =
      source == kNew || (source == "(none)" && row.status == ZOV_OKAY && target == kNew);
  const bool isWhole = target == kNew || target == before;
  const bool hasOutcome =
      row.after == After::kIsNew ? target == kNew : row.after != After::kIsOld || target == before;
  return isThere && isWhole && (!isBack || hasOutcome);
}

using Durability = zovtest::Started;

TEST_F(Durability, CrashesLeaveTheOldOrTheNew) {
  constexpr uint32_t kNosync = ZOV_FILE_NOSYNC;
  const Row rows[] = {
      {__LINE__, "", "to/y"},
      {__LINE__, "", "to/y", 1, ZOV_INI_NOTREPLACED, After::kIsOld},
      {__LINE__, "", "to/y", 2, ZOV_INI_NOTREPLACED, After::kIsEither},
      {__LINE__, "", "to/y", 3, ZOV_INI_NOTREPLACED, After::kIsOld, 0, 0, Call::close},
      {__LINE__, "", "to/y", kNever, ZOV_OKAY, After::kIsPart, 0, kNosync},
      {__LINE__, "to/z", "to/y"},
      {__LINE__, "from/x", "to/y"},
      {__LINE__, "from/x", "to/new"},
      {__LINE__, "from/x", "to/y", 1, ZOV_ERROR, After::kIsOld},
      {__LINE__, "from/x", "to/y", 2, ZOV_ERROR, After::kIsEither},
      {__LINE__, "from/x", "to/y", kNever, ZOV_OKAY, After::kIsPart, 0, kNosync},
      {__LINE__, "from", "to/n/d"},
      {__LINE__, "mem/x", "to/y", kNever, ZOV_OKAY, After::kIsNew, ZOV_FILE_MEMORY},
      {__LINE__, "mem/x", "to/y", kNever, ZOV_OKAY, After::kIsPart, ZOV_FILE_MEMORY, kNosync},
  };
  uint32_t states = 0;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.line);
    const zovtest::TempDir dir(zovtest::quickDisk());
    EXPECT_EQ(mkdir((dir / "from").c_str(), 0700) | mkdir((dir / "to").c_str(), 0700), 0);
    EXPECT_TRUE(zovtest::putFile(dir / "mem/x", kNew, ZOV_FILE_MEMORY));
    zovtest::writeFile(dir / "from/x", kNew);
    zovtest::writeFile(dir / "to/y", kOld);
    zovtest::writeFile(dir / "to/z", kNew);
    zovtest::Recorder recorded(dir.path());
    zovtest::outputOf([&] {
      const Fault failing(row.fails, row.failing, EIO);
      EXPECT_EQ(call(row, dir.path()), row.status);
    });
    recorded.done = 1;
    const string file = strcmp(row.from, "from") == 0 ? "/x" : "";
    const bool hasSource = *row.from != '\0' && row.fromFlags == 0;
    uint32_t broken = 0;
    const auto look = [&](const string &after, size_t done) {
      const string target = after + "/" + row.to + file;
      const string source = hasSource ? getFile(after + "/" + row.from + file, 0) : kNew;
      const bool allowed = isAllowed(row, source, getFile(target, 0), done == 1);
      ASSERT_TRUE(allowed || row.after == After::kIsPart)
          << source.size() << " bytes to " << getFile(target, 0).size();
      broken += allowed ? 0 : 1;
      if (allowed && source == kNew && row.fromFlags == 0) {
        EXPECT_EQ(call({row.line, row.from, row.to}, after), ZOV_OKAY);
        EXPECT_EQ(getFile(target, 0), kNew);
        EXPECT_FALSE(zovtest::fileExists(after + "/to/_temp_.ini"));
      }
    };
    for (int round = 0; round < 6; ++round) {
      states += recorded.eachCrash(look);
    }
    EXPECT_EQ(broken > 0, row.after == After::kIsPart);
  }
  RecordProperty("states", static_cast<int>(states));
}

}  // namespace
