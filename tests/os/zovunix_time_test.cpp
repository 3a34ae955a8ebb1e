// SPDX-License-Identifier: Apache-2.0
//
// Clocks, sleeping, environment, locale, process ids and the choice of the
// directory for temporary files.
#include <locale.h>
#include <signal.h>
#include <stdlib.h>

#include "support/faults.h"
#include "support/replace.h"
#include "support/route_file.h"
#include "support/temp_dir.h"

namespace {
bool mayNotSignal = false;
uint32_t interrupts = 0;  // of the next sleep by a made-up clock, which does not last
timespec awake;           // when the latest ends
}  // namespace

REPLACE(int, kill, (pid_t pid, int signal), {
  errno = EPERM;
  return mayNotSignal ? -1 : __real_kill(pid, signal);
})
REPLACE(int, clock_nanosleep, (clockid_t clock, int flags, const timespec *until, timespec *rest), {
  if (!zovtest::madeUpNow) {
    return __real_clock_nanosleep(clock, flags, until, rest);
  }
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_EQ(flags, TIMER_ABSTIME);
  awake = *until;
  return interrupts-- > 0 ? EINTR : 0;
})

namespace {

TEST(Time, ClocksAgreeWithTheSystems) {
  const time_t before = time(nullptr);
  const int64_t secs = zov_timeSecs();
  EXPECT_TRUE(before <= secs && secs <= zov_seed() && zov_seed() <= time(nullptr));
  zovtest::madeUpNow = {1'700'000'000, 123'456'789};
  EXPECT_EQ(zov_timeNanoSecs(), 1'700'000'000'123'456'789u);
  EXPECT_EQ(zov_timeMilliSecs(), static_cast<uint32_t>(1'700'000'000'123u)) << "in 32 bits";
  zovtest::madeUpNow.reset();
}

TEST(Time, BreaksDownAsLibcDoes) {
  ASSERT_EQ(setenv("TZ", "ZOV-5:45", 1), 0);
  tzset();
  const int64_t secs = 951868800;
  struct tm out;
  ASSERT_EQ(zov_timeLocaltime(secs, &out), &out);
  EXPECT_EQ(out.tm_hour * 60 + out.tm_min, 5 * 60 + 45) << "midnight elsewhere";
  EXPECT_EQ(mktime(&out), secs);
  EXPECT_STREQ(zov_timeCtime(secs), ctime(&secs));
  EXPECT_EQ(zov_timeLocaltime(INT64_MAX, &out), nullptr);
}

TEST(Time, SleepsUpToAPointInTime) {
  const std::tuple<timespec, uint32_t, timespec> rows[] = {
      {{7, 5}, 0, {7, 5}},
      {{7, 999'999'999}, 1, {8, 999'999}},
      {{7, 600'000'000}, 2400, {10, 0}},
      {{7, 0}, UINT32_MAX, {4'294'974, 295'000'000}}};
  for (const auto &[now, waitMs, until] : rows) {
    zovtest::madeUpNow = now;
    interrupts = 2;
    zov_sleep(waitMs);
    EXPECT_EQ(interrupts, UINT32_MAX) << "outlasts signals";
    EXPECT_EQ(awake.tv_sec, until.tv_sec) << waitMs;
    EXPECT_EQ(awake.tv_nsec, until.tv_nsec) << waitMs;
  }
  zovtest::madeUpNow.reset();
}

TEST(Process, IdsAreChecked) {
  EXPECT_EQ(zov_get_pid(), static_cast<uint32_t>(getpid()));
  EXPECT_EQ(zov_check_pid(zov_get_pid()), 1);
  EXPECT_EQ(zov_check_pid(INT32_MAX), 0);
  for (const uint32_t group : {0u, UINT32_MAX, UINT32_MAX - static_cast<uint32_t>(getpgrp()) + 1}) {
    EXPECT_EQ(zov_check_pid(group), 0) << group;
  }
  mayNotSignal = true;
  EXPECT_EQ(zov_check_pid(1), 1) << "another's";
  errno = EBADF;
  EXPECT_EQ(zov_errno(), static_cast<uint32_t>(EBADF));
}

class Environment : public zovtest::Started {
 protected:
  Environment() {
    for (const char *name : {"QEL_TMPDIR", "TMPDIR", "TEMPDIR"}) {
      unsetenv(name);
    }
  }
};

TEST_F(Environment, VariablesAndLocaleConvert) {
  setenv("ZOVTEST_VALUE", "caf\xC3\xA9", 1);
  setenv("ZOVTEST_BROKEN", "caf\xE9", 1);
  EXPECT_STREQ(zov_getenv("ZOVTEST_VALUE"), "caf\xC3\xA9");
  EXPECT_EQ(zov_getenv("ZOVTEST_NONE"), nullptr);
  wchar_t *value = zov_getenvW(L"ZOVTEST_VALUE");
  EXPECT_STREQ(value, L"caf\xE9");
  zov_freeMem(value, ZOV_DEFAULT_TAG);
  EXPECT_EQ(zov_getenvW(L"ZOVTEST_BROKEN"), nullptr);
  EXPECT_EQ(zov_getenvW(L"ZOVTEST_NONE"), nullptr);
  EXPECT_EQ(zov_getenvW(L"\xD800"), nullptr);
  setlocale(LC_ALL, "C");
  EXPECT_STREQ(zov_setlocale(LC_ALL, nullptr), "C");
  EXPECT_EQ(zov_setlocale(LC_ALL, "no_such_locale"), nullptr);
  EXPECT_EQ(zov_setlocaleW(LC_ALL, L"no_such_locale"), nullptr);
}

TEST_F(Environment, TemporaryDirectoryIsTheFirstWritable) {
  const zovtest::TempDir first;
  const zovtest::TempDir second;
  setenv("TMPDIR", "", 1);
  setenv("TEMPDIR", "", 1);
  EXPECT_EQ(zovtest::taken(zov_findOStmpdir()), "/tmp") << "an empty name names none";
  setenv("TEMPDIR", second.path().c_str(), 1);
  EXPECT_EQ(zovtest::taken(zov_findOStmpdir()), second.path());
  setenv("TMPDIR", "/no/such/place", 1);
  EXPECT_EQ(zovtest::taken(zov_findOStmpdir()), second.path());
  setenv("TMPDIR", first.path().c_str(), 1);
  {
    const zovtest::Fault meanwhile(zovtest::Call::close, [](uint32_t) { zov_readonly = 1; });
    EXPECT_EQ(zovtest::taken(zov_findOStmpdir()), first.path());
    zov_readonly = 0;
  }
  EXPECT_TRUE(std::filesystem::is_empty(first.path())) << "the probe is removed";
  EXPECT_EQ(zov_dirWritable((first.path() + std::string(5000, '/')).c_str()), 0)
      << "a name that does not fit";
  EXPECT_EQ(zov_dirWritable(nullptr), 0);
  EXPECT_EQ(zov_dirWritable(""), 0);
}

// A probe that cannot be removed stays. What has its name is left alone.
TEST_F(Environment, ProbesAreNewFiles) {
  const zovtest::TempDir dir;
  const zovtest::Fault stuck(zovtest::Call::remove, 1, EIO);
  ASSERT_EQ(zov_dirWritable(dir.path().c_str()), 1);
  const auto probe = std::filesystem::directory_iterator(dir.path())->path();
  ASSERT_EQ(rename(probe.c_str(), (dir / "aside").c_str()) + symlink("target", probe.c_str()), 0);
  EXPECT_EQ(zov_dirWritable(dir.path().c_str()), 1);
  EXPECT_FALSE(zovtest::fileExists(dir / "target"));
  EXPECT_TRUE(zovtest::fileExists(probe));
}

TEST_F(Environment, TemporaryDirectoryIsKeptOnceFound) {
  const zovtest::TempDir dir;
  setenv("TMPDIR", dir.path().c_str(), 1);
  zov_readonly = 1;
  EXPECT_EQ(zov_osTmpdir(), nullptr);
  zov_readonly = 0;
  const char *seen[2];
  zovtest::onThreads(2, [&](uint32_t id) { seen[id] = zov_osTmpdir(); });
  EXPECT_EQ(dir.path(), seen[0]);
  EXPECT_TRUE(seen[0] == seen[1]) << "one string for the whole process";
  unsetenv("TMPDIR");
  EXPECT_EQ(dir.path(), zov_osTmpdir());
  const ZOV_TAG tag = zov_createTagEx(nullptr, 0, ZOV_HERE);
  EXPECT_EQ(dir.path(), zov_tmpdir(tag)) << "by a variable of its own the sweep chooses";
}

}  // namespace
