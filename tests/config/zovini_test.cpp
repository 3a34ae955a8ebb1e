// SPDX-License-Identifier: Apache-2.0
//
// INI files on disk and in memory: gets and sets by table, random files and
// edits beside a model, and what fails: system calls, allocations, limits.
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "config/zovini_model.h"
#include "support/faults.h"
#include "support/on_route.h"

namespace {

using std::string;
using zovtest::Call;
using zovtest::Fault;
using namespace std::string_literals;

class Ini : public zovtest::OnRoute {
 protected:
  int32_t read() const { return zov_readIniFileEx(path.c_str(), flags); }
  void fill(const string &text) const {
    put("test.ini", text);
    ASSERT_EQ(read(), ZOV_OKAY);
  }
  int32_t getInto(char *out, uint32_t size, const char *section, const char *name) const {
    return zov_iniStringEx(path.c_str(), section, name, out, size, flags);
  }
  string value(const char *section, const char *name) const {
    char out[400] = "";
    const int32_t status = getInto(out, sizeof out, section, name);
    return status == ZOV_OKAY ? out : std::to_string(status);
  }
  int32_t set(const char *name, const char *value) const {
    return zov_iniSetEx(path.c_str(), "S", name, value, flags);
  }
  // More than a block, and more than one of all that is kept of it.
  static string textWith(const string &value) {
    const string section = "]\nab=" + string(500, 'v') + "\ncd=1\n";
    return "[A" + section + "[B" + section + "[C" + section + "[S]\nab=" + value + "\n";
  }
  string file() const { return get("test.ini"); }
  string copy() const { return get("_temp_.ini"); }

