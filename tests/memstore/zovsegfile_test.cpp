// SPDX-License-Identifier: Apache-2.0
//
// Segmented files: where segments begin and end, what they cost, and removal while in
// use. The model of file handles has what their bytes are.
#include <time.h>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

constexpr uint32_t kBase = 4096;

int32_t setSize(ZOV_SEG handle, uint64_t size) {
  EXPECT_EQ(zov_segLock(handle), ZOV_OKAY);
  const int32_t status = zov_segSetSize(handle, size);
  zov_segUnlock(handle);
  return status;
}

class Segments : public zovtest::Started {
 protected:
  // From the header as others see it, by the context's id.
  uint32_t numSegments() {
    void *root = nullptr;
    EXPECT_NE(zov_shmOpenCtx(id, 0, 24, &root), nullptr);
    return static_cast<uint32_t *>(root)[2];
  }

  bool segmentExists(uint32_t number) {
    return zov_shmOpen(reinterpret_cast<ZOV_SHM_CTX>(id), number, 0, 0) != nullptr;
  }

  uint64_t id = zov_segNextId();
  ZOV_SEG file = zov_segOpen(id, O_CREAT);
};

TEST_F(Segments, OffsetsFallIntoTheirSegments) {
  EXPECT_EQ(zov_segSegSize(file), kBase);
  const uint32_t rows[][3] = {
      {0, 0, 0},   {4, 1, 3},     {4, 0, 4},     {16, 1, 6},    {16, 0, 7},    {64, 1, 9},
      {64, 0, 10}, {1024, 1, 15}, {1024, 0, 16}, {4096, 1, 18}, {4096, 0, 19}, {2 * 4096, 0, 20},
  };
  for (const auto &[block, behind, segment] : rows) {
    const uint64_t offset = uint64_t{block} * kBase - behind;
    SCOPED_TRACE(offset);
    ASSERT_EQ(setSize(file, 0), ZOV_OKAY);
    ASSERT_EQ(zov_segSeekWrite(file, offset, "x", 1), 1u);
    EXPECT_EQ(numSegments(), segment + 1);
    EXPECT_TRUE(segmentExists(segment));
    EXPECT_TRUE(segment < 2 || !segmentExists(segment - 1)) << "a hole takes no memory";
    EXPECT_EQ(zov_segSize(file), offset + 1);
    ASSERT_EQ(setSize(file, 0), ZOV_OKAY);
    ASSERT_EQ(setSize(file, offset + 1), ZOV_OKAY);
    EXPECT_EQ(numSegments(), segment + 1);
  }
}

// Far out the tables take little memory, and a cut costs the segments that exist.
TEST_F(Segments, ReachesFarAndNotBeyondTheLimit) {
  constexpr uint64_t kLimit = uint64_t{1} << 47;
  const int64_t blocks = zovtest::liveBlocks();
  for (uint64_t offset : {kLimit, UINT64_MAX - 1, UINT64_MAX}) {
    errno = 0;
    EXPECT_EQ(zov_segSeekWrite(file, offset, "xy", 2), 0u);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(setSize(file, offset), ZOV_ERROR);
  }
  void *page = this;
  zov_segLock(file);
  EXPECT_EQ(zov_segGetPtr(file, UINT32_MAX, &page), ZOV_ERROR);
  EXPECT_EQ(page, nullptr);
  zov_segUnlock(file);
  EXPECT_EQ(zov_segSize(file) + zov_segModTime(id) + numSegments(), 0u);
  EXPECT_EQ(zovtest::liveBlocks(), blocks);

  const uint64_t resident = zovtest::residentBytes();
  for (uint64_t offset : {kLimit / 4, kLimit / 3, kLimit / 2, kLimit - 1}) {
    EXPECT_EQ(zov_segSeekWrite(file, offset, "xy", 2), offset == kLimit - 1 ? 1u : 2u);
    char text[3] = "";
    EXPECT_EQ(zov_segSeekRead(file, offset, text, 3), std::min<uint64_t>(kLimit - offset, 2));
    EXPECT_EQ(text[0], 'x');
  }
  EXPECT_LT(zovtest::residentBytes(), resident + (72u << 20));
  EXPECT_EQ(setSize(file, kLimit / 3 - 5), ZOV_OKAY);
  EXPECT_EQ(setSize(file, 5000), ZOV_OKAY);
  EXPECT_EQ(numSegments(), 2u);
  EXPECT_FALSE(segmentExists(1)) << "the cut is in a hole";
  EXPECT_EQ(setSize(file, 256 << 20), ZOV_OKAY);
  zov_segClose(zov_segOpen(id, O_TRUNC));
  EXPECT_LT(zovtest::residentBytes(), resident + (72u << 20))
      << "nothing was cleared that was empty";
}

bool isNone(uint64_t id) {
  return zov_segOpen(id, O_RDWR) == nullptr && zov_segModTime(id) == 0xFFFFFFFFu &&
         zov_segSizeStat(id) == UINT64_MAX;
}

// A removed file is opened again by its id, and segments that were cut off and stayed
// for an earlier handle are of use again.
TEST_F(Segments, RemovedOnesStayForThoseWhoHaveThem) {
  EXPECT_TRUE(isNone(12345) && zov_segModTime(id) == 0);
  const uint64_t begun = static_cast<uint64_t>(time(nullptr));
  EXPECT_EQ(zov_segSeekWrite(file, 4096, std::string(8192, 'x').data(), 8192), 8192u);
  EXPECT_EQ(zov_segRemove(zov_segOpen(id, 0)), ZOV_OKAY);
  ZOV_SEG writer = zov_segOpen(id, O_TRUNC);
  ZOV_SEG reader = zov_segOpen(id, 0);
  for (const uint64_t offset : {4096u, 12288u, 8192u}) {
    EXPECT_EQ(zov_segSeekWrite(writer, offset, "y", 1), 1u);
  }
  zov_segClose(file);
  zov_segClose(writer);
  std::string bytes(9000, '?');
  EXPECT_EQ(zov_segSeekRead(reader, 4096, bytes.data(), 9000), 8193u);
  EXPECT_TRUE(bytes[0] == 'y' && bytes[1] == '\0' && bytes[4096] == 'y' && bytes[4097] == '\0');
  EXPECT_TRUE(zov_segSizeStat(id) == 12289 && zov_segModTime(id) >= begun);
  zov_segClose(reader);
  EXPECT_TRUE(isNone(id) && zov_segOpen(id, O_CREAT) == nullptr);
}

}  // namespace
