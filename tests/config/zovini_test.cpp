// SPDX-License-Identifier: Apache-2.0
//
// INI files: gets and sets by table, random files and edits beside a model, and
// what fails: system calls, allocations, limits.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "config/zovini_model.h"
#include "support/alloc_failure.h"
#include "support/output.h"
#include "support/started.h"

namespace {

enum class Fault { kNone, kRead, kWrite, kShortWrite, kSync, kRename };
Fault fault = Fault::kNone;

bool fails(Fault which) {
  errno = fault == which ? EIO : errno;
  return fault == which;
}

}  // namespace

extern "C" {
ssize_t __real_read(int descriptor, void *buffer, size_t count);
ssize_t __real_write(int descriptor, const void *buffer, size_t count);
int __real_rename(const char *from, const char *to);
ssize_t __wrap_read(int descriptor, void *buffer, size_t count);
ssize_t __wrap_write(int descriptor, const void *buffer, size_t count);
int __wrap_fsync(int descriptor);
int __wrap_rename(const char *from, const char *to);

ssize_t __wrap_read(int descriptor, void *buffer, size_t count) {
  return fails(Fault::kRead) ? -1 : __real_read(descriptor, buffer, count);
}
ssize_t __wrap_write(int descriptor, const void *buffer, size_t count) {
  const size_t taken = fault == Fault::kShortWrite ? count / 2 : count;
  return fails(Fault::kWrite) ? -1 : __real_write(descriptor, buffer, taken);
}
int __wrap_fsync(int) {
  return fails(Fault::kSync) ? -1 : 0;  // the disk is slow and not what is tested
}
int __wrap_rename(const char *from, const char *to) {
  return fails(Fault::kRename) ? -1 : __real_rename(from, to);
}
}

namespace {

using std::string;
using namespace std::string_literals;
using zovtest::readFile;
using zovtest::writeFile;

class Ini : public zovtest::Started {
 protected:
  void fill(const string &text) const {
    writeFile(path, text);
    ASSERT_EQ(zov_readIniFile(path.c_str()), ZOV_OKAY);
  }
  string get(const char *section, const char *name) const {
    char out[400] = "";
    const int32_t status = zov_iniGet(path.c_str(), section, name, out, sizeof out);
    return status == ZOV_OKAY ? out : std::to_string(status);
  }

