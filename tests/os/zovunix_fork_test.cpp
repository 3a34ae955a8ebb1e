// SPDX-License-Identifier: Apache-2.0
//
// What handlers of signals and forked children may call: by what the calls do not
// do, since a lock that is free by luck proves nothing.
#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

using zovtest::Call;
using zovtest::Fault;
using Fork = zovtest::StartedInDir;

TEST_F(Fork, CallsOfHandlersAndChildrenNeitherLockNorAllocate) {
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  ZOV_FILE file = zov_fileOpen("f", O_RDWR | O_CREAT, 0);
  const auto take = [](void *, const void *, uint32_t) { return 0; };
  const auto deliver = [](void *, void *, uint32_t room, uint32_t *got) { return *got = room, 0; };
  ZOV_OUTPUTBUFF out = nullptr;
  ZOV_INPUTBUFF in = nullptr;
  zov_outputBuffCreate(take, nullptr, 0, &out);
  zov_inputBuffCreate(deliver, nullptr, nullptr, 0, &in);
  char text[64] = "text";
  wchar_t wide[8];
  uint64_t fd = 0;
  int64_t value = 0;
  {
    const Fault locks(Call::pthread_mutex_lock);
    const Fault blocks(Call::allocation);
    zov_swaporder64(1), zov_align(3, 2), zov_match("abc", "a*c"), zov_round(1.5);
    zov_snprintf(text, sizeof text, "%d %.17g %Lg %ls", 1 << 20, 0.1, 0.1L, L"wide");
    zov_utf8_to_wchar(wide, "abc", 8, 0), zov_wchar_to_utf8(text, wide, 8, 0);
    strupr(text), zov_strncpyZ(text, "text", 5);
    zov_flOpen("g", O_RDWR | O_CREAT, 0, &fd), zov_flSeekWrite(fd, 0, text, 9);
    zov_flSeek(fd, 0, 0), zov_flRead(fd, text, 9), zov_flLock(fd), zov_flUnlock(fd);
    zov_flSync(fd), zov_flSetSize(fd, 3), zov_flSize(fd), zov_flClose(fd);
    zov_flRename("g", "h"), zov_flModTime("h"), zov_flValidate("h", nullptr), zov_flRemove("h");
    zov_dirCreate("d"), zov_dirRemove("d");
    zov_fileWrite(file, text, 9), zov_fileSeekWrite(file, 9, text, 9), zov_fileSync(file);
    zov_fileSeek(file, 0, 0), zov_fileRead(file, text, 9), zov_fileSeekRead(file, 0, text, 9);
    zov_fileLength(file), zov_fileSetSize(file, 5);
    zov_outputBuffPutInt64(out, 1), zov_outputBuffPutString(out, text), zov_outputBuffFlush(out);
    zov_inputBuffGetInt64(in, &value), zov_inputBuffGetBytes(in, text, 9);
    zov_timeMilliSecs(), zov_timeNanoSecs(), zov_sleep(0), zov_check_pid(zov_get_pid());
    EXPECT_EQ(locks.uses() + blocks.uses(), 0u);
    zov_fileLock(file), zov_fileUnlock(file);
    EXPECT_GT(locks.uses(), 0u) << "a call that locks is noticed";
  }
  zov_fileClose(file);
}

}  // namespace
