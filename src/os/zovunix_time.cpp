// SPDX-License-Identifier: Apache-2.0
//
// Clocks, sleeping, the error number, environment variables and the locale:
// thin forms of libc's own services. Nothing here keeps state, takes a lock or
// prints; the wide forms allocate from the default tag and may jump, while they hold
// nothing.
#include <errno.h>
#include <locale.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include "files/zovutf8_private.h"

extern "C" {

int64_t zov_timeSecs() {
  return time(nullptr);
}

int64_t zov_seed() {
  return zov_timeSecs();
}

uint32_t zov_timeMilliSecs() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  // In 32 bits on purpose: the value wraps and serves for differences only.
  return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_usec / 1000);
}

uint64_t zov_timeNanoSecs() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

struct tm *zov_timeLocaltime(int64_t timeSecs, struct tm *out) {
  const time_t seconds = timeSecs;
  return localtime_r(&seconds, out) == nullptr ? nullptr : out;
}

char *zov_timeCtime(int64_t timeSecs) {
  const time_t seconds = timeSecs;
  return ctime(&seconds);
}

void zov_sleep(uint32_t waitMs) {
  constexpr int64_t kNsPerSecond = 1'000'000'000;
  timespec until = {};
  clock_gettime(CLOCK_MONOTONIC, &until);
  const int64_t nanoseconds = until.tv_nsec + int64_t{waitMs % 1000} * 1'000'000;
  until.tv_sec += waitMs / 1000 + nanoseconds / kNsPerSecond;
  until.tv_nsec = nanoseconds % kNsPerSecond;
  // Until a point in time: each interrupted relative sleep would report the
  // timer's slack as time that remains, and many signals would never let it end.
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

uint32_t zov_errno() {
  return static_cast<uint32_t>(errno);
}

char *zov_getenv(const char *name) {
  return getenv(name);
}

wchar_t *zov_getenvW(const wchar_t *name) {
  const char *none = nullptr;
  const char *value = zov::withUTF8(none, getenv, name);
  return value == nullptr ? nullptr : zov_convertToWchar(value, ZOV_UTF8_STRICT);
}

char *zov_setlocale(int32_t category, const char *locale) {
  return setlocale(category, locale);
}

wchar_t *zov_setlocaleW(int32_t category, const wchar_t *locale) {
  const auto set = [category](const char *bytes) -> const char * {
    return setlocale(category, bytes);
  };
  const char *none = nullptr;
  const char *result = locale == nullptr ? set(nullptr) : zov::withUTF8(none, set, locale);
  return result == nullptr ? nullptr : zov_convertToWchar(result, ZOV_UTF8_STRICT);
}
}