  const zovtest::TempDir dir;
  const string path = dir / "test.ini";
  const string temp = dir / "_temp_.ini";
};

TEST_F(Ini, GetsByTheRulesOfTheFormat) {
  const string long128(128, 'v');
  const struct {
    int line;
    string text;
    const char *section;
    const char *name;
    uint32_t size;
    int32_t status;
    string bytes;  // all that is written to the buffer
  } rows[] = {
      {__LINE__, "[Main]\nPort = 8080 ; tcp\n", "main", "PORT", 20, 0, "8080\0\0"s},
      {__LINE__, "[M]\nxy=abc", "M", "xy", 6, 0, "abc\0\0"s},
      {__LINE__, "[M]\nxy=abc", "M", "xy", 5, -932, "abc\0"s},
      {__LINE__, "[M]\nxy=abc", "M", "xy", 0, -932, ""s},
      {__LINE__, "[M]\nx=1\n x=2\nxy=", "M", nullptr, 20, 0, " x\0xy\0\0"s},
      {__LINE__, "xy=0\n [M]\n[ a ]\n[M\nab==b\n", nullptr, nullptr, 20, 0, " a \0M\0\0"s},
      {__LINE__, "[M]\n  key =  v w\t\n", "M", "  key", 20, 0, "v w\0\0"s},
      {__LINE__, "[M]\nab=1\n[m]\nab=2\nab=3\n", "M", "AB", 20, 0, "1\0\0"s},
      {__LINE__, "[A]\nab=c\0d;\0\n"s, "A", "ab", 9, 0, "c\0d\0\0"s},
      {__LINE__, "[A]\nab=" + long128, "A", "ab", 131, 0, long128 + "\0\0"s},
      {__LINE__, "\xEF\xBB\xBF[A]\nab=\xC3\xA9", "A", "ab", 9, 0, "\xC3\xA9\0\0"s},
      {__LINE__, "\xFF\xFE[\0A\0\n\0a\0b\0=\0\xE9\0"s, "A", "ab", 9, 0, "\xC3\xA9\0\0"s},
      {__LINE__, "\xEF", nullptr, nullptr, 9, 0, "\0\0"s.substr(1)},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    fill(row.text);
    string out(200, '#');
    EXPECT_EQ(zov_iniGet(path.c_str(), row.section, row.name, out.data(), row.size), row.status);
    EXPECT_EQ(out, row.bytes + string(200 - row.bytes.size(), '#'));
  }
}

TEST_F(Ini, GetsIntegers) {
  fill("[A]\nab=42\ncd=\t-7x\nef=none\ngh=4294967297\nij=000000000000000017\n");
  const auto get = [&](const char *name, int32_t status) {
    int32_t value = 99;
    EXPECT_EQ(zov_iniInt32(path.c_str(), "A", name, &value), status) << name;
    return value;
  };
  EXPECT_EQ(get("ab", ZOV_OKAY), 42);
  EXPECT_EQ(get("cd", ZOV_OKAY), -7);
  EXPECT_EQ(get("ef", ZOV_OKAY), 0);
  EXPECT_EQ(get("gh", ZOV_OKAY), 1);
  EXPECT_EQ(get("ij", ZOV_INI_TRUNCATED), 99);
  EXPECT_EQ(get("kl", ZOV_ERROR), 99);
}

TEST_F(Ini, SetsByRewritingTheFile) {
  const struct {
    int line;
    string text;
    const char *name;
    const char *value;
    string after;
  } rows[] = {
      {__LINE__, "[S]\nkey=old\nab=1\n", "KEY", "new", "[S]\nKEY=new\nab=1\n"},
      {__LINE__, "[s]\nab=1\n\n \n[T]\n", "key", "v", "[s]\nab=1\nkey=v\n\n\n[T]\n"},
      {__LINE__, "[S]\nkey = old\n", "key", "new", "[S]\nkey = old\nkey=new\n"},
      {__LINE__, "[S]\nab=1", "key", "v", "[S]\nab=1\nkey=v\n"},
      {__LINE__, "[S]\na\0b\nkey=1\0\n\0"s, "key", "v", "[S]\na\0b\nkey=v\n\0"s},
      {__LINE__, "\xEF\xBB\xBF[S]\r\nkey=1\r\n", "key", "v", "[S]\r\nkey=v\n"},
      {__LINE__, "\xFF\xFE[\0S\0]\0\n\0\xE9\0"s, "key", "v", "[S]\n\xC3\xA9\nkey=v\n"},
      {__LINE__, "[S]\n\nkey=1\nab=\nKey=2\n\n[T]\n", "key", nullptr, "[S]\nab=\n[T]\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    fill(row.text);
    EXPECT_EQ(zov_iniSet(path.c_str(), "S", row.name, row.value), ZOV_OKAY);
    EXPECT_EQ(readFile(path), row.after);
    EXPECT_FALSE(zovtest::fileExists(temp));
  }
}

TEST_F(Ini, RandomFilesAndEditsAgreeWithTheModel) {
  const uint32_t seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto pick = [&](auto &choices) { return choices[random() % std::size(choices)]; };
  const string pieces[] = {
      "[S]\n", "[s", "]", "[T]\n",  "ab=", "AB = ", "x=", "\n", "\r\n", "; c",
      "\n\n",  " ",  "=", "ab=1\n", "\0"s, "value", "\t", ";",  "\xE9", string(130, 'n')};
  const char *const names[] = {"ab", "AB ", "", "x", nullptr};
  const char *const values[] = {"1", "", "two ; 2", nullptr};
  const string sections[] = {"S", "T", "s]", string(130, 'n')};
  for (int round = 0; round < 3000; ++round) {
    string text;
    for (uint64_t count = random() % 30; count > 0; --count) {
      text += pick(pieces);
    }
    ASSERT_TRUE(zovtest::iniAgrees(path, text, pick(sections), pick(names), pick(values),
                                   1 + random() % 300))
        << "seed " << seed << " round " << round << "\n"
        << text;
  }
}

TEST_F(Ini, AnswersFromTheCacheUntilToldToReadAgain) {
  EXPECT_EQ(get("A", "ab"), "-905");
  writeFile(path, "[A]\nab=1\n");
  EXPECT_EQ(get("A", "ab"), "1");
  writeFile(path, "[A]\nab=2\n");
  EXPECT_EQ(get("A", "ab"), "1");
  EXPECT_EQ(zov_readIniFile(path.c_str()), ZOV_OKAY);
  EXPECT_EQ(get("A", "ab"), "2");
  zov_iniCleanup();
  remove(path.c_str());
  EXPECT_EQ(get("A", "ab"), "-905");
  fill("[A]\nab=" + string(200, 'v') + "\ncd=1\n[B]\n");
  fill("[A]\nab=3\n");
  EXPECT_EQ(get("A", "ab") + get("A", "cd") + get("B", nullptr), "322");
  remove(path.c_str());
  EXPECT_EQ(zov_readIniFileW(std::wstring(path.begin(), path.end()).c_str()), ZOV_OKAY);
  EXPECT_EQ(get("A", "ab"), "3");
  EXPECT_EQ(zov_readIniFile(path.c_str()), ZOV_OKAY);
  EXPECT_EQ(get("A", "ab"), "-905");
}

TEST_F(Ini, RefusesWhatIsMissing) {
  char out[9] = "#";
  fill("[A]\nab=1\n");
  EXPECT_EQ(zov_iniGet(path.c_str(), "A", "ab", nullptr, 9), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_iniInt32(path.c_str(), "A", "ab", nullptr), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_iniSet(path.c_str(), nullptr, "ab", "2"), ZOV_INI_NOARGUMENT);
  EXPECT_EQ(zov_iniGet(nullptr, "A", "ab", out, 9), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_iniSet(nullptr, "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_readIniFile(nullptr), ZOV_OKAY);
  EXPECT_EQ(zov_iniSet((dir / "none.ini").c_str(), "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_FALSE(zovtest::fileExists(dir / "none.ini") || zovtest::fileExists(temp));
  writeFile(temp, "[A]\nab=1\n");
  EXPECT_EQ(zov_iniSet(temp.c_str(), "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_EQ(readFile(temp), "[A]\nab=1\n");
  zov_term();
  EXPECT_EQ(zov_iniGet(path.c_str(), "A", "ab", out, 9), ZOV_INI_NOFILE);
  EXPECT_EQ(zov_iniSet(path.c_str(), "A", "ab", "2"), ZOV_INI_NOFILE);
  EXPECT_STREQ(out, "#");
  ASSERT_EQ(zov_init(), ZOV_OKAY);
}

TEST_F(Ini, AFailedSetLeavesTheFileOrItsCopy) {
  const string text = "[A]\nab=1\n" + string(3000, ';') + "\n";
  const string changed = "[A]\nab=2\n" + string(3000, ';') + "\n";
  const struct {
    Fault fault;
    int32_t status;
    string file;
    string copy;
  } rows[] = {
      {Fault::kRead, ZOV_INI_NOFILE, text, ""},
      {Fault::kWrite, ZOV_INI_NOTREPLACED, text, ""},
      {Fault::kShortWrite, ZOV_INI_NOTREPLACED, text, ""},
      {Fault::kSync, ZOV_INI_NOTREPLACED, text, ""},
      {Fault::kRename, ZOV_INI_NOTREPLACED, "", changed},
      {Fault::kNone, ZOV_OKAY, changed, ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(static_cast<int>(row.fault));
    fill(text);
    fault = row.fault;
    zovtest::outputOf([&] { EXPECT_EQ(zov_iniSet(path.c_str(), "A", "ab", "2"), row.status); });
    fault = Fault::kNone;
    EXPECT_EQ(readFile(path), row.file);
    EXPECT_EQ(readFile(temp), row.copy);
    EXPECT_EQ(get("A", "ab"), row.status == ZOV_OKAY ? "2" : "1");
    remove(temp.c_str());
  }
}

TEST_F(Ini, WideFormsConvert) {
  const auto wide = [](const string &text) { return std::wstring(text.begin(), text.end()); };
  const std::wstring file = wide(path);
  wchar_t out[8];
  int32_t value = 0;
  const auto getWide = [&](const wchar_t *name, uint32_t size) {
    wmemset(out, L'#', 8);
    return zov_iniGetW(file.c_str(), L"S", name, out, size);
  };
  fill("[S]\n\xC3\xA9t=\xC3\xA9t\xC3\xA9\nab=12\nbad=\xE9\n");
  EXPECT_EQ(getWide(L"\u00E9t", 3), ZOV_OKAY);
  EXPECT_EQ(std::wstring(out, 4), L"\u00E9t\0#"s);
  EXPECT_EQ(getWide(L"\u00E9t", 1), ZOV_INI_TRUNCATED);
  EXPECT_EQ(getWide(L"\u00E9t", 0), ZOV_INI_TRUNCATED);
  EXPECT_EQ(getWide(nullptr, 8), ZOV_INI_NOMEMORY);
  EXPECT_EQ(getWide(L"bad", 8), ZOV_INI_NOMEMORY);
  EXPECT_EQ(std::wstring(out, 1), L"#");
  EXPECT_EQ(zov_iniStringExW(file.c_str(), L"S", L"ab", out, 1u << 30, 0), ZOV_OKAY);
  EXPECT_STREQ(out, L"12");
  EXPECT_EQ(zov_iniInt32W(file.c_str(), L"S", L"ab", &value), ZOV_OKAY);
  EXPECT_EQ(value, 12);
  EXPECT_EQ(zov_iniSetW(file.c_str(), L"S", L"ab", L"\u00E9"), ZOV_OKAY);
  EXPECT_EQ(get("S", "ab"), "\xC3\xA9");
  EXPECT_EQ(zov_iniSetW(file.c_str(), L"S", L"ab", nullptr), ZOV_INI_NOMEMORY);
}

// Fails the first allocation, the second and so on of a set and a first get.
TEST_F(Ini, AShortageIsReportedAndLeavesNothing) {
  string text;
  for (int number = 0; number < 12; ++number) {
    text += "[S" + std::to_string(number) + "]\nab=" + string(150, 'v') + "\ncd=1\n";
  }
  const std::wstring file(path.begin(), path.end());
  wchar_t out[200];
  int32_t status = ZOV_INI_NOMEMORY;
  for (uint32_t passing = 0; status != ZOV_OKAY; ++passing) {
    ASSERT_LT(passing, 500u);
    writeFile(path, text);
    const int64_t before = zovtest::liveBlocks();
    int32_t setStatus = ZOV_OKAY;
    const string output = zovtest::outputOf([&] {
      zovtest::failAllocationAfter(passing);
      setStatus = zov_iniSetW(file.c_str(), L"S11", L"cd", L"2");
      zov_iniCleanup();
      status = zov_iniGetW(file.c_str(), L"S11", L"ab", out, 200);
      zovtest::stopFailing();
    });
    status = setStatus == ZOV_OKAY ? status : setStatus;
    EXPECT_TRUE(status == ZOV_OKAY || (status == ZOV_INI_NOMEMORY && !output.empty())) << passing;
    EXPECT_FALSE(zovtest::fileExists(temp));
    const char *expected = setStatus == ZOV_OKAY ? "2" : "1";
    std::thread([&] { EXPECT_EQ(get("S11", "cd"), expected) << passing; }).join();
    zov_iniCleanup();
    EXPECT_EQ(zovtest::liveBlocks(), before);
  }
}

TEST_F(Ini, StopsAtItsLimits) {
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
  EXPECT_EQ(get("A", "name0") + get("A", "name65534") + get("A", "name65535"), "0655342");
  fill(sections);
  EXPECT_EQ(get("sec0", "ab") + get("sec65534", "ab") + get("sec65535", "ab"), "0655342");
  zov_iniCleanup();
  writeFile(dir / "empty", "");
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

TEST_F(Ini, LongPathsMatch) {
  char out[9];
  for (const char *name : {"1", "2", "1", "2"}) {
    writeFile(dir / name, "[A]\nab="s + name);
    const string longPath = dir.path() + string(300, '/') + name;
    EXPECT_EQ(zov_iniGet(longPath.c_str(), "A", "ab", out, 9), ZOV_OKAY);
    EXPECT_STREQ(out, name);
  }
}

TEST_F(Ini, GetsAndSetsExcludeEachOther) {
  fill("[A]\nab=0\n");
  const auto setAndGet = [&](const char *value) {
    for (int round = 0; round < 100; ++round) {
      EXPECT_EQ(zov_iniSet(path.c_str(), "A", "ab", value), ZOV_OKAY);
      EXPECT_EQ(get("A", "ab").size(), 1u);
    }
  };
  std::thread other(setAndGet, "2");
  setAndGet("1");
  other.join();
}

}  // namespace