  const string path = at("test.ini");
  const std::wstring widePath{path.begin(), path.end()};
};
INSTANTIATE_TEST_SUITE_P(Where, Ini, zovtest::bothRoutes, zovtest::routeName);

// What only a disk can do, or where the route makes no difference.
class IniOnDisk : public Ini {};
INSTANTIATE_TEST_SUITE_P(Where, IniOnDisk, testing::Values(uint16_t{0}), zovtest::routeName);

// Marks, which are not modelled: a file, a value of it, and the file after a set.
TEST_P(Ini, MarksDecideTheEncodingAndGo) {
  const string rows[][3] = {
      {"\xEF\xBB\xBF[S]\r\nab=\xC3\xA9\r\n", "\xC3\xA9", "[S]\r\nab=v\n"},
      {"\xFF\xFE[\0S\0]\0\n\0\xE9\0\n\0a\0b\0=\0\xE9\0"s, "\xC3\xA9", "[S]\n\xC3\xA9\nab=v\n"},
      {"\xEF", "2", "\xEF\n[S]\nab=v\n"},
      {"\xFF\xFE[\0\x3D\xD8x"s, "2", "[\n[S]\nab=v\n"},
  };
  for (const auto &[text, old, after] : rows) {
    fill(text);
    EXPECT_EQ(value("S", "ab"), old);
    EXPECT_EQ(set("ab", "v"), ZOV_OKAY);
    EXPECT_EQ(file(), after);
  }
}

TEST_P(Ini, GetsIntegers) {
  fill("[A]\nab=42\ncd=\t-7x\nef=none\ngh=4294967297\nkl=010\nij=000000000000000017\n");
  string all;
  for (const char *name : {"ab", "cd", "ef", "gh", "kl", "ij", "mn"}) {
    int32_t value = 99;
    const int32_t status = zov_iniInt32Ex(path.c_str(), "A", name, &value, flags);
    all += std::to_string(status) + ' ' + std::to_string(value) + ',';
  }
  EXPECT_EQ(all, "0 42,0 -7,0 0,0 1,0 10,-932 99,2 99,");
}

TEST_P(Ini, RandomFilesAndEditsAgreeWithTheModel) {
  zovtest::Random random;
  const auto pick = [&](auto &choices) { return choices[random() % std::size(choices)]; };
  const string pieces[] = {
      "[S]\n", "[s", "]", "[T]\n",  "ab=", "AB = ", "x=", "\n", "\r\n", "; c",
      "\n\n",  " ",  "=", "ab=1\n", "\0"s, "value", "\t", ";",  "\xE9", string(130, 'n')};
  const char *const names[] = {"ab", "AB ", "", "x", nullptr};
  const char *const values[] = {"1", "", "two ; 2", nullptr};
  const string sections[] = {"S", "T", "s]", string(130, 'n')};
  for (int round = 0; round < zovtest::rounds(2000); ++round) {
    string text;
    for (uint64_t count = random() % 30; count > 0; --count) {
      text += pick(pieces);
    }
    ASSERT_TRUE(zovtest::iniAgrees(path, flags | ZOV_FILE_NOSYNC, text, pick(sections), pick(names),
                                   pick(values), 1 + random() % 300))
        << "round " << round << "\n"
        << text;
  }
}

TEST_P(Ini, AnswersFromTheCacheUntilToldToReadAgain) {
  EXPECT_EQ(value("A", "ab"), "-905");
  put("test.ini", "[A]\nab=1\n");
  EXPECT_EQ(value("A", "ab"), "1");
  put("test.ini", "[A]\nab=2\n");
  EXPECT_EQ(value("A", "ab"), "1");
  EXPECT_EQ(read(), ZOV_OKAY);
  EXPECT_EQ(value("A", "ab"), "2");
  zov_iniCleanup();
  zov_fileRemoveEx(path.c_str(), flags);
  EXPECT_EQ(value("A", "ab"), "-905");
  fill("[A]\nab=" + string(200, 'v') + "\ncd=1\n[B]\n");
  fill("[A]\nab=3\n");
  EXPECT_EQ(value("A", "ab") + value("A", "cd") + value("B", nullptr), "322");
  string many = "[A]\n";
  for (int number = 0; number < 300; ++number) {
    many += "p" + std::to_string(number % 200) + "=" + std::to_string(number) + "\n";
  }
  fill(many);
  fill(many + "ab=3\ncd=" + string(200, 'v') + "\n");
  EXPECT_EQ(value("A", "cd"), string(200, 'v'));
  EXPECT_EQ(value("A", "p5") + value("A", "p199") + value("A", "none"), "51992");
  zov_fileRemoveEx(path.c_str(), flags);
  EXPECT_EQ(zov_readIniFileExW(widePath.c_str(), flags), ZOV_OKAY);
  EXPECT_EQ(value("A", "ab"), "3");
  EXPECT_EQ(read(), ZOV_OKAY);
  EXPECT_EQ(value("A", "ab"), "-905");
}

TEST_P(Ini, RefusesWhatIsMissing) {
  char out[9] = "#";
  fill("[A]\nab=1\n");
  EXPECT_EQ(getInto(nullptr, 9, "A", "ab"), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(getInto(out, 0, "A", "ab"), ZOV_INI_TRUNCATED);
  EXPECT_EQ(zov_iniInt32(path.c_str(), "A", "ab", nullptr), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_iniSet(path.c_str(), nullptr, "ab", "2"), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_iniGet(nullptr, "A", "ab", out, 9), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_iniSet(nullptr, "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_iniSet("stdin", "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_readIniFile(nullptr), ZOV_OKAY);
  EXPECT_EQ(zov_iniSetEx(at("none.ini").c_str(), "A", "ab", "2", flags), ZOV_INI_NOFILE);
  EXPECT_EQ(get("none.ini") + copy(), "(none)(none)");
  put("swapped.ini", "\xFE\xFF\0[\0A\0]"s);
  EXPECT_EQ(zov_iniSetEx(at("swapped.ini").c_str(), "A", "ab", "2", flags), ZOV_INI_NOFILE);
  EXPECT_EQ(get("swapped.ini") + copy(), "\xFE\xFF\0[\0A\0](none)"s);
  put("_temp_.ini", "[A]\nab=1\n");
  const string temp = at(flags == 0 ? "_temp_.ini" : "_TEMP_.ini");
  EXPECT_EQ(zov_iniSetEx(temp.c_str(), "A", "ab", "2", flags), ZOV_INI_NOFILE);
  EXPECT_EQ(copy(), "[A]\nab=1\n");
  zov_term();
  EXPECT_EQ(read(), ZOV_OKAY);
  EXPECT_EQ(getInto(out, 9, "A", "ab"), ZOV_INI_NOFILE);
  EXPECT_EQ(set("ab", "2"), ZOV_INI_NOFILE);
  EXPECT_STREQ(out, "#");
  ASSERT_EQ(zov_init(), ZOV_OKAY);
}

// A file that cannot be read is not an empty one, whatever its length is said to be.
TEST_P(IniOnDisk, AFailingReadIsNotTheEnd) {
  put("test.ini", textWith("1"));
  for (uint32_t nth = 1; nth < 20; ++nth) {
    zovtest::outputOf([&] {
      const Fault unknown(Call::fstat, nth, EIO);
      const Fault unread(Call::read, 1, EIO, true);
      EXPECT_NE(set("ab", "2"), ZOV_OKAY) << nth;
    });
    EXPECT_EQ(file(), textWith("1")) << nth;
  }
}

// Two processes on each of two files of one directory.
TEST_P(IniOnDisk, ProcessesLoseNothingOfEachOther) {
  const string files[] = {at("test.ini"), at("other.ini")};
  put("test.ini", textWith("1"));
  put("other.ini", textWith("1"));
  zovtest::onThreads(4, [&](uint32_t id) {
    const auto setAll = [&] {
      int32_t failed = ZOV_OKAY;
      for (int round = 1; round <= 200; ++round) {
        failed |= zov_iniSetEx(files[id % 2].c_str(), "S", ("p" + std::to_string(id)).c_str(),
                               std::to_string(round).c_str(), ZOV_FILE_NOSYNC);
      }
      return failed;
    };
    EXPECT_EQ(zovtest::inChild(setAll), ZOV_OKAY);
  });
  const auto isBoth = [](const string &text, const string &one, const string &two) {
    return text == textWith("1") + one + two || text == textWith("1") + two + one;
  };
  EXPECT_TRUE(isBoth(file(), "p0=200\n", "p2=200\n")) << file();
  EXPECT_TRUE(isBoth(get("other.ini"), "p1=200\n", "p3=200\n")) << get("other.ini");
}

// What no set leaves under the name of the copy is refused and stays.
TEST_P(IniOnDisk, LeavesAloneWhatIsNoLeftover) {
  const string name = at("_temp_.ini");
  const std::function<int()> rows[] = {
      [&] { return symlink("victim", name.c_str()); },
      [&] { return symlink("nowhere", name.c_str()); },
      [&] { return link(at("victim").c_str(), name.c_str()); },
      [&] { return mkfifo(name.c_str(), 0600); },
      [&] { return mkdir(name.c_str(), 0700); },
      [&] { return rename(path.c_str(), name.c_str()) + symlink("_temp_.ini", path.c_str()); },
  };
  put("victim", "text");
  for (const auto &plant : rows) {
    SCOPED_TRACE(&plant - rows);
    put("test.ini", textWith("1"));
    ASSERT_EQ(plant(), 0);
    EXPECT_EQ(set("ab", "2"), ZOV_INI_NOFILE);
    EXPECT_EQ(file() + get("victim"), textWith("1") + "text");
    EXPECT_TRUE(zovtest::fileExists(name));
    EXPECT_EQ(remove(name.c_str()) + unlink(path.c_str()), 0);
  }
  put("test.ini", textWith("1"));
  {
    const Fault syncing(Call::fsync, [&](uint32_t) {
      remove(name.c_str());
      put("_temp_.ini", "planted");
    });
    EXPECT_EQ(set("ab", "2"), ZOV_INI_NOTREPLACED);
  }
  EXPECT_EQ(file() + copy(), textWith("1") + "planted");
  remove(name.c_str());
  {
    const Fault opening(Call::open, [&](uint32_t use) {
      ASSERT_EQ(use == 3 ? unlink(path.c_str()) + symlink("_temp_.ini", path.c_str()) : 0, 0);
    });
    EXPECT_EQ(set("ab", "2"), ZOV_INI_NOFILE) << "the path leads to the copy by then";
  }
  EXPECT_EQ(file() + copy(), "(none)(none)");
  EXPECT_EQ(unlink(path.c_str()) + mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(set("ab", "2"), ZOV_INI_NOFILE);
}

// A leftover goes. A copy that somebody has is waited for, and stays if that takes
// too long. Where there are no locks nobody can tell the two apart.
TEST_P(IniOnDisk, WaitsForACopyInUse) {
  fill(textWith("1"));
  for (const int unknown : {EOPNOTSUPP, ENOLCK, ENOSYS, EINVAL}) {
    const Fault noLocks(Call::flock, 1, unknown, true);
    EXPECT_EQ(set("ab", "1"), ZOV_OKAY);
    put("_temp_.ini", "left");
    EXPECT_EQ(set("ab", "2"), ZOV_INI_NOFILE);
    EXPECT_EQ(copy(), "left");
    unlink(at("_temp_.ini").c_str());
  }
  // One that is gone meanwhile, or is another's, is tried again.
  const std::tuple<Call, uint32_t, int32_t> moments[] = {{Call::open, 3, ZOV_OKAY},
                                                         {Call::open, 4, ZOV_OKAY},
                                                         {Call::fstat, 3, ZOV_OKAY},
                                                         {Call::flock, 3, ZOV_OKAY},
                                                         {Call::remove, 1, ZOV_INI_NOFILE}};
  for (const auto &[call, nth, status] : moments) {
    put("_temp_.ini", "left");
    const Fault missing(call, nth, ENOENT);
    EXPECT_EQ(set("ab", "2"), status) << nth;
    EXPECT_EQ(copy(), status == ZOV_OKAY ? "(none)" : "left");
  }
  EXPECT_EQ(file(), textWith("2"));
  put("_temp_.ini", "in use");
  const int holder = open(at("_temp_.ini").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(set("ab", "3"), ZOV_INI_NOFILE);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(file() + copy(), textWith("2") + "in use");
  const Fault waiting(Call::flock, [&](uint32_t use) { use == 3 ? close(holder) : 0; });
  EXPECT_EQ(set("ab", "3"), ZOV_OKAY);
  EXPECT_GT(waiting.uses(), 3u);
}

// The copy is its owner's alone until it is whole, and synced before it has its
// place. A process that may give neither owner nor group makes a file that nobody may
// read who could not before.
TEST_P(IniOnDisk, NobodyMayReadMoreThanBefore) {
  const bool isRoot = geteuid() == 0;
  const uid_t owner = isRoot ? 1234 : geteuid();
  const gid_t group = isRoot ? 1234 : getegid();
  const auto modeOf = [&](const char *name) {
    struct stat status = {};
    stat(at(name).c_str(), &status);
    return std::pair(status.st_mode & 07777, status.st_uid);
  };
  put("test.ini", textWith("1"));
  const mode_t mask = umask(0);
  for (const mode_t mode : {0600u, 0664u}) {
    ASSERT_EQ(chown(path.c_str(), owner, group) + chmod(path.c_str(), mode), 0);
    const Fault writing(Call::write, [&](uint32_t) {
      EXPECT_EQ(modeOf("_temp_.ini"), std::pair(mode_t{0600}, owner));
    });
    const Fault synced(Call::fsync);
    const Fault renaming(Call::rename, [&](uint32_t) { EXPECT_EQ(synced.uses(), 1u); });
    EXPECT_EQ(set("ab", "2"), ZOV_OKAY);
    EXPECT_EQ(synced.uses(), 2u);
    EXPECT_EQ(modeOf("test.ini"), std::pair(mode, owner));
  }
  // An access list that gives the group nothing, though its bits of the mode do.
  const uint32_t list[] = {2, 0x60001, ~0u, 4, ~0u, 0x60010, ~0u, 0x20, ~0u};
  if (setxattr(path.c_str(), "system.posix_acl_access", list, sizeof list, 0) == 0) {
    EXPECT_EQ(set("ab", "2"), ZOV_OKAY);
    EXPECT_EQ(modeOf("test.ini"), std::pair(mode_t{0600}, owner));
    EXPECT_EQ(chmod(path.c_str(), 0664), 0);
  }
  umask(mask);
  if (!isRoot) {
    return;
  }
  const auto setAsNobody = [&] {
    return setgroups(0, nullptr) + setgid(65534) + setuid(65534) + set("ab", "4");
  };
  put("_temp_.ini", "left");
  ASSERT_EQ(chmod(dir.path().c_str(), 0777) + chmod(at("_temp_.ini").c_str(), 0600), 0);
  EXPECT_NE(zovtest::inChild(setAsNobody), ZOV_OKAY);
  EXPECT_EQ(copy(), "left");
  unlink(at("_temp_.ini").c_str());
  EXPECT_EQ(zovtest::inChild(setAsNobody), ZOV_OKAY);
  EXPECT_EQ(modeOf("test.ini"), std::pair(mode_t{0604}, uid_t{65534}));
}

TEST_P(Ini, WideFormsConvert) {
  wchar_t out[8];
  int32_t number = 0;
  const wchar_t *const wide = widePath.c_str();
  const auto getWide = [&](const wchar_t *name, uint32_t size) {
    wmemset(out, L'#', 8);
    return zov_iniStringExW(wide, L"S", name, out, size, flags);
  };
  fill("[S]\n\xC3\xA9t=\xC3\xA9t\xC3\xA9\nab=12\nbad=\xE9\n");
  EXPECT_EQ(getWide(L"\u00E9t", 3), ZOV_OKAY);
  EXPECT_EQ(std::wstring(out, 4), L"\u00E9t\0#"s);
  EXPECT_EQ(getWide(L"\u00E9t", 0), ZOV_INI_TRUNCATED);
  EXPECT_EQ(getWide(nullptr, 8), ZOV_INI_NOMEMORY);
  EXPECT_EQ(getWide(L"bad", 8), ZOV_INI_NOMEMORY);
  EXPECT_EQ(std::wstring(out, 1), L"#");
  EXPECT_EQ(getWide(L"ab", 1u << 30), ZOV_OKAY);
  EXPECT_STREQ(out, L"12");
  EXPECT_EQ(zov_iniInt32ExW(wide, L"S", L"ab", &number, flags), ZOV_OKAY);
  EXPECT_EQ(number, 12);
  EXPECT_EQ(zov_iniStringExW(wide, L"S", L"ab", nullptr, 8, flags), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_readIniFileW(L"/none") + zov_readIniFileW(wide), ZOV_OKAY);
  EXPECT_EQ(zov_iniInt32W(wide, L"S", L"ab", &number), ZOV_OKAY) << "cached by path";
  EXPECT_EQ(zov_iniSetExW(wide, L"S", L"ab", L"\u00E9", flags), ZOV_OKAY);
  EXPECT_EQ(value("S", "ab"), "\xC3\xA9");
  EXPECT_EQ(zov_iniSetExW(wide, L"S", L"ab", nullptr, flags), ZOV_INI_NOMEMORY);
}

TEST_P(IniOnDisk, StopsAtItsLimits) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers copy an array each time it grows";
#endif
  string params = "[A]\n";
  string sections;
  for (int number = 0; number < 65537; ++number) {
    const string digits = std::to_string(number);
    params += "name" + digits + "=" + digits + "\n";
    sections += "[sec" + digits + "]\nab=" + digits + "\n";
  }
  fill(params);
  EXPECT_EQ(value("A", "name0") + value("A", "name65534") + value("A", "name65535"), "0655342");
  fill(sections);
  EXPECT_EQ(value("sec0", "ab") + value("sec65534", "ab") + value("sec65535", "ab"), "0655342");
  fill("[A]\nab=1\ncd=2\n");
  string list(65539, '#');  // 65,538 bytes of room count as two
  EXPECT_EQ(zov_iniString(path.c_str(), "A", nullptr, list.data(), 65539), ZOV_OKAY);
  EXPECT_EQ(list.substr(0, 4), "ab\0#"s);
  zov_iniCleanup();
  put("empty", "");
  int32_t status = ZOV_OKAY;
  for (int number = 0; number < 65536; ++number) {
    ASSERT_EQ(status, ZOV_OKAY) << number;
    string spelling = dir.path();
    for (int bit = 0; bit < 16; ++bit) {
      spelling += (number >> bit & 1) != 0 ? "/." : "//";
    }
    status = zov_readIniFile((spelling + "/empty").c_str());
  }
  EXPECT_EQ(status, ZOV_INI_NOMEMORY);
}

// In memory a backslash leads into a directory.
TEST_P(Ini, LongPathsMatch) {
  for (const string name : {"1", "2", "1", "2", "a\\b"}) {
    put(name, "[S]\nab=" + name);
    char out[9];
    const string longPath = dir.path() + string(300, '/') + name;
    EXPECT_EQ(zov_iniGetEx(longPath.c_str(), "S", "ab", out, 9, flags), ZOV_OKAY);
    EXPECT_EQ(out, name);
    EXPECT_EQ(zov_iniSetEx(longPath.c_str(), "S", "cd", "x", flags), ZOV_OKAY);
    EXPECT_EQ(get(name), "[S]\nab=" + name + "\ncd=x\n");
  }
}

}  // namespace
